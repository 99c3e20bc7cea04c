#include "store/beneath.h"
#include "store/lock.h"

#include <fcntl.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <string>

#include "base/config.h"
#include "base/counters.h"
#include "base/log.h"
#include "net/netlib.h"
#include "store/attr.h"
#include "store/lock_files.h"
#include "util/io.h"
#include "util/misc.h"
#include "util/unique_fd.h"

namespace corvald {

namespace {

// The first wait on a held lock; every further wait is twice the one before.
constexpr int kFirstWaitMs = 50;

// Builds <work_directory>/locks/<name> in buf; 0, or -1 after the "too big"
// message under op's name.
int build_lock_path(const char* op, const char* name, StorePath& buf) {
    const char* root = cfg_work_directory.c_str();
    if (!store_path(buf, "%s%s%s", root, "/locks/", name)) {
        CV_ERROR_AS(op, "too big lock path %s%s%s", root, "/locks/", name);
        return -1;
    }
    return 0;
}

// Writes the pid text into the lock file just created and flushes it; 0, -3
// or -4. The descriptor is closed on every path.
int fill_lock_file(int fd, const char* lockpath, const char* pid, size_t pid_len) {
    UniqueFd file(fd);
    int rc = 0;
    if (buf_tx(fd, pid, pid_len, 1) != static_cast<ssize_t>(pid_len)) {
        rc = -3;
    } else if (::fsync(fd) < 0) {
        CV_WARN_AS("PathLock", "fsync(%s): %s", lockpath, std::strerror(errno));
        rc = -4;
    }
    file.reset();
    // The file exists but the attempt fails, so no caller will release it:
    // left in place it would lock this daemon (and everybody else) out of the
    // name for good. It is ours, just created, so removing it is safe.
    if (rc < 0 && store_unlink(lockpath) < 0) {
        CV_WARN_AS("PathLock", "unlink(%s): %s", lockpath, std::strerror(errno));
    }
    return rc;
}

LockName make_lock_name(int timeout_ms, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
LockName make_lock_name(int timeout_ms, const char* fmt, ...) {
    LockName ln;
    va_list ap;
    va_start(ap, fmt);
    int n = std::vsnprintf(ln.text, sizeof(ln.text), fmt, ap);
    va_end(ap);
    ln.timeout_ms = timeout_ms;
    ln.fits = n >= 0 && static_cast<size_t>(n) <= kLockNameMax;
    return ln;
}

// A lock whose holder died is waited on like any other (only the daemon's
// own leftovers are removed, at start-up; corvalctl locks --break-dead does
// the rest on an operator's word), but the operator is told: once a minute
// per lock name, so a crowd of waits does not flood the log.
void warn_dead_holder(const char* name, const char* lockpath) {
    static std::map<std::string, time_t> last_warned;
    time_t taken = 0;
    const pid_t pid = LockFileHolder(name, &taken);
    if (pid <= 0 || holder_alive(pid, taken))
        return;
    struct timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    auto [it, fresh] = last_warned.try_emplace(name, now.tv_sec);
    if (!fresh && now.tv_sec - it->second < 60)
        return;
    it->second = now.tv_sec;
    CV_WARN_AS("PathLock", "Lock %s held by dead process %d", lockpath, static_cast<int>(pid));
}

// Counts a wait that ended with the lock still held elsewhere, under the
// record kind its name's prefix (from the name builders below) tells; every
// other name is a JSON path lock.
void count_timeout(const char* name) {
    static constexpr struct {
        const char* prefix;
        LockKind kind;
    } kPrefixes[] = {{"NODE-", LockKind::Node}, {"DS-", LockKind::Datastore},
                     {"VDISK-", LockKind::VDisk}};
    LockKind kind = LockKind::Path;
    for (const auto& p : kPrefixes)
        if (std::strncmp(name, p.prefix, std::strlen(p.prefix)) == 0)
            kind = p.kind;
    ++store_counters.lock_timeouts[static_cast<size_t>(kind)];
}

}  // namespace

int PathLock(const char* path, int timeout_ms) {
    StorePath lockpath;
    if (build_lock_path(__func__, path, lockpath) < 0) return -4;
    // Lock names come from uuids and node ids announced by other hosts. One
    // that uuid_is_safe refuses would put the lock file somewhere other than
    // directly in "locks" (and its release would unlink there). Names made
    // by the name builders and by the JSON store (which turns "/" into "|")
    // never are.
    if (!uuid_is_safe(path, std::strlen(path))) {
        CV_ERROR("Bad lock name %s", path);
        return -2;
    }
    CV_INFO("Lock %s", lockpath);

    char pid[16];
    int pid_len = std::snprintf(pid, sizeof(pid), "%d\n", static_cast<int>(::getpid()));

    // 64 bits: the doubling must not overflow before the timeout ends it.
    long long slept = 0;
    long long step = kFirstWaitMs;
    for (;;) {
        int fd = store_open(lockpath, O_RDWR | O_CREAT | O_EXCL | O_TRUNC, 0666);
        if (fd >= 0) return fill_lock_file(fd, lockpath, pid, static_cast<size_t>(pid_len));
        // An interrupted create is no attempt: try again at once.
        if (errno == EINTR) continue;
        if (errno != EEXIST) {
            CV_ERROR("open(%s): %s", lockpath, std::strerror(errno));
            return -2;
        }
        // A wait of no time is a timeout too: the record was not had.
        if (timeout_ms <= 0) {
            count_timeout(path);
            return -1;
        }
        if (slept >= timeout_ms || step > timeout_ms) {
            CV_NOTICE("Timed out locking %s", lockpath);
            count_timeout(path);
            return -1;
        }
        slept += step;
        CV_NOTICE("Contention on %s, sleep %dms", lockpath, static_cast<int>(step));
        // One look at the holder per wait is enough to tell the operator.
        if (slept == step)
            warn_dead_holder(path, lockpath);
        // A signal that ends the sleep early (SIGUSR1) only shortens this
        // wait; it still counts whole, and the next try comes as usual.
        msleep(static_cast<int>(step));
        step *= 2;
    }
}

void PathUnlock(const char* path) {
    StorePath lockpath;
    if (build_lock_path(__func__, path, lockpath) < 0) return;
    if (!uuid_is_safe(path, std::strlen(path))) {
        CV_ERROR("Bad lock name %s", path);
        return;
    }
    CV_INFO("Unlock %s", lockpath);
    if (store_unlink(lockpath) < 0) CV_WARN("unlink(%s): %s", lockpath, std::strerror(errno));
}

LockName NodeLockName(unsigned int nodeid) {
    return make_lock_name(cfg_node_lock_timeout_ms, "NODE-%u", nodeid);
}

LockName NodeLockNameStr(const char* nodeuuid) {
    return make_lock_name(cfg_node_lock_timeout_ms, "NODE-%s", nodeuuid);
}

LockName DatastoreLockName(const char* uuid14) {
    return make_lock_name(cfg_datastore_lock_timeout_ms, "DS-%.*s", 14, uuid14);
}

LockName DatastoreLockNameStr(const char* dsuuid) {
    return make_lock_name(cfg_datastore_lock_timeout_ms, "DS-%s", dsuuid);
}

LockName VDiskLockName(const char* vdiskuuid) {
    return make_lock_name(cfg_vdisk_lock_timeout_ms, "VDISK-%s", vdiskuuid);
}

int HeldLock::take(const LockName& ln) {
    // One owner, one lock: a second take would lose the first name.
    assert(!held_);
    int rc = ln.fits ? PathLock(ln.text, ln.timeout_ms) : -1;
    if (rc == 0) {
        name_ = ln;
        held_ = true;
    }
    return rc;
}

void HeldLock::release() {
    if (!held_) return;
    held_ = false;
    PathUnlock(name_.text);
}

}  // namespace corvald
