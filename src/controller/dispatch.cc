// The receive step of the main loop: one datagram per turn, checked, counted
// and handed to the handler of its type, which turns it into changes of the
// store. Its messages carry the loop's name. Nothing survives a datagram but
// the store and the counters.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <unordered_map>

#include "base/log.h"
#include "controller/controller_internal.h"
#include "controller/metrics.h"
#include "controller/stats.h"
#include "net/auth.h"
#include "net/datagram.h"
#include "net/netlib.h"
#include "store/datastore.h"
#include "store/json_store.h"
#include "store/lock.h"
#include "store/node.h"
#include "store/object.h"
#include "store/vdisk.h"

namespace corvald {

const char* const drop_reason_names[drop::COUNT] = {
    "no_trailer", "unknown_key", "bad_tag", "replay", "foreign_claim",
    "short",      "malformed",   "unknown_type", "kernel"};
long long stats_drop_long[drop::COUNT];
long long stats_drop_short[drop::COUNT];

namespace {

constexpr const char* kLoop = "controller_thread_loop";

// When each source address was last warned about, on the monotonic clock.
// A flood from forged sources must not grow it without bound: when full,
// the entries of the last minute stay and new sources go unwarned (their
// drops are still counted).
std::unordered_map<in_addr_t, time_t> drop_warned_at;
constexpr size_t kDropWarnedMax = 4096;
constexpr time_t kDropWarnInterval = 60;

bool drop_warning_due(in_addr_t src) {
    const time_t now = monotonic_now();
    auto it = drop_warned_at.find(src);
    if (it != drop_warned_at.end()) {
        if (now - it->second < kDropWarnInterval)
            return false;
        it->second = now;
        return true;
    }
    if (drop_warned_at.size() >= kDropWarnedMax) {
        std::erase_if(drop_warned_at,
                      [&](const auto& e) { return now - e.second >= kDropWarnInterval; });
        if (drop_warned_at.size() >= kDropWarnedMax)
            return false;
    }
    drop_warned_at.emplace(src, now);
    return true;
}

// Counts a datagram dropped before dispatch under reason, and warns with
// why (at most once a minute per source address: a sender that keeps
// trying would otherwise fill the log). Always 1, the drop's result.
int drop_datagram(int reason, const struct sockaddr_in* from, const char* why) {
    stats_drop_raise(reason);
    if (drop_warning_due(from->sin_addr.s_addr)) {
        char ipaddr[INET_ADDRSTRLEN] = "?";
        ::inet_ntop(AF_INET, &from->sin_addr, ipaddr, sizeof ipaddr);
        CV_WARN_AS(kLoop, "Dropped datagram from %s: %s (%s)", ipaddr, why,
                   drop_reason_names[reason]);
    }
    return 1;
}

// The trailer's verdict as a drop reason, or -1 when the datagram goes on.
int auth_drop_reason(AuthResult ar) {
    switch (ar) {
        case AuthResult::Verified:
            return -1;
        case AuthResult::Unsigned:
            return auth_mode_in_force() == AuthMode::Require ? drop::NO_TRAILER : -1;
        case AuthResult::UnknownKey:
            return drop::UNKNOWN_KEY;
        case AuthResult::BadTag:
            return drop::BAD_TAG;
        case AuthResult::Replay:
            return drop::REPLAY;
    }
    return -1;
}

bool is_local_node(uint32_t uid) {
    for (const auto& n : local_nodes)
        if (n->nodeid == uid) return true;
    return false;
}

// The datagram as a handler gets it: the header copied out, the whole
// received length behind a bounded reader and the sender's dotted address
// (what NodeCreate records as the node's ipaddr).
struct Received {
    Hdr hdr;
    DatagramReader rd;
    const char* ipaddr;
};

// Each store call runs under exactly one lock, taken before and released
// after it; a lock that cannot be had stops the handler (logged by the
// lock code). These take the lock and run the call; -1 when either fails.
// A lock that was not had in time is counted by the lock code; every other
// failure is a store error.
template <class Op>
int under_lock(const LockName& ln, Op op) {
    HeldLock lock;
    if (int rc = lock.take(ln); rc < 0) return rc < -1 ? store_result(-1) : -1;
    return store_result(op());
}

int node_create(const Received& rx) {
    return under_lock(NodeLockName(rx.hdr.uid), [&] { return NodeCreate(&rx.hdr, rx.ipaddr); });
}

// The sender's announcement of its data store, or of having none.
void handle_ds_ping(const Received& rx) {
    const Hdr* hdr = &rx.hdr;
    if (node_create(rx) < 0) return;
    DatastoreEntry dse;
    if (rx.rd.read_at(HDR_SIZE, &dse)) {
        dse_dump(&dse);
        // The uuid becomes a lock name and a directory that the last
        // unreference removes recursively: refused before either.
        if (uuid_refused(kLoop, "Datastore", dse.uuid, sizeof dse.uuid)) return;
        if (under_lock(DatastoreLockName(dse.uuid), [&] { return DatastoreCreate(hdr, &dse); }) < 0)
            return;
        under_lock(NodeLockName(hdr->uid), [&] { return NodeUpdate_RefDatastore(hdr, &dse); });
        return;
    }
    char nodeuuid[16];
    std::snprintf(nodeuuid, sizeof nodeuuid, "%u", hdr->uid);
    char dsuuid[16] = {};
    // NodeLoad_DSMember refuses a stored uuid that is no plain name (-2).
    if (under_lock(NodeLockName(hdr->uid), [&] {
            return NodeLoad_DSMember(nodeuuid, dsuuid, sizeof dsuuid);
        }) < 0) {
        return;
    }
    if (dsuuid[0] != '\0' && under_lock(DatastoreLockNameStr(dsuuid), [&] {
                                  return DatastoreUpdate_UnrefNode(dsuuid, nodeuuid);
                              }) < 0) {
        return;
    }
    under_lock(NodeLockName(hdr->uid), [&] { return NodeUpdate_UnrefDatastore(hdr); });
}

void handle_aux_ping(const Received& rx) {
    AuxPingData aux;
    // The byte between the header and the capacity record is not read.
    if (!rx.rd.read_at(AUX_PING_DATA_OFFSET, &aux)) {
        stats_drop_raise(drop::MALFORMED);
        CV_ERROR_AS(kLoop, "Malformed Node Ping?");
        return;
    }
    under_lock(NodeLockName(rx.hdr.uid), [&] {
        int rc = NodeCreate(&rx.hdr, rx.ipaddr);
        return rc < 0 ? rc : NodeUpdate_AuxPing(&rx.hdr, &aux);
    });
}

void handle_heartbeat(const Received& rx) {
    under_lock(NodeLockName(rx.hdr.uid), [&] { return NodeUpdate_HEARTBEAT(&rx.hdr); });
}

// Removes the sender's membership of a VDisk that the store holds; a VDisk
// that cannot be loaded is left alone.
void vdisk_gone(const Hdr* hdr, VDisk* vdisk) {
    under_lock(VDiskLockName(vdisk->vdiskuuid), [&] {
        int rc = VDiskLoad(nullptr, vdisk);
        return rc < 0 ? rc : VDiskGone(hdr, vdisk);
    });
}

void handle_vdisk_deleted(const Received& rx) {
    if (node_create(rx) < 0) return;
    VDiskDeleteEntry vdde;
    if (!rx.rd.read_at(HDR_SIZE, &vdde)) {
        stats_drop_raise(drop::MALFORMED);
        CV_ERROR_AS(kLoop, "Malformed packet? #4");
        return;
    }
    const uint32_t uid = rx.hdr.uid;
    if (vdde.node != uid) {
        CV_ERROR_AS(kLoop, "HASHREQ_VDISK_DELETED %u != %u, using %u", uid, uint32_t{vdde.node},
                    uid);
    }
    VDisk vdisk;
    std::memcpy(vdisk.vde.uuid, vdde.uuid, sizeof vdisk.vde.uuid);
    // A uuid that cannot name a record directory is refused (and logged)
    // here: the datagram is dropped.
    if (VDiskInit(&vdisk, nullptr) < 0) return;
    vdisk_gone(&rx.hdr, &vdisk);
}

// Stores one announced VDisk under its lock and, for a snapshot outside a
// transaction, its link in the parent under the parent's lock; 0 or -1.
int store_entry(const Hdr* hdr, VDisk* vdisk) {
    if (under_lock(VDiskLockName(vdisk->vdiskuuid), [&] { return VDiskCreate(hdr, vdisk); }) < 0)
        return -1;
    if (vdisk->vde.snapshot == 0 || vdisk->vde.transaction_id != 0) return 0;
    return under_lock(VDiskLockName(vdisk->parentuuid),
                      [&] { return ParentUpdate_RefSnapshot(vdisk); });
}

// PING and SINGLE_VDISK_PING: every entry into the store, then, for a whole
// PING whose every entry was stored, the removal of the VDisks the store
// still links to the sender but the PING no longer names.
void handle_vdisk_ping(const Received& rx, bool single) {
    const Hdr* hdr = &rx.hdr;
    if (node_create(rx) < 0) return;

    DatagramReader rd = rx.rd;
    rd.seek(HDR_SIZE);
    VDiskTree vdt;
    int errors = 0;
    // Bytes after the last whole entry are ignored.
    while (rd.fits(rd.offset(), sizeof(VDiskEntry))) {
        std::unique_ptr<VDisk> vdisk;
        int rc = VDiskRead(&rd, &vdisk);
        if (rc == -2 || rc == -3) {
            // The entries before it stay stored; the rest is dropped.
            stats_drop_raise(drop::MALFORMED);
            CV_ERROR_AS(kLoop, "Malformed packet? #%d", -rc);
            ++errors;
            break;
        }
        // A refused uuid (logged by the reader) is an error of its entry;
        // the reader has skipped the block, so the walk goes on.
        if (rc < 0 || store_entry(hdr, vdisk.get()) < 0) {
            ++errors;
            continue;
        }
        // The store changes for a duplicate stay made.
        if (VDiskTree_RB_INSERT(&vdt, &vdisk) != nullptr) {
            CV_ERROR_AS(kLoop, "Duplicate VDisk Entry %s", vdisk->vdiskuuid);
            ++errors;
        }
    }
    // A damaged or partly refused announcement never removes VDisks.
    if (errors > 0 || single) return;

    VDiskTree oldvdt;
    if (under_lock(NodeLockName(hdr->uid), [&] { return NodeLoad_VDisks(hdr->uid, &oldvdt); }) < 0)
        return;
    for (auto& [uuid, old] : oldvdt) {
        if (VDiskTree_RB_FIND(&vdt, uuid) != nullptr) continue;
        CV_NOTICE_AS(kLoop, "Stale VDisk %s of member %u", old->vdiskuuid, hdr->uid);
        vdisk_gone(hdr, old.get());
    }
}

// Validates a JSON ping's record and payload bounds. The record's own
// length is required whole: its offset field lies in its last bytes, and
// a shorter datagram would have it read from bytes beyond the received
// length. A payload offset past the end is "empty payload".
void handle_json_ping(const Received& rx) {
    jsonEntry je;
    if (!rx.rd.read_at(HDR_SIZE, &je)) {
        stats_drop_raise(drop::MALFORMED);
        CV_ERROR_AS(kLoop, "Malformed JSON ping header");
        return;
    }
    if (je.offset > rx.rd.length() - JSON_TEXT_OFFSET) {
        stats_drop_raise(drop::MALFORMED);
        CV_ERROR_AS(kLoop, "Malformed JSON ping empty payload");
        return;
    }
    // The text runs from behind the record and its offset bytes to the end;
    // the store checks path and filename before it touches anything.
    std::string_view text = rx.rd.tail(JSON_TEXT_OFFSET + static_cast<size_t>(je.offset));
    je.jsonlen = text.size();
    if (rx.hdr.type == msg::STORE_JSON)
        store_result(json_store_handle_ping(&je, text.empty() ? "" : text.data()));
    else
        store_result(json_delete_local_files(&je));
}

// Counts the datagram under its type and runs that type's handler. Every
// known type is counted here, before its payload is looked at, so a
// datagram its handler later refuses is still in the statistics.
void dispatch_datagram(const Received& rx) {
    switch (rx.hdr.type) {
        case msg::SINGLE_VDISK_PING:
            stats_rx_raise(counter::SV_PING);
            handle_vdisk_ping(rx, true);
            return;
        case msg::VDISK_DELETED:
            stats_rx_raise(counter::VDISK_DEL);
            handle_vdisk_deleted(rx);
            return;
        case msg::AUX_PING:
            stats_rx_raise(counter::AUX_PING);
            handle_aux_ping(rx);
            return;
        case msg::STORE_JSON:
        case msg::DELETE_JSON:
            stats_rx_raise(counter::ST_JSON);
            handle_json_ping(rx);
            return;
        case msg::DS_PING:
            stats_rx_raise(counter::DS_PING);
            handle_ds_ping(rx);
            return;
        case msg::HEARTBEAT:
            stats_rx_raise(counter::HEARTBEAT);
            handle_heartbeat(rx);
            return;
        case msg::PING:
            stats_rx_raise(counter::PING);
            handle_vdisk_ping(rx, false);
            return;
        default:
            stats_rx_raise(counter::UNKNOWN);
            stats_drop_raise(drop::UNKNOWN_TYPE);
            CV_ERROR_AS(kLoop, "Received unknown header type %u", unsigned{rx.hdr.type});
            hdr_dump(&rx.hdr);
            return;
    }
}

// The kernel's count of datagrams it dropped on the socket for want of
// room, which it attaches (SO_RXQ_OVFL) to a datagram received after them:
// cumulative since the socket was made, so only the rise since the last one
// seen is counted. Drops after the last datagram show with the next one.
void count_kernel_drops(struct msghdr* mh) {
    static uint32_t seen = 0;
    for (struct cmsghdr* c = CMSG_FIRSTHDR(mh); c != nullptr; c = CMSG_NXTHDR(mh, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SO_RXQ_OVFL) continue;
        uint32_t total;
        std::memcpy(&total, CMSG_DATA(c), sizeof total);
        // Unsigned: a count that wrapped past 2^32 still rises by the difference.
        stats_drop_raise(drop::KERNEL, static_cast<uint32_t>(total - seen));
        seen = total;
    }
}

}  // namespace

int receive_datagram(char* buf, size_t buflen, int so) {
    struct sockaddr_in from;
    ssize_t len;
    alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(uint32_t))];
    struct msghdr mh;
    for (;;) {
        std::memset(&from, 0, sizeof from);
        struct iovec iov = {buf, buflen};
        std::memset(&mh, 0, sizeof mh);
        mh.msg_name = &from;
        mh.msg_namelen = sizeof from;
        mh.msg_iov = &iov;
        mh.msg_iovlen = 1;
        mh.msg_control = control;
        mh.msg_controllen = sizeof control;
        // Not blocking: select may report a datagram that the kernel then
        // drops (a bad checksum), and a blocked receive would hold the loop,
        // stop signals included, until the next one arrives. Finding nothing
        // is not a failure of the socket, so it only ends the turn. A
        // recvmsg for the drop count, reported as the recvfrom it replaces.
        len = ::recvmsg(so, &mh, MSG_DONTWAIT);
        if (len >= 0) break;
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) return 1;
        CV_ERROR_AS(kLoop, "recvfrom(): %s", std::strerror(errno));
        return -1;
    }
    count_kernel_drops(&mh);
    return handle_datagram(buf, static_cast<size_t>(len), &from);
}

int handle_datagram(const char* buf, size_t len, const struct sockaddr_in* from) {
    // The trailer is checked before any other byte is looked at; what goes
    // on is the datagram without it, exactly the bytes an unsigned sender
    // would have sent.
    unsigned key_id = 0;
    const AuthResult ar = auth_verify(buf, len, std::time(nullptr), &len, &key_id);
    if (const int reason = auth_drop_reason(ar); reason >= 0) {
        char why[48];
        if (reason == drop::UNKNOWN_KEY)
            std::snprintf(why, sizeof why, "unknown key %u", key_id);
        else
            std::snprintf(why, sizeof why, "%s", reason == drop::NO_TRAILER ? "unsigned"
                                                 : reason == drop::BAD_TAG  ? "tag mismatch"
                                                                            : "replayed");
        return drop_datagram(reason, from, why);
    }
    // Only the received length counts: the buffer still holds the bytes of
    // earlier, longer datagrams behind it.
    const DatagramReader rd(buf, len);
    Hdr hdr;
    if (!rd.read_at(0, &hdr)) {
        stats_drop_raise(drop::SHORT);
        CV_ERROR_AS(kLoop, "Malformed packet? #1");
        return 1;
    }
    char ipaddr[INET_ADDRSTRLEN];
    if (::inet_ntop(AF_INET, &from->sin_addr, ipaddr, sizeof ipaddr) == nullptr) {
        CV_ERROR_AS(kLoop, "inet_ntop(): %s", std::strerror(errno));
        return 1;
    }
    CV_DEBUG_AS(kLoop, "recvfrom(%s:%d): %zu", ipaddr, int{ntohs(from->sin_port)}, len);
    // A host speaks for its own nodes alone, keys or not: whoever else
    // names one of them is forging (or misconfigured), and its datagram
    // would rewrite or remove this host's own records.
    if (is_local_node(hdr.uid) && !own_address(from->sin_addr.s_addr)) {
        char why[48];
        std::snprintf(why, sizeof why, "claims local node %u", uint32_t{hdr.uid});
        return drop_datagram(drop::FOREIGN_CLAIM, from, why);
    }
    stats_rx_raise(counter::ALL);
    dispatch_datagram(Received{hdr, rd, ipaddr});
    return 0;
}

}  // namespace corvald
