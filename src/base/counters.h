// Event counters of the store's operations since start, for the metrics file
// the controller writes. They live on the ground floor because the store
// raises them (lock waits, fence checks, documents) and the controller reads
// them; nothing here does any I/O. Counters of the controller's own events
// are in controller/metrics.h.
#pragma once

#include <cstddef>

namespace corvald {

// The record kinds whose locks can time out, in the order the metrics file
// lists them; kLockKindNames holds their label values.
enum class LockKind { Node, Datastore, VDisk, Path };
inline constexpr const char* kLockKindNames[] = {"node", "datastore", "vdisk", "path"};
inline constexpr size_t kLockKinds = sizeof kLockKindNames / sizeof kLockKindNames[0];

struct StoreCounters {
    long long lock_timeouts[kLockKinds] = {};  // a lock still held elsewhere when its wait ended
    long long fence_checks = 0;                // fence-check programs started
    double fence_check_seconds = 0;            // their run time, start to reaping
    long long documents_stored = 0;            // JSON documents written with their metadata
    long long documents_expired = 0;           // JSON documents removed by the expiry sweep
};
inline StoreCounters store_counters;

}  // namespace corvald
