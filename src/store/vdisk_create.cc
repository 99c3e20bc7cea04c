// Writing side of the VDisk record: an announced VDisk creates the record or
// updates it by its membership generation, with the announcing node's member
// record and the links between the record, the node and its data store; a
// rising generation runs the fence-check program. Also a snapshot's link in
// its parent's "snapshots".
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "base/config.h"
#include "base/counters.h"
#include "base/log.h"
#include "net/netlib.h"
#include "store/attr.h"
#include "store/beneath.h"
#include "store/lock.h"
#include "store/node.h"
#include "store/object.h"
#include "store/vdisk.h"
#include "store/vdisk_fields.h"
#include "util/io.h"
#include "util/unique_fd.h"

namespace corvald {

int fence_check_timeout_ms = 10000;

namespace {

// Longest target text of a link this code makes.
constexpr size_t kLinkTargetMax = 63;
// What a member record of a disk that is no snapshot says about how many
// snapshots may be taken of it; the daemon writes it for the other programs.
constexpr int kSnapLimit = 10;
// How long FenceCheck sleeps between two looks at the program.
constexpr auto kFenceCheckPoll = std::chrono::milliseconds(5);

bool fits(int n, size_t max) {
    return n >= 0 && static_cast<size_t>(n) <= max;
}

// The uuids become directory, link and lock names, and the removal of a
// record is recursive: an empty uuid would address VDisk/ itself, and "/",
// "." or ".." would lead out of it. The receive path refuses such uuids
// already; whatever else hands a VDisk in is refused here as well, before
// any path is built from it. The snapshot's parent is checked as the text
// that locks and links use and as the field that goes into "parent", which
// the loader refuses to read back when it is no plain name.
bool uuids_refused(const char* op, const VDisk* vdisk) {
    if (uuid_refused(op, "VDisk", vdisk->vdiskuuid, sizeof vdisk->vdiskuuid))
        return true;
    const char* parent = vdisk->vde.description.snap.parent;
    if (vdisk->vde.snapshot != 0 &&
        (!uuid_is_safe(vdisk->parentuuid, sizeof vdisk->parentuuid) ||
         !uuid_is_safe(parent, sizeof vdisk->vde.description.snap.parent))) {
        CV_ERROR_AS(op, "Refused parent uuid \"%.*s\" of VDisk %s", int{sizeof vdisk->parentuuid},
                    vdisk->parentuuid, vdisk->vdiskuuid);
        return true;
    }
    return false;
}

// 1 when dirfd holds no entry name (a link is looked at, not followed), 0
// when it holds one, whatever it is, and -1 when the look-up fails.
int entry_missing(int dirfd, const char* name) {
    struct stat st;
    if (::fstatat(dirfd, name, &st, AT_SYMLINK_NOFOLLOW) == 0)
        return 0;
    return errno == ENOENT ? 1 : -1;
}

// Makes the link name to target in the open directory dirfd, shown as
// dirpath, after its trace line; 0, or -1 after the symlink line.
int make_link(const char* op, int dirfd, const char* dirpath, const char* name,
              const char* target) {
    TraceSymlink(op, dirpath, name, target);
    if (::symlinkat(target, dirfd, name) < 0) {
        CV_ERROR_AS(op, "symlink(%s/%s, %s): %s", dirpath, name, target, std::strerror(errno));
        return -1;
    }
    return 0;
}

// One "<item>\n" line per element of list, in list order, each written by
// line(buffer, room, element). 16 bytes per element and one for the final
// zero hold every line: a node id has at most 10 digits, a dotted address 15
// characters. Null after "malloc(<size>): <error>" under op's name.
template <class List, class Line>
UniqueChars list_text(const char* op, const List& list, Line line) {
    size_t size = 16 * list.size() + 1;
    UniqueChars text(static_cast<char*>(std::malloc(size)));
    if (!text) {
        CV_ERROR_AS(op, "malloc(%zu): %s", size, std::strerror(errno));
        return text;
    }
    char* pos = text.get();
    *pos = '\0';
    for (const auto& item : list)
        pos += line(pos, size - static_cast<size_t>(pos - text.get()), item);
    return text;
}

// The forked child of FenceCheck: execs the program, or ends with status 1.
[[noreturn]] void exec_fence_check(char* const argv[]) {
    // The program gets descriptors 0, 1 and 2 only. Everything else the
    // daemon holds (record directories, the UDP socket, control connections)
    // would otherwise stay open in a program that may outlive the check.
    // Marked close-on-exec rather than closed, so that the log line below
    // still gets out when the exec fails; kernels without the flag close.
    if (::close_range(3, ~0U, CLOSE_RANGE_CLOEXEC) < 0 && ::close_range(3, ~0U, 0) < 0) {
        for (long fd = 3, max = ::sysconf(_SC_OPEN_MAX); fd < max; ++fd)
            ::close(static_cast<int>(fd));
    }
    // The daemon ignores SIGPIPE, and ignored signals and the signal mask
    // survive an exec: the program starts with the defaults instead.
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::signal(SIGPIPE, SIG_DFL);
    char* const envp[] = {nullptr};
    ::execve(argv[0], argv, envp);
    CV_ERROR_AS("FenceCheck", "execve(%s): %s", argv[0], std::strerror(errno));
    // No exit handlers: they belong to the daemon, not to this copy of it.
    ::_exit(1);
}

// Waits for the child pid for at most fence_check_timeout_ms; past that it
// is killed with SIGKILL and reaped. 0 when it ended by itself, 1 when it
// was killed, -1 after a waitpid line under op's name.
int wait_bounded(const char* op, pid_t pid) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(fence_check_timeout_ms);
    for (;;) {
        pid_t r = ::waitpid(pid, nullptr, WNOHANG);
        if (r == pid)
            return 0;
        if (r < 0 && errno != EINTR) {
            CV_ERROR_AS(op, "waitpid(%d): %s", static_cast<int>(pid), std::strerror(errno));
            return -1;
        }
        if (Clock::now() >= deadline)
            break;
        // A signal that cuts the sleep short only brings the next look
        // forward; the deadline stays where it is.
        if (r == 0) {
            timespec ts = {0, std::chrono::nanoseconds(kFenceCheckPoll).count()};
            ::nanosleep(&ts, nullptr);
        }
    }
    ::kill(pid, SIGKILL);
    while (::waitpid(pid, nullptr, 0) < 0) {
        if (errno != EINTR) {
            CV_ERROR_AS(op, "waitpid(%d): %s", static_cast<int>(pid), std::strerror(errno));
            return -1;
        }
    }
    return 1;
}

// Runs the fence-check program for the VDisk and the announcing node and
// waits for it, within fence_check_timeout_ms. The program is told, not
// asked: its exit status changes nothing. 0, or -1 when it could not be
// started (fork), waited for, or had to be killed.
int FenceCheck(const VDisk* vdisk, const char* nodeuuid) {
    char uuid_arg[32];
    char member_arg[32];
    // A vdiskuuid holds at most 15 characters and a node id 10 digits.
    int n = std::snprintf(uuid_arg, sizeof uuid_arg, "uuid=%s", vdisk->vdiskuuid);
    int m = std::snprintf(member_arg, sizeof member_arg, "member=%s", nodeuuid);
    assert(fits(n, 31) && fits(m, 31));
    const char* program = cfg_fence_check.c_str();
    CV_INFO("Call %s %s %s", program, uuid_arg, member_arg);
    // Built before the fork, so the child only has to exec.
    char* const argv[] = {const_cast<char*>(program), uuid_arg, member_arg, nullptr};
    const auto started = std::chrono::steady_clock::now();
    pid_t pid = ::fork();
    if (pid < 0) {
        CV_ERROR("fork(): %s", std::strerror(errno));
        return -1;
    }
    if (pid == 0)
        exec_fence_check(argv);
    // The daemon is single-threaded and holds the VDisk lock meanwhile: a
    // program that never ends must not stop it for good.
    int rc = wait_bounded(__func__, pid);
    // What the operator weighs: how often the loop stood still for a check,
    // and for how long, killed programs included.
    ++store_counters.fence_checks;
    store_counters.fence_check_seconds +=
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    if (rc < 0)
        return -1;
    if (rc > 0) {
        CV_ERROR("%s %s %s did not end within %d ms, killed", program, uuid_arg, member_arg,
                 fence_check_timeout_ms);
        return -1;
    }
    CV_INFO("Return %s %s %s", program, uuid_arg, member_arg);
    return 0;
}

// Rewrites "membership" of the open record vdiskfd from the member list.
// An empty list writes an empty file: the loader reads an empty
// "membership" as no members but fails on a missing one, and a record that
// cannot be loaded can neither be announced nor removed. 0 or -1.
int MembershipStore(const VDisk* vdisk, const char* vdiskpath, int vdiskfd) {
    UniqueChars text =
        list_text(__func__, vdisk->members, [](char* pos, size_t room, const Member& m) {
            return std::snprintf(pos, room, "%u\n", unsigned{m.mbe.node});
        });
    if (!text)
        return -1;
    CV_DEBUG("%s/membership", vdiskpath);
    return AttrStore(vdiskfd, "membership", "%s", text.get()) < 0 ? -1 : 0;
}

// The link <dir>/<vdiskuuid> to the VDisk record, in the "vdisks" directory
// whose path dir holds, unless an entry of that name is there already: a
// link, once made, is never changed. The lines carry dir's operation.
int ref_vdisk(RecordDir* dir, const char* vdiskuuid) {
    if (dir->open() < 0)
        return -1;
    int missing = entry_missing(dir->fd(), vdiskuuid);
    if (missing <= 0)
        return missing;
    char target[kLinkTargetMax + 1];
    if (!fits(std::snprintf(target, sizeof target, "../../../VDisk/%s", vdiskuuid), kLinkTargetMax))
        return -1;
    return make_link(dir->op(), dir->fd(), dir->path(), vdiskuuid, target);
}

// The node's link to the VDisk; the caller holds the node lock. 0 or -1.
int NodeUpdate_RefVDisk(const char* nodeuuid, const char* vdiskuuid) {
    CV_INFO("Update Node %s ref VDisk %s", nodeuuid, vdiskuuid);
    RecordDir dir(__func__);
    if (dir.set_path("%s/Node/%s/vdisks", cfg_work_directory.c_str(), nodeuuid) < 0)
        return -1;
    return ref_vdisk(&dir, vdiskuuid);
}

// The data store's link to the VDisk; the caller holds the data store lock.
// 0 or -1.
int DatastoreUpdate_RefVDisk(const char* dsuuid, const char* vdiskuuid) {
    CV_INFO("Update Datastore %s ref VDisk %s", dsuuid, vdiskuuid);
    RecordDir dir(__func__);
    if (dir.set_path("%s/Datastore/%s/vdisks", cfg_work_directory.c_str(), dsuuid) < 0)
        return -1;
    return ref_vdisk(&dir, vdiskuuid);
}

// Writes the announcing node's member record (mbfd, taken over and closed
// here after one flush) and makes the links that belong to it: the record's
// "nodestatus", the node's link to the VDisk and, while the VDisk has no
// data store yet, its "datastore" link with the data store's link back.
// vdiskfd is the open VDisk record. 0 or -1.
int MemberinfoCreate(const VDisk* vdisk, const char* vdiskpath, int vdiskfd, const char* nodeuuid,
                     int mbfd) {
    const VDiskEntry& vde = vdisk->vde;
    CV_INFO("Update VDisk %s add Member %s", vdisk->vdiskuuid, nodeuuid);
    RecordDir mb(__func__);
    mb.adopt(mbfd);
    if (mb.set_path("%s/memberinfo/%s", vdiskpath, nodeuuid) < 0)
        return -1;
    mb.begin_batch();
    if (mb.store("membership_gen_count", "%u", vde_mshipgencnt(&vde)) < 0 ||
        mb.store_fields(kVDiskMemberFields, &vde) < 0 ||
        (vde.snapshot == 0 && mb.store("snap_limit", "%d", kSnapLimit) < 0)) {
        return -1;
    }

    // No frontends writes an empty "frontend" and the links follow as for
    // any member: the loader fails a member record without "frontend" (an
    // empty one is no frontends), and the sender finds its VDisks through the
    // node's links, so a member without them would never be announced.
    UniqueChars text =
        list_text(__func__, vdisk->frontends, [](char* pos, size_t room, const Frontend& fe) {
            return std::snprintf(pos, room, "%.15s\n", fe.ipaddr);
        });
    if (!text)
        return -1;
    CV_DEBUG("%s/frontend", mb.path());
    if (AttrStore(mb.fd(), "frontend", "%s", text.get()) < 0)
        return -1;

    int missing = entry_missing(mb.fd(), "nodestatus");
    if (missing < 0)
        return -1;
    char target[kLinkTargetMax + 1];
    if (missing) {
        int n = std::snprintf(target, sizeof target, "../../../../Node/%s/status", nodeuuid);
        if (!fits(n, kLinkTargetMax) ||
            make_link(__func__, mb.fd(), mb.path(), "nodestatus", target) < 0)
            return -1;
    }

    // Only a link that is certainly missing is made: one that cannot be
    // looked at is left alone, like one that is there.
    bool has_datastore = entry_missing(vdiskfd, "datastore") != 1;
    HeldLock node_lock;
    if (node_lock.take(NodeLockNameStr(nodeuuid)) != 0)
        return -1;
    if (NodeUpdate_RefVDisk(nodeuuid, vdisk->vdiskuuid) < 0)
        return -1;
    if (has_datastore)
        return 0;
    // A "datastoremember" that names no plain directory is refused by the
    // load, with its own line, before it becomes a path or a lock name.
    char dsuuid[16];
    if (NodeLoad_DSMember(nodeuuid, dsuuid, sizeof dsuuid) < 0)
        return -1;
    // Node and data store locks are never held together.
    node_lock.release();
    if (dsuuid[0] == '\0')
        return 0;

    if (!fits(std::snprintf(target, sizeof target, "../../Datastore/%s", dsuuid), kLinkTargetMax) ||
        make_link(__func__, vdiskfd, vdiskpath, "datastore", target) < 0) {
        return -1;
    }
    HeldLock ds_lock;
    if (ds_lock.take(DatastoreLockNameStr(dsuuid)) != 0)
        return -1;
    return DatastoreUpdate_RefVDisk(dsuuid, vdisk->vdiskuuid);
}

int store_shared(RecordDir* rec, const VDiskEntry& vde);

// The update of an existing record vdiskfd (its "memberinfo" open as
// mbtopfd) by the announcement of nodeuuid, whose generation count the
// caller has read for the node's version already. 0 or -1.
int VDiskUpdate(VDisk* vdisk, const char* vdiskpath, const char* nodeuuid, int vdiskfd,
                int mbtopfd) {
    const VDiskEntry& vde = vdisk->vde;
    CV_INFO("Update VDisk %s by Node %s", vdisk->vdiskuuid, nodeuuid);
    UniqueFd mb;
    int missing = entry_missing(mbtopfd, nodeuuid);
    if (missing < 0)
        return -1;
    if (!missing) {
        mb.reset(store_fd_openat(mbtopfd, nodeuuid, O_RDONLY | O_DIRECTORY));
        if (!mb)
            return -1;
        auto seqno = static_cast<unsigned long long>(vde.seqno);
        CV_DEBUG("%s/memberinfo/%s/seqno=%llu", vdiskpath, nodeuuid, seqno);
        if (AttrStore(mb.get(), "seqno", "%llu\n", seqno) < 0)
            return -1;
    }
    if (vde.transaction_id != 0)
        return 0;

    unsigned int highest = 0;
    int rc = AttrLoad(vdiskfd, "highest_gen_count", "%u", &highest);
    if (rc != 1) {
        // A record whose creation was cut short (a crash, a full disk) has
        // no generation count, the last shared attribute its creation
        // writes, and may miss others and the "membership" written after
        // it; refused, it would fail every announcement of it for good. It
        // is completed from this announcement instead, "membership" too: the
        // update below stops before rewriting it when the member has no data
        // store while the record has none.
        RecordDir rec(__func__);
        if (rec.set_path("%s", vdiskpath) < 0 || (rec.adopt(::dup(vdiskfd)), rec.fd() < 0) ||
            store_shared(&rec, vde) < 0 || MembershipStore(vdisk, vdiskpath, vdiskfd) < 0) {
            ReportLoadFailure(__func__, vdiskpath, "highest_gen_count", rc);
            return -1;
        }
        ReportCompleted(__func__, "VDisk", vdisk->vdiskuuid, nodeuuid);
        highest = vde_mshipgencnt(&vde);
    }
    CV_DEBUG("%s/highest_gen_count=%u", vdiskpath, highest);
    unsigned int gen = vde_mshipgencnt(&vde);
    if (gen < highest)
        return 0;

    if (missing) {
        CV_DEBUG("%s/memberinfo/%s [MKDIR]", vdiskpath, nodeuuid);
        if (::mkdirat(mbtopfd, nodeuuid, 0777) < 0 && errno != EEXIST) {
            CV_ERROR("mkdir(%s/memberinfo/%s): %s", vdiskpath, nodeuuid, std::strerror(errno));
            return -1;
        }
        mb.reset(store_fd_openat(mbtopfd, nodeuuid, O_RDONLY | O_DIRECTORY));
        if (!mb)
            return -1;
    }
    if (MemberinfoCreate(vdisk, vdiskpath, vdiskfd, nodeuuid, mb.release()) < 0)
        return -1;
    auto sectors = static_cast<unsigned long long>(vde.sectors);
    CV_DEBUG("%s/sectors=%llu", vdiskpath, sectors);
    if (AttrStore(vdiskfd, "sectors", "%llu\n", sectors) < 0)
        return -1;

    // A "membership" that cannot be read leaves no previous members to drop.
    MemberList previous;
    MembershipLoad(&previous, nullptr, vdiskpath, vdiskfd);
    if (MembershipStore(vdisk, vdiskpath, vdiskfd) < 0)
        return -1;
    // A member that could not be removed now is removed by the removal of
    // the VDisk or stays as it is; the update itself went through.
    for (const Member& m : previous) {
        if (MemberLookup(&vdisk->members, m.mbe.node) == nullptr)
            MemberinfoDelete(vdisk, m.uuid);
    }
    if (gen == highest)
        return 0;

    CV_DEBUG("%s/highest_gen_count=%u", vdiskpath, gen);
    if (AttrStore(vdiskfd, "highest_gen_count", "%u\n", gen) < 0)
        return -1;
    return FenceCheck(vdisk, nodeuuid);
}

// The record's own attributes as the announcement gives them, in creation
// order: the shared ones, the snapshot's parent and time or the plain disk's
// "snapshots" and description, the generation count. 0 or -1.
int store_shared(RecordDir* rec, const VDiskEntry& vde) {
    if (rec->store_fields(kVDiskSharedFields, &vde) < 0)
        return -1;
    if (vde.snapshot != 0) {
        const SnapDescr& s = vde.description.snap;
        if (rec->store("parent", "%.*s", int{sizeof s.parent}, s.parent) < 0 ||
            rec->store("snaptime", "%02d-%02d-%02d_%02d.%02d.%02d", int{s.y}, int{s.m}, int{s.d},
                       int{s.H}, int{s.M}, int{s.S}) < 0) {
            return -1;
        }
    } else if (rec->mkdir("snapshots") < 0 ||
               rec->store("description", "%.*s", int{sizeof vde.description.descr},
                          vde.description.descr) < 0) {
        return -1;
    }
    return rec->store("highest_gen_count", "%u", vde_mshipgencnt(&vde)) < 0 ? -1 : 0;
}

// The creation steps of a new record rec (its "memberinfo" open as mbtop);
// the lines carry rec's operation. 0 or -1.
int create_record(const Hdr* hdr, VDisk* vdisk, RecordDir* rec, RecordDir* mbtop,
                  const char* nodeuuid) {
    const VDiskEntry& vde = vdisk->vde;
    CV_INFO_AS(rec->op(), "Create VDisk %s by Node %s", vdisk->vdiskuuid, nodeuuid);
    if (store_shared(rec, vde) < 0 || MembershipStore(vdisk, rec->path(), rec->fd()) < 0)
        return -1;
    // A node that announces a VDisk it is no member of gets no member record
    // and no links; the members' own announcements make theirs.
    if (MemberLookup(&vdisk->members, hdr->uid) == nullptr)
        return 0;
    if (mbtop->mkdir(nodeuuid) < 0)
        return -1;
    int mbfd = store_fd_openat(mbtop->fd(), nodeuuid, O_RDONLY | O_DIRECTORY);
    if (mbfd < 0)
        return -1;
    return MemberinfoCreate(vdisk, rec->path(), rec->fd(), nodeuuid, mbfd);
}

}  // namespace

int VDiskCreate(const Hdr* hdr, VDisk* vdisk) {
    if (uuids_refused(__func__, vdisk))
        return -1;
    VDiskEntry& vde = vdisk->vde;
    vde_decode_mshipgencnt(&vde, hdr);
    char nodeuuid[16];
    std::snprintf(nodeuuid, sizeof nodeuuid, "%u", hdr->uid);

    // The member record's path is the longest one built here; when it fits,
    // so do its prefixes, and nothing is touched when it does not.
    const char* root = cfg_work_directory.c_str();
    StorePath member, top;
    // Declared first, closed last: "memberinfo" is closed before the record
    // is flushed and closed, on every way out.
    RecordDir rec(__func__);
    RecordDir mbtop(__func__);
    if (!store_path(member, "%s/VDisk/%s/memberinfo/%s", root, vdisk->vdiskuuid, nodeuuid) ||
        !store_path(top, "%s/VDisk", root) ||
        rec.set_path("%s/VDisk/%s", root, vdisk->vdiskuuid) < 0)
        return -1;
    if (StoreMkdir(__func__, top) < 0)
        return -1;

    TraceStat(__func__, rec.path());
    struct stat st;
    bool is_new = store_lstat(rec.path(), &st) < 0;
    if (is_new) {
        if (errno != ENOENT) {
            CV_ERROR("lstat(%s): %s", rec.path(), std::strerror(errno));
            return -1;
        }
        // Only the announcement that finished a transaction creates a
        // record; the ones of a transaction under way find it or wait.
        if (vde.transaction_id != 0)
            return 0;
        if (StoreMkdir(__func__, rec.path()) < 0)
            return -1;
    }
    if (rec.open() < 0)
        return -1;
    rec.begin_batch();
    // A creation cut short right after the record's directory leaves no
    // "memberinfo", which would fail every later announcement; it is made
    // here, and the update completes the rest of the record.
    bool make_mbtop = is_new || entry_missing(rec.fd(), "memberinfo") == 1;
    if ((make_mbtop && rec.mkdir("memberinfo") < 0) || mbtop.open_at(rec, "memberinfo") < 0)
        return -1;
    if (is_new)
        return create_record(hdr, vdisk, &rec, &mbtop, nodeuuid);
    return VDiskUpdate(vdisk, rec.path(), nodeuuid, rec.fd(), mbtop.fd());
}

int ParentUpdate_RefSnapshot(const VDisk* vdisk) {
    assert(vdisk->vde.snapshot != 0);
    if (uuids_refused(__func__, vdisk))
        return -1;
    const char* root = cfg_work_directory.c_str();
    CV_DEBUG("%s/VDisk/%s [STAT]", root, vdisk->parentuuid);
    RecordDir parent(__func__);
    if (parent.set_path("%s/VDisk/%s", root, vdisk->parentuuid) < 0)
        return -1;
    struct stat st;
    if (store_lstat(parent.path(), &st) < 0) {
        // The link is made only while the parent is in the store.
        if (errno == ENOENT)
            return 0;
        CV_ERROR("lstat(%s): %s", parent.path(), std::strerror(errno));
        return -1;
    }
    if (!S_ISDIR(st.st_mode)) {
        CV_ERROR("%s not a directory!", parent.path());
        return -1;
    }
    // A parent that is a snapshot itself has no "snapshots" and fails here.
    RecordDir snaps(__func__);
    if (parent.open() < 0 || snaps.open_at(parent, "snapshots") < 0)
        return -1;
    int missing = entry_missing(snaps.fd(), vdisk->vdiskuuid);
    if (missing <= 0)
        return missing;
    char target[kLinkTargetMax + 1];
    int n = std::snprintf(target, sizeof target, "../../../VDisk/%s", vdisk->vdiskuuid);
    if (!fits(n, kLinkTargetMax))
        return -1;
    CV_INFO("Update VDisk %s ref Snapshot %s", vdisk->parentuuid, vdisk->vdiskuuid);
    return make_link(__func__, snaps.fd(), snaps.path(), vdisk->vdiskuuid, target);
}

}  // namespace corvald
