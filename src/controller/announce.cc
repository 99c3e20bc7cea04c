// The sending half of the protocol for the daemon's own nodes: the ping
// cycle (DS_PING, AUX_PING and PING of every local node), the heartbeats,
// their builders and xmit_msg, the one way a datagram leaves the daemon.
//
// Every announcement is built afresh from the store: a node is reloaded
// under its locks for each one, and the locks are held only around the
// loads, never while a datagram is built or sent.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <cassert>
#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "controller/controller_internal.h"
#include "controller/metrics.h"
#include "controller/stats.h"
#include "net/auth.h"
#include "net/datagram.h"
#include "net/netlib.h"
#include "net/socket.h"
#include "store/datastore.h"
#include "store/lock.h"
#include "store/node.h"
#include "store/vdisk.h"

namespace corvald {

namespace {

constexpr const char* kSendPings = "send_pings";

// Appends the blocks of the VDisks whose snapshot flag matches: the entry,
// then its members and frontends in list order. False when one does not fit.
bool put_vdisk_blocks(DatagramWriter* w, const VDiskTree& vdisks, bool snapshots) {
    const char* kind = snapshots ? "Snapshot" : "Plain";
    for (const auto& [uuid, vd] : vdisks) {
        if ((vd->vde.snapshot != 0) != snapshots)
            continue;
        if (!w->put(vd->vde))
            return false;
        CV_DEBUG_AS("build_vdisk_ping", "APPEND %s VDisk entry %zu bytes", kind,
                    sizeof(VDiskEntry));
        if (!put_members_frontends(w, *vd, kind, "build_vdisk_ping"))
            return false;
    }
    return true;
}

// Every VDisk of the node's tree, each under its own lock; false at the
// first that cannot be locked or loaded, whose uuid is then in *failed.
bool load_vdisks(Node* node, const char** failed) {
    for (auto& [uuid, vd] : node->vdisks) {
        HeldLock lock;
        if (lock.take(VDiskLockName(vd->vdiskuuid)) < 0 || VDiskLoad(node, vd.get()) < 0) {
            *failed = vd->vdiskuuid;
            return false;
        }
    }
    return true;
}

// The three announcements of one local node, in the order DS_PING, AUX_PING,
// PING. Every line names send_pings.
void announce_node(Node* node, char* buf, size_t buflen, int so) {
    prepare_local_node(node);
    int ds_rc = 0;
    if (load_local_node(node, kLoadDSMember | kLoadVDisks, &ds_rc) < 0)
        return;

    // A refused datastoremember (ds_rc -2) skips the DS_PING like a data
    // store that cannot be loaded: an empty DS_PING would tell every peer
    // that the node left its data store.
    bool send_ds = ds_rc != -2;
    if (node->dsuuid[0] != '\0') {
        send_ds = load_datastore(node) == 0;
    } else if (send_ds && !node->vdisks.empty()) {
        CV_ERROR_AS(kSendPings, "Local node %s not part of any data store but references vdisks!?",
                    node->nodeuuid);
    }

    if (send_ds && !send_announcement(kSendPings, "DS_PING", counter::DS_PING, node, build_ds_ping,
                                      buf, buflen, so, "Datastore", node->dsuuid)) {
        return;
    }
    send_aux_ping(node, buf, buflen, so, kSendPings);

    const char* failed = nullptr;
    if (!load_vdisks(node, &failed)) {
        CV_ERROR_AS(kSendPings, "PING from Node %s not sent due to VDisk %s error", node->nodeuuid,
                    failed);
        return;
    }
    send_announcement(kSendPings, "PING", counter::PING, node, build_vdisk_ping, buf, buflen, so);
}

}  // namespace

bool put_header(DatagramWriter* w, char* buf, size_t buflen, const Node* node, uint8_t type) {
    std::memset(buf, 0, buflen);
    Hdr hdr = node->hdr;
    hdr.type = type;
    return w->put(hdr);
}

bool put_members_frontends(DatagramWriter* w, const VDisk& vd, const char* kind, const char* op) {
    for (const Member& m : vd.members) {
        if (!w->put(m.mbe))
            return false;
        CV_DEBUG_AS(op, "APPEND %s Member entry %zu bytes", kind, sizeof(MemberEntry));
    }
    for (const Frontend& f : vd.frontends) {
        if (!w->put(f.fee))
            return false;
        CV_DEBUG_AS(op, "APPEND %s Frontend entry %zu bytes", kind, sizeof(FrontendEntry));
    }
    return true;
}

int load_local_node(Node* node, unsigned what, int* ds_rc) {
    HeldLock lock;
    if (lock.take(NodeLockName(node->nodeid)) < 0)
        return -1;
    if (NodeLoad(node) < 0)
        return store_result(-2);
    if (what & (kLoadDSMember | kRequireDSMember)) {
        const int rc = NodeLoad_DSMember(node->nodeuuid, node->dsuuid, sizeof node->dsuuid);
        if (ds_rc != nullptr)
            *ds_rc = rc;
        if (rc < 0 && (what & kRequireDSMember))
            return store_result(-2);
    }
    if ((what & kLoadVDisks) && NodeLoad_VDisks(node->nodeid, &node->vdisks) < 0)
        return store_result(-2);
    return 0;
}

int load_datastore(Node* node) {
    HeldLock lock;
    if (lock.take(DatastoreLockNameStr(node->dsuuid)) < 0)
        return -1;
    return store_result(DatastoreLoad(node->dsuuid, &node->dse));
}

void send_aux_ping(const Node* node, char* buf, size_t buflen, int so, const char* op) {
    send_announcement(op, "AUX_PING", counter::AUX_PING, node, build_aux_ping, buf, buflen, so);
}

bool send_announcement(const char* op, const char* kind, int idx, const Node* node,
                       const AnnouncementBuilder& build, char* buf, size_t buflen, int so,
                       const char* label, const char* value) {
    // After the node, " <label> <value>" when the kind names a data store
    // or VDisk; the value may be empty (a DS_PING without a data store).
    const char* sp = label != nullptr ? " " : "";
    if (label == nullptr)
        label = value = "";
    size_t len = 0;
    // A signing daemon builds into less than the whole buffer: the trailer
    // must fit behind the datagram, and one that leaves it no room is
    // "Oversized" like any other.
    if (build(node, buf, buflen - auth_trailer_room(), &len) < 0) {
        CV_ERROR_AS(op, "Oversized %s from Node %s%s%s%s%s", kind, node->nodeuuid, sp, label, sp,
                    value);
        return false;
    }
    CV_INFO_AS(op, "Send %s %zuB from Node %s%s%s%s%s", kind, len, node->nodeuuid, sp, label, sp,
               value);
    xmit_msg(buf, buflen, len, so, idx);
    return true;
}

void prepare_local_node(Node* node) {
    node->hdr = Hdr{};
    node->dse = DatastoreEntry{};
    node->aux = AuxPingData{};
    std::memset(node->dsuuid, 0, sizeof node->dsuuid);
    VDiskTreeFlush(&node->vdisks);
}

int build_ds_ping(const Node* node, char* buf, size_t buflen, size_t* msglen) {
    DatagramWriter w(buf, buflen);
    if (!put_header(&w, buf, buflen, node, msg::DS_PING))
        return -1;
    CV_DEBUG("APPEND Datastore Ping header %zu bytes", sizeof(Hdr));
    if (node->dsuuid[0] != '\0') {
        if (!w.put(node->dse))
            return -1;
        CV_DEBUG("APPEND Datastore Ping entry %zu bytes", sizeof(DatastoreEntry));
    }
    *msglen = w.length();
    return 0;
}

int build_aux_ping(const Node* node, char* buf, size_t buflen, size_t* msglen) {
    DatagramWriter w(buf, buflen);
    if (!put_header(&w, buf, buflen, node, msg::AUX_PING))
        return -1;
    // The capacity record follows one zero byte behind the header.
    CV_DEBUG("APPEND Node Ping header %zu bytes", AUX_PING_DATA_OFFSET);
    AuxPingData aux = node->aux;
    aux.length = sizeof(AuxPingData);
    if (!w.put_zeros(1) || !w.put(aux))
        return -1;
    CV_DEBUG("APPEND Node Ping data %zu bytes", sizeof(AuxPingData));
    *msglen = w.length();
    return 0;
}

int build_vdisk_ping(const Node* node, char* buf, size_t buflen, size_t* msglen) {
    DatagramWriter w(buf, buflen);
    if (!put_header(&w, buf, buflen, node, msg::PING))
        return -1;
    CV_DEBUG("APPEND VDisk Ping header %zu bytes", sizeof(Hdr));
    // Plain VDisks first, then snapshots, each pass in uuid order: a
    // receiver then meets a parent before its snapshots.
    if (!put_vdisk_blocks(&w, node->vdisks, false) || !put_vdisk_blocks(&w, node->vdisks, true))
        return -1;
    *msglen = w.length();
    return 0;
}

int build_heartbeat(const Node* node, char* buf, size_t buflen, size_t* msglen) {
    DatagramWriter w(buf, buflen);
    if (!put_header(&w, buf, buflen, node, msg::HEARTBEAT))
        return -1;
    CV_DEBUG("APPEND Node Heartbeat header %zu bytes", sizeof(Hdr));
    *msglen = w.length();
    return 0;
}

int xmit_msg(char* buf, size_t buflen, size_t msglen, int so, int idx) {
    // Signed once, sent alike to every destination.
    if (auth_trailer_room() > 0) {
        assert(msglen + auth_trailer_room() <= buflen);
        msglen = auth_sign(buf, msglen);
    }
    int result = 0;
    for (const Host& h : destination_list(unicast_hosts, multicast_groups)) {
        const unsigned port = ntohs(h.sa.sin_port);
        ssize_t sent;
        do {
            sent = ::sendto(so, buf, msglen, 0, reinterpret_cast<const struct sockaddr*>(&h.sa),
                            sizeof h.sa);
        } while (sent < 0 && errno == EINTR);
        // A failed destination is reported and skipped, never retried: the
        // next cycle sends afresh.
        if (sent < 0) {
            CV_ERROR("sendto(%s:%u, %zu): %s", h.ipaddr, port, msglen, std::strerror(errno));
            result = -1;
            continue;
        }
        if (static_cast<size_t>(sent) != msglen) {
            CV_ERROR("sendto(%s:%u, %zu): %zd", h.ipaddr, port, msglen, sent);
            result = -1;
            continue;
        }
        CV_DEBUG("sendto(%s:%u, %zu): %zd", h.ipaddr, port, msglen, sent);
        stats_tx_raise(counter::ALL);
        if (idx >= 1 && idx < counter::TX_COUNT)
            stats_tx_raise(idx);
    }
    return result;
}

void send_pings(char* buf, size_t buflen, int so) {
    for (auto& node : local_nodes) announce_node(node.get(), buf, buflen, so);
}

void send_heartbeats(char* buf, size_t buflen, int so) {
    for (auto& np : local_nodes) {
        Node* node = np.get();
        prepare_local_node(node);
        if (load_local_node(node, 0) == 0)
            send_announcement(__func__, "HEARTBEAT", counter::HEARTBEAT, node, build_heartbeat, buf,
                          buflen, so);
    }
}

}  // namespace corvald
