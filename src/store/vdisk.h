// VDisk records: VDisk/<uuid> under the store root, the store's picture of
// one virtual disk (shared attributes, member list, one member record per
// member node under "memberinfo", snapshot links). The caller holds the
// VDisk lock around each operation.
#pragma once

#include "store/object.h"

namespace corvald {

// Fills vdisk (vdiskuuid set; parentuuid and both lists empty) from its
// record: vde cleared, then the shared attributes and, for a snapshot, its
// time and parentuuid; with a node also the node's member record, the member
// list and the frontend list, the generation count encoded for the node's
// version. node may be null. 0, or -1 after the failing step's message
// (vdisk then holds what was read before it); a record path over 255 bytes
// fails without one.
int VDiskLoad(const Node* node, VDisk* vdisk);

// Writes an announced VDisk (its entry, members and frontends as received)
// into the store: creates the record, or updates it by the generation rules,
// and the announcing node's member record with its links; a rising
// generation runs the fence check. May rewrite vdisk->vde.name.mshipgencnt
// (peers before 1.8). 0 (also when nothing had to be written) or -1.
int VDiskCreate(const Hdr* hdr, VDisk* vdisk);
// Links the snapshot vdisk into its parent's "snapshots" directory; 0 (also
// when the parent is not in the store) or -1. The caller holds the parent
// lock, not the VDisk lock.
int ParentUpdate_RefSnapshot(const VDisk* vdisk);
// Removes the member of hdr->uid from the VDisk (loaded without a node just
// before) and, with the last member, the whole record and every link to it.
// 0 (also when other members remain), or negative.
int VDiskGone(const Hdr* hdr, const VDisk* vdisk);
// Removes the snapshot's link from its parent; 0 or -1. The caller holds the
// parent lock.
int ParentUpdate_UnrefSnapshot(const VDisk* vdisk);

// How long FenceCheck lets the program run before it kills it, in
// milliseconds (a variable so that tests can shorten it).
extern int fence_check_timeout_ms;

// For the VDisk record code. Reads "membership" of the open record vdiskfd
// (vdiskpath only for messages) into the empty list; members_count may be
// null. 0, or -1 with the list empty.
int MembershipLoad(MemberList* members, int* members_count, const char* vdiskpath, int vdiskfd);
// Removes the member record of nodeuuid and the node's link to the VDisk;
// 0 or -1.
int MemberinfoDelete(const VDisk* vdisk, const char* nodeuuid);
// Reads "frontend" of the open member record mbfd into the empty list
// (vdiskpath and nodeuuid only for messages). 0, or -1 with the list empty.
int FrontendsLoad(FrontendList* frontends, int* frontends_count, const char* vdiskpath,
                  const char* nodeuuid, int mbfd);

}  // namespace corvald
