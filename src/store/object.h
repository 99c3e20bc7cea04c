// The daemon's working objects: local storage nodes, the VDisks announced or
// loaded for a node with their members and frontends, and the datagram
// destinations. Node, VDisk, Member and Frontend begin with their wire
// records, so a datagram is built by copying those records whole. (The
// datagram destinations, Host, live in net/host.h.)
//
// Containers own their elements: clearing a list or a tree frees what it
// holds, and a Node's tree frees its VDisks with their members and frontends.
// Lists keep insertion order. Allocation failure of a container ends the
// process (std::bad_alloc is not caught); what one datagram can make is
// bounded by its length.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "net/datagram.h"
#include "net/host.h"
#include "net/netlib.h"

namespace corvald {

// One member node of a VDisk.
struct Member {
    MemberEntry mbe = {};
    char uuid[16] = {};  // mbe.node as "%u", set by MemberInit
};

// One frontend of a VDisk.
struct Frontend {
    FrontendEntry fee = {};
    char ipaddr[16] = {};  // fee.node as dotted text
};

using MemberList = std::vector<Member>;
using FrontendList = std::vector<Frontend>;

struct VDisk {
    VDiskEntry vde = {};
    char vdiskuuid[16] = {};   // vde.uuid up to its first zero byte; the tree key
    char parentuuid[16] = {};  // a snapshot's parent uuid likewise; else empty
    MemberList members;
    int members_count = 0;  // items put into members by the loader that filled it
    FrontendList frontends;
    int frontends_count = 0;
};

// VDisks by uuid text in byte order (std::string compares as unsigned char,
// like strcmp). The key is a copy of vdiskuuid made at insertion.
using VDiskTree = std::map<std::string, std::unique_ptr<VDisk>, std::less<>>;

struct Node {
    Hdr hdr = {};
    DatastoreEntry dse = {};
    AuxPingData aux = {};
    char nodeuuid[16] = {};  // nodeid as "%u"
    char dsuuid[16] = {};    // uuid of the node's data store; empty for none
    uint32_t nodeid = 0;
    VDiskTree vdisks;
};

// Nodes by pointer: store code keeps Node* while the list is walked.
using NodeList = std::vector<std::unique_ptr<Node>>;

// Sets nodeid and its "%u" text.
void NodeInit(Node* node, uint32_t nodeid);

// Copies mbe's node (if mbe is given) and writes the node as "%u" into uuid.
void MemberInit(Member* member, const MemberEntry* mbe);
// The first member with this node id, or nullptr.
Member* MemberLookup(MemberList* mblp, unsigned int nodeid);

// Copies vde (if given) and derives vdiskuuid and, for a snapshot,
// parentuuid from the entry. 0; -1 when either text is refused by
// vde_check_uuids (logged there), which leaves both texts empty.
int VDiskInit(VDisk* vdisk, const VDiskEntry* vde);

// Reads one VDisk block at the reader's cursor (the caller has checked that
// a whole VDiskEntry remains), tracing each record as it is read. Results:
//  0  *vdiskp holds the new VDisk with its members and frontends in wire
//     order; the cursor is past the block.
// -1  the entry's uuid or parent uuid is refused; no VDisk is made and the
//     cursor is past the block (or at the end when the block overruns).
// -2  the member records run past the end; -3 the frontend records run past
//     the end (or a frontend address cannot be shown). The cursor is at the
//     end of the datagram, *vdiskp untouched.
int VDiskRead(DatagramReader* rd, std::unique_ptr<VDisk>* vdiskp);

// Tree operations, named after the intrusive tree they replace.
// Inserts *elm unless a VDisk with its uuid is already there: then returns
// that one and leaves *elm with the caller; else the tree takes *elm (which
// becomes empty) and nullptr is returned.
VDisk* VDiskTree_RB_INSERT(VDiskTree* head, std::unique_ptr<VDisk>* elm);
// The VDisk with this uuid, or nullptr.
VDisk* VDiskTree_RB_FIND(VDiskTree* head, std::string_view uuid);
// Frees every VDisk of the tree; the tree stays usable.
void VDiskTreeFlush(VDiskTree* head);

}  // namespace corvald
