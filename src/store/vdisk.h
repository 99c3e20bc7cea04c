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

// For the VDisk record code. Reads "membership" of the open record vdiskfd
// (vdiskpath only for messages) into the empty list; members_count may be
// null. 0, or -1 with the list empty.
int MembershipLoad(MemberList* members, int* members_count, const char* vdiskpath, int vdiskfd);
// Reads "frontend" of the open member record mbfd into the empty list
// (vdiskpath and nodeuuid only for messages). 0, or -1 with the list empty.
int FrontendsLoad(FrontendList* frontends, int* frontends_count, const char* vdiskpath,
                  const char* nodeuuid, int mbfd);

}  // namespace corvald
