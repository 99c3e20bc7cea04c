#include "store/lock_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/config.h"
#include "base/log.h"
#include "base/unique_file.h"
#include "store/beneath.h"
#include "util/unique_fd.h"

namespace corvald {

namespace {

std::string locks_dir() { return cfg_work_directory + "/locks"; }

// The pid in a lock file's text: decimal digits and a line feed, nothing
// else (a file being written by its holder reads as no pid yet).
pid_t parse_pid(const char* text, ssize_t n) {
    if (n < 2 || text[n - 1] != '\n')
        return 0;
    long v = 0;
    for (ssize_t i = 0; i < n - 1; ++i) {
        if (text[i] < '0' || text[i] > '9' || v > 4194304)
            return 0;
        v = v * 10 + (text[i] - '0');
    }
    return static_cast<pid_t>(v);
}

}  // namespace

bool pid_alive(pid_t pid) {
    return pid > 0 && (::kill(pid, 0) == 0 || errno == EPERM);
}

// Field 22 of /proc/<pid>/stat counts clock ticks since boot; the
// command name before it (in parentheses) may hold blanks, so fields are
// counted from its closing parenthesis.
time_t process_start(pid_t pid) {
    static time_t boot = [] {
        UniqueFile f(std::fopen("/proc/stat", "re"));
        char line[256];
        long long b = 0;
        while (f && std::fgets(line, sizeof line, f.get()))
            if (std::sscanf(line, "btime %lld", &b) == 1)
                break;
        return static_cast<time_t>(b);
    }();
    char path[32], text[1024];
    std::snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
    UniqueFd fd(::open(path, O_RDONLY | O_CLOEXEC));
    ssize_t n = fd ? ::read(fd.get(), text, sizeof text - 1) : -1;
    if (n <= 0 || boot == 0)
        return 0;
    text[n] = '\0';
    const char* p = std::strrchr(text, ')');
    unsigned long long ticks = 0;
    // After ")": state (field 3) ... starttime (field 22), 20 fields on.
    if (p == nullptr || std::sscanf(p + 1, " %*c %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %llu", &ticks) != 1)
        return 0;
    return boot + static_cast<time_t>(ticks / static_cast<unsigned long long>(::sysconf(_SC_CLK_TCK)));
}

bool holder_alive(pid_t pid, time_t taken) {
    if (!pid_alive(pid))
        return false;
    // A process that started after the lock was taken got the pid later
    // (after a reboot, pids are handed out again): it is not the holder.
    const time_t start = process_start(pid);
    return start == 0 || start <= taken + 1;
}

pid_t LockFileHolder(const char* name, time_t* mtime) {
    const std::string path = locks_dir() + "/" + name;
    // Not through a link, not blocking on a FIFO: only a regular file counts.
    UniqueFd fd(store_open(path.c_str(), O_RDONLY));
    struct stat st;
    if (!fd || ::fstat(fd.get(), &st) < 0)
        return 0;
    if (mtime != nullptr)
        *mtime = st.st_mtime;
    char text[16];
    ssize_t n = ::pread(fd.get(), text, sizeof text, 0);
    return parse_pid(text, n);
}

std::vector<LockFileInfo> LockFileList() {
    std::vector<LockFileInfo> out;
    const std::string dir = locks_dir();
    int dirfd = store_open(dir.c_str(), O_RDONLY | O_DIRECTORY);
    DIR* d = dirfd < 0 ? nullptr : ::fdopendir(dirfd);
    if (d == nullptr && dirfd >= 0)
        ::close(dirfd);
    if (d == nullptr) {
        // No lock directory: no lock to list (a store being set up).
        if (errno != ENOENT)
            CV_ERROR("opendir(%s): %s", dir.c_str(), std::strerror(errno));
        return out;
    }
    while (const struct dirent* e = ::readdir(d)) {
        if (e->d_type != DT_REG && e->d_type != DT_UNKNOWN)
            continue;
        LockFileInfo info;
        info.name = e->d_name;
        struct stat st;
        if (::fstatat(::dirfd(d), e->d_name, &st, AT_SYMLINK_NOFOLLOW) < 0 || !S_ISREG(st.st_mode))
            continue;
        info.pid = LockFileHolder(e->d_name, &info.mtime);
        info.alive = holder_alive(info.pid, info.mtime);
        out.push_back(std::move(info));
    }
    ::closedir(d);
    std::sort(out.begin(), out.end(),
              [](const LockFileInfo& a, const LockFileInfo& b) { return a.name < b.name; });
    return out;
}

int LockFileBreak(const char* name, pid_t pid) {
    // Checked again at the last moment: the holder may have released the
    // lock, and somebody else taken it, since the caller looked.
    time_t taken = 0;
    if (pid <= 0 || LockFileHolder(name, &taken) != pid || holder_alive(pid, taken))
        return 0;
    const std::string path = locks_dir() + "/" + name;
    if (store_unlink(path.c_str()) < 0) {
        if (errno == ENOENT)
            return 0;
        CV_ERROR("unlink(%s): %s", path.c_str(), std::strerror(errno));
        return -1;
    }
    return 1;
}

int LockFilesRecover(pid_t old_pid) {
    const pid_t self = ::getpid();
    int removed = 0;
    for (const LockFileInfo& lf : LockFileList()) {
        if (lf.pid <= 0 || (lf.pid != old_pid && lf.pid != self))
            continue;
        const std::string path = locks_dir() + "/" + lf.name;
        // This process holds no lock yet, so a file with its pid is stale.
        const bool stale = lf.pid == self ? LockFileHolder(lf.name.c_str()) == self
                                          : LockFileBreak(lf.name.c_str(), lf.pid) == 1;
        if (lf.pid == self && stale && store_unlink(path.c_str()) < 0) {
            CV_ERROR("unlink(%s): %s", path.c_str(), std::strerror(errno));
            continue;
        }
        if (stale) {
            CV_NOTICE("Removed stale lock %s of pid %d", path.c_str(), static_cast<int>(lf.pid));
            ++removed;
        }
    }
    return removed;
}

}  // namespace corvald
