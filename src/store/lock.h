// Path locks: a file in the store's "locks" directory, created exclusively
// and holding the holder's pid, whose existence keeps every other process
// that follows the same protocol out of the record it names. Removing the
// file releases the lock.
//
// Order: at most two locks at once, and only a node, data store or parent
// lock taken (and released again) while a VDisk lock is held.
#pragma once

#include <cstddef>

namespace corvald {

// Longest lock name the name builders make.
constexpr size_t kLockNameMax = 255;

// Takes the lock file <work_directory>/locks/<path> (path is the lock name,
// not a file path), waiting 50, 100, 200,
// ... ms while somebody else holds it. 0 when held; -1 held elsewhere past
// timeout_ms (at once, silently, when timeout_ms <= 0); -2 the file could not
// be created (also for a name that is not a plain file name); -3 the pid
// could not be written; -4 the lock path is too long or the file could not
// be flushed.
int PathLock(const char* path, int timeout_ms);
// Removes the lock file of the lock name path; failures are logged only.
void PathUnlock(const char* path);

// A lock name with the timeout of its kind. fits is false when the name did
// not fit in kLockNameMax bytes; such a name is never locked.
struct LockName {
    char text[kLockNameMax + 1];
    int timeout_ms;
    bool fits;
};

// The lock names of the records, each with its kind's configured timeout.
LockName NodeLockName(unsigned int nodeid);          // "NODE-%u"
LockName NodeLockNameStr(const char* nodeuuid);      // "NODE-%s"
LockName DatastoreLockName(const char* uuid14);      // "DS-%.*s" of a 14-byte field
LockName DatastoreLockNameStr(const char* dsuuid);   // "DS-%s"
LockName VDiskLockName(const char* vdiskuuid);       // "VDISK-%s", also for a parent

// Owns one held lock and releases it, by its name, when it goes away, so an
// early return cannot leave a lock behind. It only ever releases what it
// took; release() gives the lock up earlier, at the point where the lock
// order wants it.
class HeldLock {
public:
    HeldLock() = default;
    ~HeldLock() { release(); }
    HeldLock(const HeldLock&) = delete;
    HeldLock& operator=(const HeldLock&) = delete;

    // PathLock of ln (-1 without a message when the name did not fit); on 0
    // the lock is held by this owner. The owner must not hold a lock already.
    int take(const LockName& ln);
    // Releases the lock if this owner holds one.
    void release();

private:
    LockName name_ = {};
    bool held_ = false;
};

}  // namespace corvald
