#include "support/syscall_hooks.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdarg>
#include <map>
#include <mutex>
#include <vector>

namespace corvald::test {

namespace {

struct HookState {
    std::mutex mu;
    bool armed = false;
    std::string open_path;
    int open_err = 0;
    int open_times = 0;
    std::map<std::string, int> opens;
    int fsync_err = 0;
    int fsync_times = 0;
    std::vector<int> fsyncs;
};

HookState& state() {
    static HookState s;
    return s;
}

}  // namespace

SyscallHooks::SyscallHooks() {
    HookState& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    assert(!s.armed);
    s.armed = true;
}

SyscallHooks::~SyscallHooks() {
    HookState& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    s.armed = false;
    s.open_times = 0;
    s.fsync_times = 0;
    s.opens.clear();
    s.fsyncs.clear();
}

void SyscallHooks::fail_open(const std::string& path, int err, int times) {
    std::lock_guard<std::mutex> lock(state().mu);
    state().open_path = path;
    state().open_err = err;
    state().open_times = times;
}

int SyscallHooks::open_calls(const std::string& path) const {
    std::lock_guard<std::mutex> lock(state().mu);
    auto it = state().opens.find(path);
    return it == state().opens.end() ? 0 : it->second;
}

void SyscallHooks::fail_fsync(int err, int times) {
    std::lock_guard<std::mutex> lock(state().mu);
    state().fsync_err = err;
    state().fsync_times = times;
}

int SyscallHooks::fsync_calls(int fd) const {
    std::lock_guard<std::mutex> lock(state().mu);
    int n = 0;
    for (int f : state().fsyncs) n += f == fd ? 1 : 0;
    return n;
}

int SyscallHooks::fsync_calls() const {
    std::lock_guard<std::mutex> lock(state().mu);
    return static_cast<int>(state().fsyncs.size());
}

namespace {

// Both return the error to inject (0: none) and count the call.
int hook_open(const char* path) {
    HookState& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    if (!s.armed) return 0;
    ++s.opens[path];
    if (s.open_times > 0 && s.open_path == path) {
        --s.open_times;
        return s.open_err;
    }
    return 0;
}

int hook_fsync(int fd) {
    HookState& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    if (!s.armed) return 0;
    s.fsyncs.push_back(fd);
    if (s.fsync_times > 0) {
        --s.fsync_times;
        return s.fsync_err;
    }
    return 0;
}

}  // namespace

}  // namespace corvald::test

extern "C" int open(const char* path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
        va_list ap;
        va_start(ap, flags);
        mode = static_cast<mode_t>(va_arg(ap, int));
        va_end(ap);
    }
    if (int err = corvald::test::hook_open(path); err != 0) {
        errno = err;
        return -1;
    }
    return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

extern "C" int fsync(int fd) {
    int rc = static_cast<int>(::syscall(SYS_fsync, fd));
    if (int err = corvald::test::hook_fsync(fd); err != 0 && rc == 0) {
        errno = err;
        return -1;
    }
    return rc;
}
