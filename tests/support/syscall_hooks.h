// Fault injection and call counting for open(2) and fsync(2), for failures
// that a real file system does not produce on demand (an open interrupted by
// a signal, a failing fsync) and for checking how often a file is flushed.
//
// The test binaries define open() and fsync() themselves (syscall_hooks.cc);
// they pass every call straight to the kernel unless a SyscallHooks is alive,
// and then only count calls and fail the ones it was told to fail. Calls the
// C library makes internally (fopen, for instance) are not seen.
#pragma once

#include <string>

namespace corvald::test {

class SyscallHooks {
public:
    SyscallHooks();   // at most one alive at a time
    ~SyscallHooks();
    SyscallHooks(const SyscallHooks&) = delete;
    SyscallHooks& operator=(const SyscallHooks&) = delete;

    // The next `times` open() calls of exactly this path fail with err
    // without reaching the kernel.
    void fail_open(const std::string& path, int err, int times = 1);
    // open() calls of this path so far, failed ones included.
    int open_calls(const std::string& path) const;
    // The next `times` fsync() calls fail with err after the real fsync.
    void fail_fsync(int err, int times = 1);
    // fsync() calls so far.
    int fsync_calls() const;
};

}  // namespace corvald::test
