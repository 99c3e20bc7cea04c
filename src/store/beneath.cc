#include "store/beneath.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "base/config.h"
#include "base/log.h"
#include "util/misc.h"
#include "util/unique_fd.h"

namespace corvald {

namespace {

bool force_walk = false;
bool have_openat2 = true;  // until the kernel says ENOSYS

// The root's descriptor, opened again whenever the setting names another
// root (the daemon sets it once; tests and corvalctl change it).
int root_fd() {
    static std::string root;
    static UniqueFd fd;
    if (!fd || root != cfg_work_directory) {
        // The root itself may be reached through a link: it is the
        // operator's choice, and everything beneath it is confined.
        fd.reset(::open(cfg_work_directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        root = cfg_work_directory;
    }
    return fd.get();
}

// The part of path below the root ("" for the root itself); false when path
// is not the root text followed by "/" (or nothing).
bool below_root(std::string_view path, std::string_view* rel) {
    std::string_view root = cfg_work_directory;
    while (root.size() > 1 && root.back() == '/')
        root.remove_suffix(1);
    if (path.substr(0, root.size()) != root)
        return false;
    path.remove_prefix(root.size());
    if (!path.empty() && path.front() != '/')
        return false;
    while (!path.empty() && path.front() == '/')
        path.remove_prefix(1);
    *rel = path;
    return true;
}

long openat2_call(int dirfd, const char* rel, int flags, mode_t mode) {
    struct open_how how = {};
    how.flags = static_cast<unsigned long long>(flags);
    how.mode = (flags & (O_CREAT | O_TMPFILE)) ? mode : 0;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    return ::syscall(SYS_openat2, dirfd, rel, &how, sizeof how);
}

// Opens rel (relative to the root) with flags, resolving every component
// without following a link and never above the root.
int open_beneath(std::string_view rel, int flags, mode_t mode) {
    const int root = root_fd();
    if (root < 0)
        return -1;
    const std::string text(rel.empty() ? "." : rel);
    if (have_openat2 && !force_walk) {
        long fd;
        int tries = 0;
        // EAGAIN: a rename or mount raced the lookup somewhere; try again.
        do {
            fd = openat2_call(root, text.c_str(), flags, mode);
        } while (fd < 0 && errno == EAGAIN && ++tries < 100);
        if (fd >= 0 || errno != ENOSYS) {
            // O_DIRECTORY | O_NOFOLLOW on a link says ENOTDIR: say ELOOP, as
            // for a link anywhere else on the way. (The look is only for the
            // error's name; nothing is opened through it.)
            struct stat st;
            if (fd < 0 && errno == ENOTDIR &&
                ::fstatat(root, text.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode))
                errno = ELOOP;
            return static_cast<int>(fd);
        }
        have_openat2 = false;
    }
    // The walk: every component opened without following a link, ".."
    // refused outright; a link where a directory is wanted reads as ELOOP,
    // as it does for openat2.
    UniqueFd dir(::fcntl(root, F_DUPFD_CLOEXEC, 0));
    std::string_view rest = rel;
    for (;;) {
        while (!rest.empty() && rest.front() == '/')
            rest.remove_prefix(1);
        const size_t slash = rest.find('/');
        const std::string comp(rest.substr(0, slash));
        if (comp == "..") {
            errno = EXDEV;
            return -1;
        }
        const bool last = slash == std::string_view::npos ||
                          rest.find_first_not_of('/', slash) == std::string_view::npos;
        const char* name = comp.empty() ? "." : comp.c_str();
        int fd = last ? ::openat(dir.get(), name, flags | O_NOFOLLOW, mode)
                      : ::openat(dir.get(), name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) {
            struct stat st;
            if (errno == ENOTDIR && ::fstatat(dir.get(), name, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
                S_ISLNK(st.st_mode))
                errno = ELOOP;
            return -1;
        }
        if (last)
            return fd;
        dir.reset(fd);
        rest.remove_prefix(slash + 1);
    }
}

// The parent directory of path (confined) and its last component, for the
// *at system calls.
struct Parent {
    UniqueFd own;  // the parent's descriptor when it is not the root's
    int fd = -1;
    std::string name;
};

bool open_parent(const char* path, Parent* p) {
    std::string_view rel;
    if (!below_root(path, &rel)) {
        errno = EXDEV;
        return false;
    }
    while (!rel.empty() && rel.back() == '/')
        rel.remove_suffix(1);
    const size_t slash = rel.rfind('/');
    p->name = std::string(slash == std::string_view::npos ? rel : rel.substr(slash + 1));
    if (p->name.empty() || p->name == "." || p->name == "..") {
        errno = EXDEV;  // the root itself, or a name that leaves its directory
        return false;
    }
    const std::string_view dir = slash == std::string_view::npos ? "" : rel.substr(0, slash);
    // Names directly under the root (the record kinds' top directories) use
    // the root's own descriptor: the lookup would only find it again.
    if (dir.empty()) {
        p->fd = root_fd();
        return p->fd >= 0;
    }
    p->own.reset(open_beneath(dir, O_PATH | O_DIRECTORY | O_CLOEXEC, 0));
    p->fd = p->own.get();
    return static_cast<bool>(p->own);
}

}  // namespace

namespace {
int checked_kind(int fd, int flags, const char* shown, struct stat* seen = nullptr);
}  // namespace

void store_force_walk(bool on) { force_walk = on; }

int store_open(const char* path, int flags, mode_t mode) {
    std::string_view rel;
    if (!below_root(path, &rel)) {
        errno = EXDEV;
        return -1;
    }
    return checked_kind(open_beneath(rel, flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, mode), flags,
                        path);
}

namespace {

// What store_open checks after the open: the kind of file asked for. The
// descriptor, or -1 (closed) after the error line naming shown.
int checked_kind(int fd, int flags, const char* shown, struct stat* seen) {
    // The kernel already vouches for two kinds: O_DIRECTORY opens only a
    // directory, and O_CREAT | O_EXCL only a regular file it has just made.
    // Neither needs the look, which the ingest pays once per record file.
    if (fd >= 0 && ((flags & O_DIRECTORY) || (flags & (O_CREAT | O_EXCL)) == (O_CREAT | O_EXCL)))
        return fd;
    struct stat own;
    struct stat& st = seen != nullptr ? *seen : own;
    if (fd < 0 || ::fstat(fd, &st) < 0)
        return fd < 0 ? -1 : (::close(fd), -1);
    const bool want_dir = (flags & O_DIRECTORY) != 0;
    if (want_dir ? S_ISDIR(st.st_mode) : S_ISREG(st.st_mode))
        return fd;
    ::close(fd);
    CV_ERROR_AS("store_open", "Not a %s: %s", want_dir ? "directory" : "regular file", shown);
    errno = EINVAL;
    return -1;
}

}  // namespace

int store_fd_open(const char* path, int flags, mode_t mode) {
    for (;;) {
        int fd = store_open(path, flags, mode);
        if (fd >= 0)
            return fd;
        if (errno == EINVAL)
            return -1;  // store_open said why
        if (errno != EINTR) {
            CV_ERROR_AS("fd_open", "open(%s): %s", path, std::strerror(errno));
            return -1;
        }
        CV_WARN_AS("fd_open", "open(%s): %s", path, std::strerror(errno));
    }
}

int store_fd_openat(int dirfd, const char* name, int flags, mode_t mode, struct stat* st) {
    for (;;) {
        int fd = ::openat(dirfd, name, flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, mode);
        if (fd >= 0)
            return checked_kind(fd, flags, name, st);
        if (errno != EINTR) {
            CV_ERROR_AS("fd_openat", "openat(%s): %s", name, std::strerror(errno));
            return -1;
        }
        CV_WARN_AS("fd_openat", "openat(%s): %s", name, std::strerror(errno));
    }
}

int store_mkdir(const char* path, mode_t mode) {
    Parent p;
    return open_parent(path, &p) ? ::mkdirat(p.fd, p.name.c_str(), mode) : -1;
}

int store_symlink(const char* target, const char* path) {
    Parent p;
    return open_parent(path, &p) ? ::symlinkat(target, p.fd, p.name.c_str()) : -1;
}

int store_unlink(const char* path) {
    Parent p;
    return open_parent(path, &p) ? ::unlinkat(p.fd, p.name.c_str(), 0) : -1;
}

int store_rmdir(const char* path) {
    Parent p;
    return open_parent(path, &p) ? ::unlinkat(p.fd, p.name.c_str(), AT_REMOVEDIR) : -1;
}

ssize_t store_readlink(const char* path, char* buf, size_t len) {
    Parent p;
    return open_parent(path, &p) ? ::readlinkat(p.fd, p.name.c_str(), buf, len) : -1;
}

int store_lstat(const char* path, struct stat* st) {
    std::string_view rel;
    if (below_root(path, &rel) && rel.empty())
        return ::fstat(root_fd(), st);
    Parent p;
    return open_parent(path, &p) ? ::fstatat(p.fd, p.name.c_str(), st, AT_SYMLINK_NOFOLLOW)
                                 : -1;
}

int store_rm_fr(const char* path) {
    struct stat st;
    if (store_lstat(path, &st) < 0 && errno != ENOENT) {
        CV_ERROR_AS("rm_fr", "lstat(%s): %s", path, std::strerror(errno));
        return -1;
    }
    return rm_fr(path);
}

int store_rename(const char* from, const char* to) {
    Parent a, b;
    if (!open_parent(from, &a) || !open_parent(to, &b))
        return -1;
    return ::renameat(a.fd, a.name.c_str(), b.fd, b.name.c_str());
}

}  // namespace corvald
