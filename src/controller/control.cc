// The control channel: local programs connect to the control port and write
// one-line commands, each asking for an immediate announcement of a local
// node. The daemon never answers on the connection; what a command did
// shows only in the log and on the wire.
//
// Each read is one message and nothing is kept between reads: a command
// must arrive whole in one read, and of a read that holds several lines
// only the first runs. Every command reloads what it announces from the
// store, like the ping cycle.
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

#include "base/config.h"
#include "base/log.h"
#include "controller/controller_internal.h"
#include "controller/metrics.h"
#include "controller/stats.h"
#include "net/datagram.h"
#include "net/netlib.h"
#include "store/lock.h"
#include "store/vdisk.h"
#include "util/io.h"

namespace corvald {

namespace {

constexpr const char* kLoop = "controller_thread_loop";
constexpr const char* kHandle = "handle_ctrl_cmd";

// Cuts s at its first blank: the text after that blank, or nullptr when s
// has none.
char* cut_at_blank(char* s) {
    char* blank = std::strchr(s, ' ');
    if (blank == nullptr)
        return nullptr;
    *blank = '\0';
    return blank + 1;
}

// The node and VDisk arguments of "<keyword> <node> <vdisk>", the VDisk
// being the rest of the line; false after the message for the missing one.
bool node_and_vdisk_args(char* cmd, const char* keyword, char** node, char** vdisk) {
    *node = cut_at_blank(cmd);
    if (*node == nullptr) {
        CV_ERROR_AS(kHandle, "Missing Node UUID for CTRL %s", keyword);
        return false;
    }
    *vdisk = cut_at_blank(*node);
    if (*vdisk == nullptr) {
        CV_ERROR_AS(kHandle, "Missing VDisk UUID for CTRL %s", keyword);
        return false;
    }
    return true;
}

// SINGLE_VDISK_PING: the header, then the block of that one VDisk.
int build_single_vdisk_ping(const Node* node, const VDisk* vdisk, char* buf, size_t buflen,
                            size_t* msglen) {
    DatagramWriter w(buf, buflen);
    if (!put_header(&w, buf, buflen, node, msg::SINGLE_VDISK_PING))
        return -1;
    CV_DEBUG("APPEND Single VDisk Ping header %zu bytes", sizeof(Hdr));
    if (!w.put(vdisk->vde))
        return -1;
    const char* kind = vdisk->vde.snapshot != 0 ? "Snapshot" : "Plain";
    CV_DEBUG("APPEND Single %s VDisk entry %zu bytes", kind, sizeof(VDiskEntry));
    if (!put_members_frontends(&w, *vdisk, kind, __func__))
        return -1;
    *msglen = w.length();
    return 0;
}

// The local node a command names, prepared and reloaded with the parts in
// what (see load_local_node); nullptr, silently, when there is no such node
// or it cannot be loaded (the store code has said why).
Node* reload_named_node(const char* nodeuuid, unsigned what, int* ds_rc = nullptr) {
    Node* node = find_local_node(nodeuuid);
    if (node == nullptr)
        return nullptr;
    prepare_local_node(node);
    return load_local_node(node, what, ds_rc) < 0 ? nullptr : node;
}

// One VDisk of a local node, with an AUX_PING after it. Only a VDisk that
// the node's record links to is announced, and only by a node that belongs
// to a data store.
void send_single_vdisk_ping(const char* nodeuuid, const char* vdiskuuid, char* buf, size_t buflen,
                            int so) {
    Node* node = reload_named_node(nodeuuid, kRequireDSMember | kLoadVDisks);
    if (node == nullptr)
        return;
    VDisk* vdisk = VDiskTree_RB_FIND(&node->vdisks, std::string_view(vdiskuuid));
    if (vdisk == nullptr)
        return;
    {
        HeldLock lock;
        if (lock.take(VDiskLockName(vdisk->vdiskuuid)) < 0 || VDiskLoad(node, vdisk) < 0)
            return;
    }
    auto build = [vdisk](const Node* n, char* b, size_t blen, size_t* len) {
        return build_single_vdisk_ping(n, vdisk, b, blen, len);
    };
    if (send_announcement(__func__, "SINGLE_VDISK_PING", counter::SV_PING, node, build, buf, buflen,
                          so, "VDisk", vdiskuuid)) {
        send_aux_ping(node, buf, buflen, so, __func__);
    }
}

// The DS_PING of a local node, alone.
void send_ds_ping(const char* nodeuuid, char* buf, size_t buflen, int so) {
    int ds_rc = 0;
    Node* node = reload_named_node(nodeuuid, kLoadDSMember, &ds_rc);
    if (node == nullptr)
        return;
    // A datastoremember that names no plain directory is refused (-2) and
    // sends nothing, as in the ping cycle: a DS_PING without the entry would
    // tell every peer that the node left its data store.
    if (ds_rc == -2)
        return;
    if (node->dsuuid[0] != '\0' && load_datastore(node) < 0)
        return;
    send_announcement(__func__, "DS_PING", counter::DS_PING, node, build_ds_ping, buf, buflen, so,
                      "Datastore", node->dsuuid);
}

// VDISK_DELETED: the header, then the node id and the VDisk's uuid text in
// its 14-byte field, which holds no terminator when the text fills it.
int build_vdisk_deleted(const Node* node, const char* vdiskuuid, char* buf, size_t buflen,
                        size_t* msglen) {
    DatagramWriter w(buf, buflen);
    if (!put_header(&w, buf, buflen, node, msg::VDISK_DELETED))
        return -1;
    CV_DEBUG("APPEND VDisk Deleted header %zu bytes", sizeof(Hdr));
    VDiskDeleteEntry vdd = {};
    const size_t n = std::strlen(vdiskuuid);
    if (n > sizeof vdd.uuid)
        return -1;
    vdd.node = node->hdr.uid;
    std::memcpy(vdd.uuid, vdiskuuid, n);
    if (!w.put(vdd))
        return -1;
    CV_DEBUG("APPEND VDisk Deleted entry %zu bytes", sizeof(VDiskDeleteEntry));
    *msglen = w.length();
    return 0;
}

// Announces that a local node dropped a VDisk, with an AUX_PING after it.
// The VDisk is not looked up: a client announces a VDisk it has already
// removed from the store.
void send_vdisk_deleted(const char* nodeuuid, const char* vdiskuuid, char* buf, size_t buflen,
                        int so) {
    Node* node = reload_named_node(nodeuuid, 0);
    if (node == nullptr)
        return;
    auto build = [vdiskuuid](const Node* n, char* b, size_t blen, size_t* len) {
        return build_vdisk_deleted(n, vdiskuuid, b, blen, len);
    };
    if (send_announcement(__func__, "VDISK_DELETED", counter::VDISK_DEL, node, build, buf, buflen,
                          so, "VDisk", vdiskuuid)) {
        send_aux_ping(node, buf, buflen, so, __func__);
    }
}

// The commands. Each runs the command line in ccp->buf (its line end
// already cut off) with the message buffer and the datagram socket.
int single_vdisk_ping_cmd(CtrlConn* ccp, char* buf, size_t buflen, int so) {
    char *node, *vdisk;
    if (!node_and_vdisk_args(ccp->buf.get(), "single_vdisk_ping", &node, &vdisk))
        return -1;
    CV_NOTICE_AS(kHandle, "MSG from CTRL client %s:%d: SINGLE_VDISK_PING Node=%s VDisk=%s",
                 ccp->addr, ccp->port, node, vdisk);
    send_single_vdisk_ping(node, vdisk, buf, buflen, so);
    return 0;
}

int ds_ping_cmd(CtrlConn* ccp, char* buf, size_t buflen, int so) {
    const char* node = cut_at_blank(ccp->buf.get());
    if (node == nullptr) {
        CV_ERROR_AS(kHandle, "Missing Node UUID for CTRL ds_ping");
        return -1;
    }
    CV_NOTICE_AS(kHandle, "MSG from CTRL client %s:%d: DS_PING Node=%s", ccp->addr, ccp->port,
                 node);
    send_ds_ping(node, buf, buflen, so);
    return 0;
}

int vdisk_deleted_cmd(CtrlConn* ccp, char* buf, size_t buflen, int so) {
    char *node, *vdisk;
    if (!node_and_vdisk_args(ccp->buf.get(), "vdisk_deleted", &node, &vdisk))
        return -1;
    CV_NOTICE_AS(kHandle, "MSG from CTRL client %s:%d: VDISK_DELETED Node=%s VDisk=%s", ccp->addr,
                 ccp->port, node, vdisk);
    send_vdisk_deleted(node, vdisk, buf, buflen, so);
    return 0;
}

// "store_json" and "delete_json": the whole line goes to the JSON command
// handler, which takes its own parameters apart.
int json_cmd(CtrlConn* ccp, char* buf, size_t buflen, int so, int is_store) {
    char* line = ccp->buf.get();
    line[cfg_msg_buffer_size - 1] = '\0';
    CV_NOTICE_AS(kHandle, "MSG from CTRL client %s:%d: %s JSON", ccp->addr, ccp->port,
                 is_store ? "STORE" : "DELETE");
    return json_cmd_handler(line, std::strlen(line), buf, buflen, so, is_store);
}

int store_json_cmd(CtrlConn* ccp, char* buf, size_t buflen, int so) {
    return json_cmd(ccp, buf, buflen, so, 1);
}

int delete_json_cmd(CtrlConn* ccp, char* buf, size_t buflen, int so) {
    return json_cmd(ccp, buf, buflen, so, 0);
}

// Keywords are tried in this order against the start of the line, ignoring
// case and comparing only the keyword's own characters: "ds_pingX 1" runs
// ds_ping.
struct CtrlCommand {
    std::string_view keyword;
    int (*run)(CtrlConn* ccp, char* buf, size_t buflen, int so);
};
constexpr CtrlCommand kCommands[] = {
    {"single_vdisk_ping", single_vdisk_ping_cmd},
    {"ds_ping", ds_ping_cmd},
    {"vdisk_deleted", vdisk_deleted_cmd},
    {"store_json", store_json_cmd},
    {"delete_json", delete_json_cmd},
};
constexpr size_t kCommandCount = sizeof kCommands / sizeof kCommands[0];

// Lines run per keyword of kCommands, in table order, and last the lines
// that ran none (no line feed, or no keyword).
long long command_runs[kCommandCount + 1];

}  // namespace

void ctrl_command_counts(const std::function<void(const char*, long long)>& each) {
    for (size_t i = 0; i < kCommandCount; ++i) each(kCommands[i].keyword.data(), command_runs[i]);
    each("ignored", command_runs[kCommandCount]);
}

Node* find_local_node(const char* nodeuuid) {
    for (auto& node : local_nodes)
        if (std::strcmp(node->nodeuuid, nodeuuid) == 0)
            return node.get();
    return nullptr;
}

int handle_ctrl_cmd(CtrlConn* ccp, char* buf, size_t buflen, int so) {
    char* line = ccp->buf.get();
    char* lf = std::strchr(line, '\n');
    if (lf == nullptr) {
        ++command_runs[kCommandCount];
        CV_ERROR("Malformed CTRL MSG %s", line);
        return -1;
    }
    *lf = '\0';
    if (lf > line && lf[-1] == '\r')
        lf[-1] = '\0';
    for (size_t i = 0; i < kCommandCount; ++i) {
        const CtrlCommand& c = kCommands[i];
        if (::strncasecmp(line, c.keyword.data(), c.keyword.size()) == 0) {
            ++command_runs[i];
            return c.run(ccp, buf, buflen, so);
        }
    }
    ++command_runs[kCommandCount];
    CV_NOTICE("MSG (ignored) from CTRL client %s:%d: %s", ccp->addr, ccp->port, line);
    return 0;
}

int CtrlConnAlloc(CtrlConnPtr* ccpp) {
    // The one place a connection record is made; it is owned at once.
    CtrlConnPtr ccp(new (std::nothrow) CtrlConn);
    if (!ccp) {
        CV_ERROR("calloc(1, %zu): %s", sizeof(CtrlConn), std::strerror(ENOMEM));
        return -1;
    }
    const size_t size = static_cast<size_t>(cfg_msg_buffer_size);
    ccp->buf.reset(static_cast<char*>(std::calloc(1, size)));
    if (!ccp->buf) {
        CV_ERROR("calloc(1, %zu): %s", size, std::strerror(errno));
        return -1;
    }
    *ccpp = std::move(ccp);
    return 0;
}

void CtrlConnFree(CtrlConn* ccp) {
    if (ccp == nullptr)
        return;
    if (ccp->so >= 0) {
        CV_NOTICE("Closing CTRL connection from %s:%d", ccp->addr, ccp->port);
        fd_close(ccp->so);
        ccp->so = -1;
    }
    delete ccp;  // CtrlConnPtr's deleter: the record came from CtrlConnAlloc
}

bool close_idle_ctrl_conns(CtrlConnList* cclp, time_t now) {
    if (cfg_ctrl_idle_timeout <= 0)
        return false;
    bool closed = false;
    for (auto it = cclp->begin(); it != cclp->end();) {
        const CtrlConn* ccp = it->get();
        const time_t idle = now - ccp->last_active;
        if (idle <= cfg_ctrl_idle_timeout) {
            ++it;
            continue;
        }
        CV_NOTICE_AS(kLoop, "Idle CTRL client %s:%d for %llds", ccp->addr, ccp->port,
                     static_cast<long long>(idle));
        it = cclp->erase(it);
        closed = true;
    }
    return closed;
}

void CtrlConnListFlush(CtrlConnList* cclp) {
    while (!cclp->empty()) cclp->pop_front();
}

bool serve_ctrl_conns(CtrlConnList* cclp, const fd_set* rfds, char* buf, size_t buflen, int so) {
    // One byte of the read buffer stays for the terminator.
    const size_t room = static_cast<size_t>(cfg_msg_buffer_size) - 1;
    bool closed = false;
    for (auto it = cclp->begin(); it != cclp->end();) {
        CtrlConn* ccp = it->get();
        if (!FD_ISSET(ccp->so, rfds)) {
            ++it;
            continue;
        }
        ssize_t n;
        do {
            n = ::read(ccp->so, ccp->buf.get(), room);
        } while (n < 0 && errno == EINTR);
        if (n > 0) {
            ccp->last_active = monotonic_now();
            ccp->buf.get()[n] = '\0';
            handle_ctrl_cmd(ccp, buf, buflen, so);
            ++it;
            continue;
        }
        if (n == 0)
            CV_NOTICE_AS(kLoop, "EOF from CTRL client %s:%d", ccp->addr, ccp->port);
        else
            CV_ERROR_AS(kLoop, "read(%s:%d): %s", ccp->addr, ccp->port, std::strerror(errno));
        it = cclp->erase(it);
        closed = true;
    }
    return closed;
}

int accept_ctrl_conn(int ctrlso, CtrlConnList* cclp) {
    CtrlConnPtr ccp;
    if (CtrlConnAlloc(&ccp) < 0)
        return -1;
    ccp->so = tcp_accept(ctrlso, ccp->addr, &ccp->port);
    if (ccp->so < 0)
        return -1;
    // A descriptor beyond the select set cannot be watched: putting it into
    // an fd_set would write past the set. The client is hung up on at once
    // (with the closing notice), and the connections that fit go on being
    // served; a later client gets a lower descriptor once others closed.
    if (!fd_fits_select_set(ccp->so)) {
        CV_ERROR_AS(kLoop,
                    "CTRL connection from %s:%d on descriptor %d beyond select() capacity %d",
                    ccp->addr, ccp->port, ccp->so, FD_SETSIZE);
        return 0;
    }
    if (fd_blocking(ccp->so, 0) < 0)
        return 0;
    CV_NOTICE_AS(kLoop, "Accepted CTRL connection from %s:%d", ccp->addr, ccp->port);
    ++controller_counters.ctrl_connections;
    ccp->last_active = monotonic_now();
    cclp->push_back(std::move(ccp));
    return 1;
}

}  // namespace corvald
