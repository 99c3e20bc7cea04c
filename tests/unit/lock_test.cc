#include "store/lock.h"
#include "store/object.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <cstring>

#include "daemon/config.h"
#include "support/log_capture.h"
#include "support/syscall_hooks.h"
#include "support/temp_dir.h"

namespace corvald {
namespace {

using test::LogCapture;
using test::SyscallHooks;
using test::TempDir;
using Lines = std::vector<std::string>;

class LockTest : public ::testing::Test {
protected:
    void SetUp() override {
        saved_root_ = cfg_work_directory;
        saved_node_ = cfg_node_lock_timeout_ms;
        saved_ds_ = cfg_datastore_lock_timeout_ms;
        saved_vdisk_ = cfg_vdisk_lock_timeout_ms;
        cfg_work_directory = tmp_.path();
        cfg_node_lock_timeout_ms = 750;
        cfg_datastore_lock_timeout_ms = 750;
        cfg_vdisk_lock_timeout_ms = 750;
        ASSERT_EQ(::mkdir((tmp_ / "locks").c_str(), 0755), 0);
    }
    void TearDown() override {
        cfg_work_directory = saved_root_;
        cfg_node_lock_timeout_ms = saved_node_;
        cfg_datastore_lock_timeout_ms = saved_ds_;
        cfg_vdisk_lock_timeout_ms = saved_vdisk_;
    }

    std::string lock_path(const std::string& name) const { return tmp_.path() + "/locks/" + name; }
    bool exists(const std::string& name) const {
        struct stat st;
        return ::lstat(lock_path(name).c_str(), &st) == 0;
    }
    // Another holder, as a program following the same protocol leaves it.
    void hold(const std::string& name) const { tmp_.write("locks/" + name, "4242\n"); }
    std::string notices() const {
        std::string out;
        for (const test::LogLine& l : log_.entries()) {
            if (l.priority == LOG_NOTICE) out += l.text + "\n";
        }
        return out;
    }
    std::string contention(const std::string& name, int step) const {
        return "notice: PathLock(): Contention on " + lock_path(name) + ", sleep " + std::to_string(step) +
               "ms\n";
    }
    std::string timed_out(const std::string& name) const {
        return "notice: PathLock(): Timed out locking " + lock_path(name) + "\n";
    }

    TempDir tmp_;
    LogCapture log_;
    std::string saved_root_;
    int saved_node_ = 0, saved_ds_ = 0, saved_vdisk_ = 0;
};

TEST_F(LockTest, FreeLockHoldsThePidUntilReleased) {
    mode_t old_mask = ::umask(022);
    EXPECT_EQ(PathLock("NODE-7", 750), 0);
    ::umask(old_mask);
    EXPECT_EQ(tmp_.read("locks/NODE-7"), std::to_string(::getpid()) + "\n");
    struct stat st;
    ASSERT_EQ(::stat(lock_path("NODE-7").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);

    PathUnlock("NODE-7");
    EXPECT_FALSE(exists("NODE-7"));
    PathUnlock("NODE-7");  // already gone: a warning, nothing else
    EXPECT_EQ(log_.lines(), (Lines{"info: PathLock(): Lock " + lock_path("NODE-7"),
                                   "info: PathUnlock(): Unlock " + lock_path("NODE-7"),
                                   "info: PathUnlock(): Unlock " + lock_path("NODE-7"),
                                   "warn: PathUnlock(): unlink(" + lock_path("NODE-7") +
                                       "): No such file or directory"}));
}

struct BackoffCase {
    int timeout_ms;
    std::vector<int> waits;
};

void PrintTo(const BackoffCase& c, std::ostream* os) { *os << "timeout " << c.timeout_ms << " ms"; }

class LockBackoffTest : public LockTest, public ::testing::WithParamInterface<BackoffCase> {};

TEST_P(LockBackoffTest, HeldLockWaitsDoublingStepsThenGivesUp) {
    const BackoffCase& c = GetParam();
    hold("NODE-7");
    EXPECT_EQ(PathLock("NODE-7", c.timeout_ms), -1);
    std::string want;
    for (int w : c.waits) want += contention("NODE-7", w);
    // Only a timeout of 0 (or less) gives up without a word.
    if (c.timeout_ms > 0) want += timed_out("NODE-7");
    EXPECT_EQ(notices(), want);
    EXPECT_EQ(tmp_.read("locks/NODE-7"), "4242\n");  // the holder's file is left alone
}

INSTANTIATE_TEST_SUITE_P(Timeouts, LockBackoffTest,
                         ::testing::Values(BackoffCase{0, {}}, BackoffCase{-5, {}}, BackoffCase{30, {}},
                                           BackoffCase{50, {50}}, BackoffCase{750, {50, 100, 200, 400}},
                                           BackoffCase{1000, {50, 100, 200, 400, 800}}),
                         [](const ::testing::TestParamInfo<BackoffCase>& info) {
                             int t = info.param.timeout_ms;
                             return t < 0 ? "minus" + std::to_string(-t) : "ms" + std::to_string(t);
                         });

TEST_F(LockTest, WrappersShareNamesAndUseTheirKindsTimeout) {
    cfg_node_lock_timeout_ms = 0;
    cfg_datastore_lock_timeout_ms = 30;
    cfg_vdisk_lock_timeout_ms = 30;

    EXPECT_EQ(NodeLock(7), 0);
    EXPECT_EQ(NodeLockStr("7"), -1);  // node timeout 0: silent
    NodeUnlockStr("7");
    EXPECT_FALSE(exists("NODE-7"));
    EXPECT_EQ(NodeLockStr("7"), 0);
    NodeUnlock(7);
    EXPECT_FALSE(exists("NODE-7"));
    EXPECT_EQ(notices(), "");

    // The 14-byte uuid field of a data store entry has no room for a NUL.
    DatastoreEntry dse = {};
    std::memcpy(dse.uuid, "0123456789abcd", 14);
    EXPECT_EQ(DatastoreLock(&dse), 0);
    EXPECT_TRUE(exists("DS-0123456789abcd"));
    EXPECT_EQ(DatastoreLockStr("0123456789abcd"), -1);
    DatastoreUnlockStr("0123456789abcd");
    EXPECT_EQ(DatastoreLockStr("0123456789abcd"), 0);
    DatastoreUnlock(&dse);
    EXPECT_FALSE(exists("DS-0123456789abcd"));

    // A snapshot's parent lock is its parent's VDisk lock.
    VDisk parent, snap;
    std::strcpy(parent.vdiskuuid, "v1");
    std::strcpy(snap.vdiskuuid, "s1");
    std::strcpy(snap.parentuuid, "v1");
    snap.vde.snapshot = 1;
    EXPECT_EQ(VDiskLock(&parent), 0);
    EXPECT_EQ(ParentLock(&snap), -1);
    EXPECT_EQ(VDiskLock(&snap), 0);
    VDiskUnlock(&snap);
    VDiskUnlock(&parent);
    EXPECT_FALSE(exists("VDISK-v1"));
    EXPECT_EQ(ParentLock(&snap), 0);
    EXPECT_TRUE(exists("VDISK-v1"));
    ParentUnlock(&snap);
    EXPECT_FALSE(exists("VDISK-v1"));
    EXPECT_EQ(notices(), timed_out("DS-0123456789abcd") + timed_out("VDISK-v1"));
}

TEST_F(LockTest, OverlongNamesAndPaths) {
    // A wrapper name over 255 bytes: -1 and not a word.
    std::string uuid(260, 'u');
    EXPECT_EQ(LockTake(VDiskLockName(uuid.c_str())), -1);
    LockRelease(VDiskLockName(uuid.c_str()));
    EXPECT_TRUE(log_.lines().empty()) << log_.dump();

    // A name that fits but makes the lock path too long.
    std::string name(255 - lock_path("").size() + 1, 'n');
    EXPECT_EQ(PathLock(name.c_str(), 750), -4);
    hold(name);  // the file system takes the path; the release must not
    PathUnlock(name.c_str());
    EXPECT_TRUE(exists(name));
    std::string msg = "error: PathLock(): too big lock path " + lock_path(name);
    EXPECT_EQ(log_.lines(), (Lines{msg, "error: PathUnlock(): too big lock path " + lock_path(name)}));

    // One byte shorter fits exactly in 255.
    name.pop_back();
    EXPECT_EQ(PathLock(name.c_str(), 750), 0);
    PathUnlock(name.c_str());
    EXPECT_FALSE(exists(name));
}

TEST_F(LockTest, NamesThatLeaveTheLockDirectoryAreRefused) {
    tmp_.write("victim", "data\n");
    for (const char* bad : {"../victim", "a/b", "", ".", ".."}) {
        EXPECT_EQ(PathLock(bad, 750), -2) << bad;
        PathUnlock(bad);
    }
    EXPECT_EQ(tmp_.read("victim"), "data\n");
    EXPECT_EQ(log_.lines_containing("Bad lock name").size(), 10u) << log_.dump();
    EXPECT_EQ(log_.lines()[0], "error: PathLock(): Bad lock name ../victim");
    EXPECT_EQ(log_.lines()[1], "error: PathUnlock(): Bad lock name ../victim");
    EXPECT_EQ(NodeLockStr("1/../../victim"), -2);
}

TEST_F(LockTest, MissingLockDirectoryFailsEveryAttempt) {
    ASSERT_EQ(::rmdir((tmp_ / "locks").c_str()), 0);
    EXPECT_EQ(PathLock("NODE-7", 750), -2);
    EXPECT_EQ(NodeLock(8), -2);
    EXPECT_TRUE(log_.contains("error: PathLock(): open(" + lock_path("NODE-7") + "): No such file or directory"));
    EXPECT_TRUE(log_.contains("error: PathLock(): open(" + lock_path("NODE-8") + "): No such file or directory"));
    EXPECT_EQ(notices(), "");
    struct stat st;
    EXPECT_NE(::stat((tmp_ / "locks").c_str(), &st), 0);  // never created by us
}

// An interrupted create is tried again at once and is not an attempt: no
// wait is added and the back-off is the same as without it.
TEST_F(LockTest, InterruptedCreateIsNotAnAttempt) {
    SyscallHooks hooks;
    hooks.fail_open(lock_path("NODE-1"), EINTR);
    EXPECT_EQ(PathLock("NODE-1", 750), 0);
    EXPECT_EQ(hooks.open_calls(lock_path("NODE-1")), 2);
    EXPECT_EQ(notices(), "");
    PathUnlock("NODE-1");

    hold("NODE-2");
    hooks.fail_open(lock_path("NODE-2"), EINTR, 2);
    EXPECT_EQ(PathLock("NODE-2", 100), -1);
    // Two interrupted opens and three real attempts.
    EXPECT_EQ(hooks.open_calls(lock_path("NODE-2")), 5);
    EXPECT_EQ(notices(), contention("NODE-2", 50) + contention("NODE-2", 100) + timed_out("NODE-2"));
}

// A lock file that was created but could not be completed is removed, so
// that the name is not locked for good by a lock nobody will release.
TEST_F(LockTest, IncompleteLockFileIsRemoved) {
    {
        SyscallHooks hooks;
        hooks.fail_fsync(EIO);
        EXPECT_EQ(PathLock("NODE-3", 750), -4);
        EXPECT_EQ(hooks.fsync_calls(), 1);
    }
    EXPECT_FALSE(exists("NODE-3"));
    EXPECT_TRUE(log_.contains("warn: PathLock(): fsync(" + lock_path("NODE-3") + "): Input/output error"));

    // A file size limit of 0 makes the pid write fail (EFBIG).
    struct sigaction ign = {}, old_act;
    ign.sa_handler = SIG_IGN;
    ASSERT_EQ(::sigaction(SIGXFSZ, &ign, &old_act), 0);
    struct rlimit old_lim, zero;
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old_lim), 0);
    zero = old_lim;
    zero.rlim_cur = 0;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &zero), 0);
    int rc = PathLock("NODE-3", 750);
    ::setrlimit(RLIMIT_FSIZE, &old_lim);
    ::sigaction(SIGXFSZ, &old_act, nullptr);
    EXPECT_EQ(rc, -3);
    EXPECT_FALSE(exists("NODE-3"));
    EXPECT_EQ(log_.lines_containing("File too large").size(), 1u) << log_.dump();

    // Either way the name is free again.
    EXPECT_EQ(PathLock("NODE-3", 0), 0);
    PathUnlock("NODE-3");
}

volatile sig_atomic_t usr1_count = 0;
void on_usr1(int) { usr1_count = usr1_count + 1; }

// SIGUSR1 cuts a back-off sleep short. That only shortens the wait: the
// attempt goes on with the same doubling steps and the same end.
TEST_F(LockTest, SignalDuringAWaitKeepsTheBackoff) {
    struct sigaction sa = {}, old_sa;
    sa.sa_handler = on_usr1;  // no SA_RESTART
    sigemptyset(&sa.sa_mask);
    ASSERT_EQ(::sigaction(SIGUSR1, &sa, &old_sa), 0);
    // Every 20 ms, so that the sleeps get cut whatever the machine's load.
    struct sigevent sev = {};
    sev.sigev_notify = SIGEV_SIGNAL;
    sev.sigev_signo = SIGUSR1;
    timer_t timer;
    ASSERT_EQ(::timer_create(CLOCK_MONOTONIC, &sev, &timer), 0);
    struct itimerspec its = {{0, 20'000'000}, {0, 20'000'000}};
    ASSERT_EQ(::timer_settime(timer, 0, &its, nullptr), 0);

    usr1_count = 0;
    hold("VDISK-v1");
    int rc = PathLock("VDISK-v1", 1000);

    ::timer_delete(timer);
    ::sigaction(SIGUSR1, &old_sa, nullptr);
    EXPECT_EQ(rc, -1);
    EXPECT_GT(usr1_count, 0);
    std::string want;
    for (int w : {50, 100, 200, 400, 800}) want += contention("VDISK-v1", w);
    EXPECT_EQ(notices(), want + timed_out("VDISK-v1"));
}

// A real second process holds the lock (with its own pid in the file) and
// gives it up only once this one is seen waiting; the wait then ends in
// success.
TEST_F(LockTest, LockReleasedByAnotherProcessDuringTheBackoff) {
    int held[2], go[2];
    ASSERT_EQ(::pipe(held), 0);
    ASSERT_EQ(::pipe(go), 0);
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        char c = 0;
        int ok = PathLock("NODE-5", 0) == 0 && ::write(held[1], "h", 1) == 1 && ::read(go[0], &c, 1) == 1;
        PathUnlock("NODE-5");
        ::_exit(ok ? 0 : 1);
    }
    char c = 0;
    ASSERT_EQ(::read(held[0], &c, 1), 1);
    EXPECT_EQ(tmp_.read("locks/NODE-5"), std::to_string(child) + "\n");

    std::thread releaser([&] {
        // Hand the lock back only once the waiting has begun.
        log_.wait_for("Contention on " + lock_path("NODE-5"), std::chrono::seconds(60));
        (void)!::write(go[1], "g", 1);
    });
    int rc = PathLock("NODE-5", 60000);
    releaser.join();
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    for (int fd : {held[0], held[1], go[0], go[1]}) ::close(fd);

    EXPECT_EQ(rc, 0);
    EXPECT_EQ(tmp_.read("locks/NODE-5"), std::to_string(::getpid()) + "\n");
    EXPECT_GE(log_.lines_containing("Contention on").size(), 1u);
    EXPECT_EQ(log_.lines_containing("Timed out").size(), 0u);
    PathUnlock("NODE-5");
}

TEST_F(LockTest, HeldLockReleasesByNameOnEveryExit) {
    cfg_node_lock_timeout_ms = 0;
    auto op = [&](bool early) {
        HeldLock vdisk;
        if (vdisk.take(VDiskLockName("v1")) < 0) return -1;
        {
            HeldLock node;
            if (node.take(NodeLockName(7)) < 0) return -1;
            if (early) return -2;
        }
        // The node lock is gone before anything else is taken.
        EXPECT_FALSE(exists("NODE-7"));
        HeldLock ds;
        if (ds.take(DatastoreLockNameStr("ds1")) < 0) return -1;
        ds.release();
        EXPECT_FALSE(ds.held());
        return 0;
    };
    EXPECT_EQ(op(true), -2);
    EXPECT_EQ(op(false), 0);
    EXPECT_FALSE(exists("VDISK-v1"));
    EXPECT_FALSE(exists("NODE-7"));
    EXPECT_FALSE(exists("DS-ds1"));
    // "info: PathLock(): Lock <root>/locks/VDISK-v1" -> "Lock VDISK-v1"
    std::vector<std::string> order;
    for (const std::string& l : log_.lines()) {
        std::string step = l.substr(l.find("(): ") + 4);
        order.push_back(step.substr(0, step.find(' ') + 1) + step.substr(step.rfind('/') + 1));
    }
    EXPECT_EQ(order, (Lines{"Lock VDISK-v1", "Lock NODE-7", "Unlock NODE-7", "Unlock VDISK-v1",  // early exit
                            "Lock VDISK-v1", "Lock NODE-7", "Unlock NODE-7", "Lock DS-ds1", "Unlock DS-ds1",
                            "Unlock VDISK-v1"}));

    // A lock that could not be had is never released.
    hold("NODE-7");
    log_.clear();
    {
        HeldLock node;
        EXPECT_EQ(node.take(NodeLockName(7)), -1);
        EXPECT_FALSE(node.held());
    }
    EXPECT_TRUE(exists("NODE-7"));
    EXPECT_EQ(log_.lines_containing("Unlock").size(), 0u);
}

}  // namespace
}  // namespace corvald
