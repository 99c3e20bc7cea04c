// Node records: Node/<node id> under the store root, the store's picture of
// one storage node (its announced header, capacity figures, last sign of
// life, data store and links to the VDisks it holds a member of). None of
// these operations locks: the caller holds the node lock around each call.
// Each returns 0, or -1 after its own message, unless said otherwise.
#pragma once

#include <cstddef>

#include "net/netlib.h"
#include "store/object.h"

namespace corvald {

// Creates the record of hdr->uid if missing and rewrites every header
// attribute, ipaddr (the datagram's source, dotted) and lastping. hdr->type
// must be an announcing type (PING, DS_PING, SINGLE_VDISK_PING,
// VDISK_DELETED, AUX_PING, STORE_JSON, DELETE_JSON).
int NodeCreate(const Hdr* hdr, const char* ipaddr);
// Rewrites the six capacity attributes; -1 silently when the record does
// not exist. hdr->type must be AUX_PING.
int NodeUpdate_AuxPing(const Hdr* hdr, const AuxPingData* aux);
// Rewrites lastping; -1 silently when the record does not exist. hdr->type
// must be HEARTBEAT.
int NodeUpdate_HEARTBEAT(const Hdr* hdr);
// Writes datastoremember from dse->uuid. hdr->type must be DS_PING.
int NodeUpdate_RefDatastore(const Hdr* hdr, const DatastoreEntry* dse);
// Removes datastoremember (already gone is fine). hdr->type must be DS_PING.
int NodeUpdate_UnrefDatastore(const Hdr* hdr);
// Reads the record of np->nodeid into np->hdr (cleared first) and the six
// capacity fields of np->aux (aux.length untouched).
int NodeLoad(Node* np);
// Reads datastoremember of the node whose id text is nodeuuid into dsuuid
// (ds_len bytes, at most ds_len - 1 characters, terminated; an empty file
// gives an empty text). -1 without a message when the record has none; -1
// when it cannot be read; -2 when it names no plain directory ("/", "." or
// ".."): refused, logged, dsuuid left empty.
int NodeLoad_DSMember(const char* nodeuuid, char* dsuuid, size_t ds_len);
// Fills the empty tree with one VDisk (only vdiskuuid set) per link in the
// node's "vdisks" directory. On -1 the tree is left empty.
int NodeLoad_VDisks(unsigned int nodeid, VDiskTree* vdtp);

// Reads the local-nodes file at path into the empty list nodes, one Node per
// line in file order: a decimal node id read like strtoul (leading blanks,
// ends at the first non-digit), of which the low 32 bits are used and must
// not be 0. The lines carry load_local_nodes, the operation that installs
// the list. 0, or negative after a failure, which leaves the list empty.
int read_local_nodes(const char* path, NodeList* nodes);

}  // namespace corvald
