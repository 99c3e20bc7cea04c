// The store a fuzz target runs its inputs against, and the checks that
// follow every input.
//
// The store lives in a fresh directory (on tmpfs where there is one) with an
// empty sentinel directory beside it:
//
//   <top>/store      the work directory, seeded with Node, Datastore and
//                    VDisk records (a plain VDisk, a snapshot of it, a VDisk
//                    of one member), so updates, removals, snapshot links and
//                    data store links are reached, not only creations
//   <top>/sentinel   must stay empty
//
// After every input check_store() aborts, naming what it found, when anything
// appeared in the sentinel or beside the two in <top>, when the store root
// holds anything but its top directories, or when a lock file was left in
// <store>/locks. A datagram is kept from escaping the store by its uuids
// being refused as path components; these checks see it when one is not.
//
// The store keeps what earlier inputs did. It is wiped and seeded again
// every kWipeEvery inputs (so it stays small and the generation counts come
// back down to the seed's) and as soon as an input has removed one of the
// seeded member records (so the update paths stay reachable). An input run
// on its own, as when a crash is reproduced, meets the fresh seed.
//
// Environment: CORVALD_FUZZ_LOG=1 prints the daemon's log lines (error level
// and above) to standard error, to see what an input did; CORVALD_FUZZ_LOG=debug
// prints every line, the record traces included.
#pragma once

namespace harness {

// Makes the top directory (named after the target), configures the daemon's
// settings as it runs, with the store there and no lock waits, and seeds it.
void setup(const char* name);
// Removes every record (locks/ stays, and must be empty) and seeds again.
void wipe_and_seed();
// Whether the seeded member records and memberships are all still there.
bool markers_present();
// Aborts, naming what it found, when an input left anything outside the
// store's top directories, in the sentinel, or in locks/.
void check_store();
// The store root (the daemon's work directory).
const char* store_root();

}  // namespace harness
