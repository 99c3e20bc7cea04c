// Confinement: every store path the daemon (or corvalctl) opens, makes,
// links or removes is resolved beneath the store root (cfg_work_directory)
// and through no symbolic link at all. The store keeps links by design (a
// node's "datastore", the VDisk lists); those are made and read as links,
// never resolved. So a link planted anywhere in the store, a ".." in a name,
// or a name that leads outside, ends in a failure, not in a write elsewhere.
//
// Paths are the absolute texts the store code builds ("<root>/Node/7/...").
// Each call returns what its system call returns (-1 with errno on failure):
// ELOOP when a component is a link, EXDEV when the path is not under the
// root, EINVAL (after an error line naming the path) when store_open finds
// something other than a regular file or a directory where one was asked.
//
// openat2(2) with RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS does the resolution
// where the kernel has it (5.6 on); elsewhere the parent directory is walked
// component by component with O_NOFOLLOW, which refuses the same paths.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>

namespace corvald {

// open(2) of a store path with O_NOFOLLOW, O_NONBLOCK and O_CLOEXEC added:
// a FIFO cannot block the daemon, a link at the last component is ELOOP.
// Without O_DIRECTORY the result is a regular file, with it a directory.
int store_open(const char* path, int flags, mode_t mode = 0);
// fd_open and fd_openat (the same lines: "open(<path>): ..." under fd_open,
// "openat(<name>): ..." under fd_openat, interrupted opens retried with a
// warning) for store paths: store_open's checks, and for openat a name that
// is one component inside an open store directory.
int store_fd_open(const char* path, int flags, mode_t mode = 0);
// With st, a regular file's status as the check saw it is kept there.
int store_fd_openat(int dirfd, const char* name, int flags, mode_t mode = 0,
                    struct stat* st = nullptr);
// The system calls of the same names, with the same confinement; the last
// component itself is never followed.
int store_mkdir(const char* path, mode_t mode);
int store_symlink(const char* target, const char* path);
int store_unlink(const char* path);
int store_rmdir(const char* path);
ssize_t store_readlink(const char* path, char* buf, size_t len);
int store_lstat(const char* path, struct stat* st);
int store_rename(const char* from, const char* to);

// rm_fr of a store directory, once the path to it is known to pass through
// no link (rm_fr's walk itself never follows one). What rm_fr returns, or -1
// after "lstat(<path>): <error>" when the way there is refused.
int store_rm_fr(const char* path);

// For tests: forces the component-by-component walk even where openat2
// exists (true), or lets the kernel's resolution be used again (false).
void store_force_walk(bool on);

}  // namespace corvald
