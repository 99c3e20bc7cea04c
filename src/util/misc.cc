#include "util/misc.h"

#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>

#include "base/log.h"

namespace corvald {

namespace {

// Removal errors show only as the -1 in these debug lines; the walk stops
// at the first one and leaves the rest of the tree in place.
int rm_fn(const char* fpath, const struct stat*, int typeflag, struct FTW*) {
    int rc;
    switch (typeflag) {
        case FTW_F:
        case FTW_SL:
            rc = ::unlink(fpath);
            CV_DEBUG("unlink(%s): %d", fpath, rc);
            return rc;
        case FTW_DP:
            rc = ::rmdir(fpath);
            CV_DEBUG("rmdir(%s): %d", fpath, rc);
            return rc;
        default:
            return -1;
    }
}

}  // namespace

int rm_fr(const char* dirpath) {
    struct stat st;
    if (::lstat(dirpath, &st) < 0) {
        if (errno == ENOENT) return 0;
        CV_ERROR("lstat(%s): %s", dirpath, std::strerror(errno));
        return -1;
    }
    if (!S_ISDIR(st.st_mode)) {
        CV_ERROR("%s not a directory!", dirpath);
        return -2;
    }
    return ::nftw(dirpath, rm_fn, 256, FTW_PHYS | FTW_MOUNT | FTW_DEPTH);
}

int msleep(int ms) {
    sigset_t hold, prev;
    int rc = sigemptyset(&hold);
    rc |= sigaddset(&hold, SIGINT);
    rc |= sigaddset(&hold, SIGTERM);
    rc |= sigaddset(&hold, SIGHUP);
    rc |= sigprocmask(SIG_BLOCK, &hold, &prev);
    assert(rc == 0);

    struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
    int result = ::nanosleep(&ts, nullptr) < 0 ? -errno : 0;

    rc = sigprocmask(SIG_SETMASK, &prev, nullptr);
    assert(rc == 0);
    (void)rc;
    return result;
}

}  // namespace corvald
