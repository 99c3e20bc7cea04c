// The lock files as a whole: who holds them, and the removal of those whose
// holder is gone. A lock file's only content is its holder's pid and a line
// feed; a holder that died (a crash, kill -9) leaves its files behind, and
// every process that follows the protocol would wait on them for good.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <string>
#include <vector>

namespace corvald {

// One lock file of <work_directory>/locks.
struct LockFileInfo {
    std::string name;
    pid_t pid = 0;       // 0 when the file holds no pid (being written, or foreign)
    bool alive = false;  // a process with that pid exists
    time_t mtime = 0;    // when it was taken
};

// Whether a process with this pid exists (for kill(2), EPERM means it does).
bool pid_alive(pid_t pid);
// When process pid started, in seconds since the epoch; 0 when /proc does
// not say.
time_t process_start(pid_t pid);
// Whether the lock taken at `taken` by pid is still held by a live process:
// pid exists and started before the lock was taken (a later process only
// reuses the number).
bool holder_alive(pid_t pid, time_t taken);

// The pid held by the lock file <work_directory>/locks/<name>, or 0 when it
// is not a regular file or holds no pid; its mtime in *mtime when not null.
pid_t LockFileHolder(const char* name, time_t* mtime = nullptr);

// Every lock file, in name order; entries that are not regular files are
// left out. Empty when the directory cannot be read (logged unless it does
// not exist).
std::vector<LockFileInfo> LockFileList();

// Removes the lock file name if it still holds pid and pid is not alive,
// checking again just before the removal. 1 removed, 0 left (held by
// someone else or alive now), -1 failure (logged).
int LockFileBreak(const char* name, pid_t pid);

// At start-up, before any lock is taken: removes every lock file held by
// old_pid (the previous run of the daemon, from its pid file) when that
// process is gone, or by this very process (a pid reused after a restart of
// the machine or container), logging each removal. The number removed.
int LockFilesRecover(pid_t old_pid);

}  // namespace corvald
