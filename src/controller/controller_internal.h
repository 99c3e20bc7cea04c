// What the parts of the controller share: the lists the main loop keeps
// (the announcement code reads them), the lists' files, the receive step and
// the capacity of the loop's descriptor set. Not for use outside
// src/controller/.
#pragma once

#include <netinet/in.h>
#include <sys/select.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <ctime>
#include <list>
#include <memory>

#include "net/datagram.h"
#include "net/netlib.h"
#include "store/object.h"
#include "util/unique_fd.h"

namespace corvald {

// Seconds of the monotonic clock: what the periodic tasks and the control
// connections' idle times are measured in, immune to steps of the wall clock.
time_t monotonic_now();

// The local nodes in file order; replaced whole by a successful reload.
extern NodeList local_nodes;
// The unicast destinations in file order; replaced whole by a successful
// reload. Senders pick the list in force per datagram (destination_list).
extern HostList unicast_hosts;
// The multicast destinations, filled once by the loop's start-up.
extern HostList multicast_groups;

// Read cfg_local_nodes / cfg_unicast_hosts into a new list and install it;
// after any failure (logged) the list in force stays. 0 or negative.
int load_local_nodes();
int load_unicast_hosts();
// One notice line per entry of the list in force, "[i/n] ...".
void dump_local_nodes();
void dump_unicast_hosts();

// Receives one datagram into buf (buflen bytes), checks, counts and
// dispatches it. 0 when it was handled (the turn goes on to the control
// connections), 1 when it was dropped before dispatch (the turn ends), -1
// when the receive call failed (the loop ends).
int receive_datagram(char* buf, size_t buflen, int so);
// The checks, count and dispatch of one datagram of len bytes from *from:
// 0 when handled, 1 when dropped before dispatch. (The fuzz target's way in.)
int handle_datagram(const char* buf, size_t len, const struct sockaddr_in* from);

// Announcements (announce.cc). Every builder clears the whole buffer, writes
// its datagram at the start and stores its length in *msglen; 0, or -1 when
// the datagram does not fit buflen (the caller reports it).

// Clears what an announcement of the node reloads (hdr, dse, aux, dsuuid,
// the VDisk tree); nodeid and nodeuuid stay.
void prepare_local_node(Node* node);
// What load_local_node reads besides the node's header (flags to combine).
enum LocalNodeParts : unsigned {
    kLoadDSMember = 1,     // the data store uuid; NodeLoad_DSMember's result in *ds_rc
    kRequireDSMember = 2,  // the same, and the load fails when the node has none
    kLoadVDisks = 4,       // the names of the node's VDisks, which must load
};
// Reloads a prepared local node under its node lock, released before it
// returns: the header and the parts asked for. 0; -1 when the lock, -2 when
// a load that must succeed failed (the store code has said why).
int load_local_node(Node* node, unsigned what, int* ds_rc = nullptr);
// The entry of the node's data store (dsuuid) under its lock; 0 or -1.
int load_datastore(Node* node);
// Clears the whole buffer and starts a datagram with the node's header
// under the given type; false when not even the header fits.
bool put_header(DatagramWriter* w, char* buf, size_t buflen, const Node* node, uint8_t type);
// Appends the VDisk's member entries, then its frontend entries, in list
// order, each traced under op with kind ("Plain" or "Snapshot"). False when
// one does not fit.
bool put_members_frontends(DatagramWriter* w, const VDisk& vd, const char* kind, const char* op);
// Writes one announcement of node into buf (buflen bytes) and its length
// into *msglen; 0, or -1 when it does not fit.
using AnnouncementBuilder =
    std::function<int(const Node* node, char* buf, size_t buflen, size_t* msglen)>;
// The one way an announcement leaves the daemon: build writes it into buf,
// then "Oversized <kind> from Node <node>[ <label> <value>]" is logged
// (error) and nothing sent, or "Send <kind> <length>B from Node ..." (info)
// and xmit_msg sends it, counted under idx. Both lines carry op's name;
// kind is the type's name ("DS_PING"), label "Datastore" or "VDisk" when the
// lines name one. False when the datagram did not fit.
bool send_announcement(const char* op, const char* kind, int idx, const Node* node,
                       const AnnouncementBuilder& build, char* buf, size_t buflen, int so,
                       const char* label = nullptr, const char* value = nullptr);
// Builds and sends the node's AUX_PING, reporting under op's name.
void send_aux_ping(const Node* node, char* buf, size_t buflen, int so, const char* op);
// DS_PING: the header, and the data store entry when dsuuid is set.
int build_ds_ping(const Node* node, char* buf, size_t buflen, size_t* msglen);
// AUX_PING: the header, a zero byte and the capacity record.
int build_aux_ping(const Node* node, char* buf, size_t buflen, size_t* msglen);
// PING: the header and a block per VDisk, plain ones before snapshots.
int build_vdisk_ping(const Node* node, char* buf, size_t buflen, size_t* msglen);
// HEARTBEAT: the header alone.
int build_heartbeat(const Node* node, char* buf, size_t buflen, size_t* msglen);
// Sends the first msglen bytes of buf (buflen bytes) to every destination
// in force, signed first when the daemon signs (the builder left the
// trailer's room: msglen + auth_trailer_room() <= buflen), and raises ALL
// and idx (1..7) per destination reached. 0 when every destination took the
// whole datagram (also for none), -1 otherwise.
int xmit_msg(char* buf, size_t buflen, size_t msglen, int so, int idx);
// The DS_PING, AUX_PING and PING of every local node, reloaded from the store.
void send_pings(char* buf, size_t buflen, int so);
// The HEARTBEAT of every local node.
void send_heartbeats(char* buf, size_t buflen, int so);

// Control channel (control.cc). One accepted connection; buf holds
// msg_buffer_size bytes, the last read NUL-terminated.
struct CtrlConn {
    int so = -1;         // -1 until accepted
    int port = 0;        // client's port, host order
    char addr[16] = {};  // client's address, dotted text
    UniqueChars buf;
    time_t last_active = 0;  // monotonic_now() at accept and at each read
};
// Closes the connection's socket, if it has one, after its closing notice,
// and frees the connection. Only ever called as the deleter of CtrlConnPtr,
// so every way a connection goes away logs that notice exactly once.
void CtrlConnFree(CtrlConn* ccp);
struct CtrlConnDeleter {
    void operator()(CtrlConn* ccp) const { CtrlConnFree(ccp); }
};
using CtrlConnPtr = std::unique_ptr<CtrlConn, CtrlConnDeleter>;
// The open connections in the order they were accepted, which is the order
// they are served in.
using CtrlConnList = std::list<CtrlConnPtr>;
// A new connection with its zeroed read buffer in *ccpp; 0, or -1 (logged)
// with nothing allocated.
int CtrlConnAlloc(CtrlConnPtr* ccpp);
// Closes the connections that have sent nothing for longer than
// cfg_ctrl_idle_timeout seconds (0: never), each with a notice naming it, so
// that idle clients cannot hold every descriptor of the select set. True when
// one was closed.
bool close_idle_ctrl_conns(CtrlConnList* cclp, time_t now);
// Frees every connection of the list, in list order.
void CtrlConnListFlush(CtrlConnList* cclp);
// Serves each connection whose descriptor is in rfds, in list order: one
// read, one command. True when one was closed (end of input or a failed
// read) and taken out of the list.
bool serve_ctrl_conns(CtrlConnList* cclp, const fd_set* rfds, char* buf, size_t buflen, int so);
// Accepts one connection from the listener ctrlso and appends it. 1 when
// the list grew; 0 when a client was accepted and let go again; -1 when
// nothing was taken from the listen queue (no memory, or accept failed, as
// when the process is out of descriptors).
int accept_ctrl_conn(int ctrlso, CtrlConnList* cclp);
// Runs the command line at the start of ccp->buf, building its datagrams in
// buf (buflen bytes) and sending them on so. 0 or -1 (not used by the loop).
int handle_ctrl_cmd(CtrlConn* ccp, char* buf, size_t buflen, int so);
// Calls each with every control keyword in table order, then with "ignored"
// (lines that ran no command), and the lines of each since start.
void ctrl_command_counts(const std::function<void(const char*, long long)>& each);
// The local node whose id text is nodeuuid (compared exactly), or nullptr.
Node* find_local_node(const char* nodeuuid);

// JSON commands and pings (json_commands.cc).
// "store_json" (is_store 1) or "delete_json" (0): the command line of
// in_buflen bytes in in_buf is parsed, announced and applied locally. 0 or -1.
int json_cmd_handler(char* in_buf, size_t in_buflen, char* buf, size_t buflen, int so,
                     int is_store);
// Clears ofbuflen bytes of ofbuff and copies the inbuflen bytes of inbuf
// there when they fit with a terminating zero; 0, or -1 (logged, cleared).
int copyParam(const char* inbuf, size_t inbuflen, char* ofbuff, size_t ofbuflen);
// Fills nodeuuid, path, filename and jsonlen from the command line of buflen
// bytes and points *text at the JSON text in it. 0, or -1.
int parse_json_params(jsonEntry* json, const char** text, const char* buf, size_t buflen);
// Builds and sends the STORE_JSON or DELETE_JSON datagram (type) of the
// entry with the jsonlen bytes at json as its text. xmit_msg's result, or -1
// when no local node could be loaded or the datagram does not fit.
int send_json_ping(jsonEntry* jsonobj, const char* json, char* buf, size_t buflen, int so,
                   unsigned char type);
// Re-announces every document of the local-files index. 0, or -1 when the
// index path does not fit.
int send_pings_json(char* buf, size_t buflen, int so);

// Whether the loop's select set can watch fd. A descriptor at or above
// FD_SETSIZE cannot be put into an fd_set without writing past it, so the
// loop refuses it: start-up fails, and an accepted control connection must
// be closed at once (with its closing notice) instead of being watched.
inline bool fd_fits_select_set(int fd) {
    return fd >= 0 && fd < FD_SETSIZE;
}

}  // namespace corvald
