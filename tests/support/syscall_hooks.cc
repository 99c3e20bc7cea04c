#include "support/syscall_hooks.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdarg>
#include <map>
#include <string>
#include <mutex>

namespace corvald::test {
namespace {

// The hooks' state, locked while a Locked lives. Function-local so that it
// exists for calls made during other files' static initialization.
struct HookState {
    bool armed = false;
    std::string open_path;
    int open_err = 0, open_times = 0, fsync_err = 0, fsync_times = 0, fsyncs = 0;
    std::map<std::string, int> opens;
};
struct Locked {
    static std::mutex& mu() {
        static std::mutex m;
        return m;
    }
    static HookState& state() {
        static HookState s;
        return s;
    }
    std::lock_guard<std::mutex> lock{mu()};
    HookState& s = state();
};

// The error to inject for this call (0: none), using up one of `times`.
int inject(int& times, int err) { return times > 0 && times-- > 0 ? err : 0; }

}  // namespace

SyscallHooks::SyscallHooks() {
    Locked l;
    assert(!l.s.armed);  // one at a time
    l.s.armed = true;
}

SyscallHooks::~SyscallHooks() {
    Locked().s = HookState{};
}

void SyscallHooks::fail_open(const std::string& path, int err, int times) {
    Locked l;
    l.s.open_path = path, l.s.open_err = err, l.s.open_times = times;
}

int SyscallHooks::open_calls(const std::string& path) const {
    Locked l;
    return l.s.opens[path];
}

void SyscallHooks::fail_fsync(int err, int times) {
    Locked l;
    l.s.fsync_err = err, l.s.fsync_times = times;
}

int SyscallHooks::fsync_calls() const { return Locked().s.fsyncs; }

}  // namespace corvald::test

using corvald::test::Locked;

namespace {

// open and openat: counts the call under shown and fails it as told.
int hooked_open(int dirfd, const char* name, const std::string& shown, int flags, mode_t mode) {
    int err = 0;
    if (Locked l; l.s.armed && ++l.s.opens[shown] && l.s.open_path == shown)
        err = corvald::test::inject(l.s.open_times, l.s.open_err);
    if (err != 0) return errno = err, -1;
    return static_cast<int>(::syscall(SYS_openat, dirfd, name, flags, mode));
}

mode_t mode_arg(int flags, va_list ap) {
    const bool has_mode = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    return has_mode ? static_cast<mode_t>(va_arg(ap, int)) : 0;
}

}  // namespace

extern "C" int open(const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = mode_arg(flags, ap);
    va_end(ap);
    return hooked_open(AT_FDCWD, path, path, flags, mode);
}

// The same for openat, the call shown as the directory's path and the name
// (store files are opened beneath the store root, component by component in
// the walk that store_force_walk selects).
extern "C" int openat(int dirfd, const char* name, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = mode_arg(flags, ap);
    va_end(ap);
    char dir[4096];
    ssize_t n = dirfd < 0 ? 0 : ::readlink(("/proc/self/fd/" + std::to_string(dirfd)).c_str(), dir, sizeof dir);
    return hooked_open(dirfd, name, std::string(dir, n > 0 ? size_t(n) : 0) + "/" + name, flags, mode);
}

// The real fsync runs first: an injected failure comes after the data is safe.
extern "C" int fsync(int fd) {
    int rc = static_cast<int>(::syscall(SYS_fsync, fd)), err = 0;
    if (Locked l; l.s.armed && ++l.s.fsyncs)
        err = corvald::test::inject(l.s.fsync_times, l.s.fsync_err);
    return err != 0 && rc == 0 ? (errno = err, -1) : rc;
}
