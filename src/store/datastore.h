// Datastore records: Datastore/<uuid> under the store root, the store's
// picture of one data store (its announced properties, member links to Node
// records, links to the VDisks placed on it). None of these operations
// locks: the caller holds the data store lock. Each returns 0 or -1 after
// its own message.
#pragma once

#include <cstddef>

#include "net/netlib.h"

namespace corvald {

// Creates the record of dse->uuid if missing, rewrites its seven attributes,
// makes "vdisks" and "members" and adds hdr->uid as a member link.
int DatastoreCreate(const Hdr* hdr, const DatastoreEntry* dse);
// Clears dse and fills it from the record of dsuuid (fields loaded before a
// failing one stay filled).
int DatastoreLoad(const char* dsuuid, DatastoreEntry* dse);
// Removes the member link of nodeuuid and, once no member is left, the
// whole record.
int DatastoreUpdate_UnrefNode(const char* dsuuid, const char* nodeuuid);

}  // namespace corvald
