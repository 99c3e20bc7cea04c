#include "store/lock.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "base/config.h"
#include "store/object.h"
#include "support/log_capture.h"
#include "support/signals.h"
#include "support/syscall_hooks.h"
#include "support/temp_dir.h"

namespace corvald {
namespace {

using Lines = std::vector<std::string>;

class LockTest : public ::testing::Test {
  protected:
    void SetUp() override {
        cfg_work_directory = tmp_.path();
        ASSERT_EQ(::mkdir((tmp_ / "locks").c_str(), 0755), 0);
    }
    void TearDown() override {
        std::tie(cfg_work_directory, cfg_node_lock_timeout_ms, cfg_datastore_lock_timeout_ms,
                 cfg_vdisk_lock_timeout_ms) = saved_;
    }

    std::string path(const std::string& name) const { return tmp_ / ("locks/" + name); }
    bool exists(const std::string& name) const { return ::access(path(name).c_str(), F_OK) == 0; }
    // Another holder, as a program following the same protocol leaves it.
    void hold(const std::string& name) const { tmp_.write("locks/" + name, "4242\n"); }
    // "<level>: <func>(): <what><lock path of name><tail>"
    std::string line(const std::string& what, const std::string& name,
                     const std::string& tail = "") const {
        return what + path(name) + tail;
    }

    std::tuple<std::string, int, int, int> saved_{cfg_work_directory, cfg_node_lock_timeout_ms,
                                                  cfg_datastore_lock_timeout_ms,
                                                  cfg_vdisk_lock_timeout_ms};
    test::TempDir tmp_;
    test::LogCapture log_;
};

// The file holds the pid until released. A file that was created but could
// not be completed is removed again, so that the name is not locked for good
// by a lock nobody will release.
TEST_F(LockTest, OwnFileHoldsThePidOrIsRemoved) {
    mode_t old_mask = ::umask(022);
    EXPECT_EQ(PathLock("NODE-7", 750), 0);
    ::umask(old_mask);
    EXPECT_EQ(tmp_.read("locks/NODE-7"), std::to_string(::getpid()) + "\n");
    struct stat st;
    ASSERT_EQ(::stat(path("NODE-7").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    PathUnlock("NODE-7");
    PathUnlock("NODE-7");  // already gone: a warning, nothing else
    {
        test::SyscallHooks hooks;
        hooks.fail_fsync(EIO);
        EXPECT_EQ(PathLock("NODE-3", 750), -4);
    }
    // A file size limit of 0 makes the pid write fail (EFBIG).
    sighandler_t old_handler = ::signal(SIGXFSZ, SIG_IGN);
    struct rlimit old_lim;
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old_lim), 0);
    struct rlimit zero = {0, old_lim.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &zero), 0);
    int rc = PathLock("NODE-3", 750);
    ::setrlimit(RLIMIT_FSIZE, &old_lim);
    ::signal(SIGXFSZ, old_handler);
    EXPECT_EQ(rc, -3);
    EXPECT_FALSE(exists("NODE-3"));
    // The lock directory is not ours to make.
    ASSERT_EQ(::rmdir((tmp_ / "locks").c_str()), 0);
    EXPECT_EQ(PathLock("NODE-7", 750), -2);
    EXPECT_NE(::access((tmp_ / "locks").c_str(), F_OK), 0);

    const std::string lock = line("info: PathLock(): Lock ", "NODE-7");
    const std::string unlock = line("info: PathUnlock(): Unlock ", "NODE-7");
    const std::string enoent = line("(", "NODE-7", "): No such file or directory");
    const std::string lock3 = line("info: PathLock(): Lock ", "NODE-3");
    EXPECT_EQ(log_.lines_containing("/locks/"),
              (Lines{lock, unlock, unlock, "warn: PathUnlock(): unlink" + enoent, lock3,
                     line("warn: PathLock(): fsync(", "NODE-3", "): Input/output error"), lock3,
                     lock, "error: PathLock(): open" + enoent}));
    EXPECT_EQ(log_.lines_containing("File too large").size(), 1u) << log_.dump();
}

volatile sig_atomic_t alarms = 0;
void on_alarm(int) {
    alarms = alarms + 1;
}

// Neither an interrupted create nor a sleep cut short by a signal changes
// the back-off: each attempt here begins with two creates that fail with
// EINTR, which are tried again at once and not counted, and SIGALRM arrives
// every 20 ms, which only shortens the waits. At the end the holder goes
// away during the back-off, and the lock is taken.
TEST_F(LockTest, HeldLockWaitsDoublingStepsThenGivesUp) {
    hold("NODE-7");
    test::SyscallHooks hooks;
    int opens = 0;
    alarms = 0;
    auto timer = std::make_unique<test::SignalTimer>(SIGALRM, on_alarm, 20, 20);
    const std::pair<int, std::vector<int>> cases[] = {
        {0, {}}, {-5, {}}, {30, {}}, {50, {50}}, {1000, {50, 100, 200, 400, 800}}};
    for (const auto& [timeout_ms, waits] : cases) {
        log_.clear();
        hooks.fail_open(path("NODE-7"), EINTR, 2);
        EXPECT_EQ(PathLock("NODE-7", timeout_ms), -1) << timeout_ms;
        opens += 2 + static_cast<int>(waits.size()) + 1;
        EXPECT_EQ(hooks.open_calls(path("NODE-7")), opens) << timeout_ms;
        Lines want;
        for (int w : waits)
            want.push_back(line("notice: PathLock(): Contention on ", "NODE-7",
                                ", sleep " + std::to_string(w) + "ms"));
        // Only a timeout of 0 (or less) gives up without a word.
        if (timeout_ms > 0)
            want.push_back(line("notice: PathLock(): Timed out locking ", "NODE-7"));
        EXPECT_EQ(log_.lines_containing("notice: "), want) << timeout_ms;
    }
    timer.reset();
    EXPECT_GT(alarms, 0);
    EXPECT_EQ(tmp_.read("locks/NODE-7"), "4242\n");  // the holder's file is left alone

    std::thread releaser([&] {
        log_.wait_for("Contention on " + path("NODE-7"), std::chrono::seconds(60));
        ::unlink(path("NODE-7").c_str());
    });
    EXPECT_EQ(PathLock("NODE-7", 60000), 0);
    releaser.join();
    EXPECT_EQ(tmp_.read("locks/NODE-7"), std::to_string(::getpid()) + "\n");
}

// Both forms of one object take the same lock, each kind with its own
// timeout (the node's 0 fails at once, without a notice), and a HeldLock
// releases by name what it took, on every way out.
TEST_F(LockTest, WrappersShareNamesAndHeldLocksReleaseOnEveryExit) {
    cfg_node_lock_timeout_ms = 0;
    cfg_datastore_lock_timeout_ms = 30;
    cfg_vdisk_lock_timeout_ms = 50;
    DatastoreEntry dse = {};
    std::memcpy(dse.uuid, "0123456789abcd", 14);  // no room for a NUL
    VDisk parent = {}, snap = {};
    std::strcpy(parent.vdiskuuid, "v1");
    std::strcpy(snap.parentuuid, "v1");
    snap.vde.snapshot = 1;
    auto twins = [&](const char* file, auto lock_a, auto lock_b, auto unlock_a, auto unlock_b) {
        EXPECT_EQ(lock_a(), 0) << file;
        EXPECT_EQ(lock_b(), -1) << file;
        unlock_b();
        EXPECT_FALSE(exists(file)) << file;
        EXPECT_EQ(lock_b(), 0) << file;
        unlock_a();
        EXPECT_FALSE(exists(file)) << file;
    };
    twins(
        "NODE-7", [] { return NodeLock(7); }, [] { return NodeLockStr("7"); },
        [] { NodeUnlock(7); }, [] { NodeUnlockStr("7"); });
    twins(
        "DS-0123456789abcd", [&] { return DatastoreLock(&dse); },
        [] { return DatastoreLockStr("0123456789abcd"); }, [&] { DatastoreUnlock(&dse); },
        [] { DatastoreUnlockStr("0123456789abcd"); });
    twins(
        "VDISK-v1", [&] { return VDiskLock(&parent); }, [&] { return ParentLock(&snap); },
        [&] { VDiskUnlock(&parent); }, [&] { ParentUnlock(&snap); });
    EXPECT_EQ(log_.lines_containing("notice: "),
              (Lines{line("notice: PathLock(): Timed out locking ", "DS-0123456789abcd"),
                     line("notice: PathLock(): Contention on ", "VDISK-v1", ", sleep 50ms"),
                     line("notice: PathLock(): Timed out locking ", "VDISK-v1")}));

    log_.clear();
    hold("NODE-8");
    auto op = [&](unsigned int nodeid, bool early) {
        HeldLock vdisk, node;
        if (vdisk.take(VDiskLockName("v1")) < 0 || node.take(NodeLockName(nodeid)) < 0)
            return -1;
        if (early)
            return -2;
        node.release();
        EXPECT_FALSE(exists("NODE-7"));
        return 0;
    };
    EXPECT_EQ(op(7, true), -2);
    EXPECT_EQ(op(7, false), 0);
    EXPECT_EQ(op(8, false), -1);  // a lock that could not be had is never released
    EXPECT_TRUE(exists("NODE-8"));
    EXPECT_FALSE(exists("VDISK-v1"));
    auto lk = [&](const char* n) { return line("info: PathLock(): Lock ", n); };
    auto ul = [&](const char* n) { return line("info: PathUnlock(): Unlock ", n); };
    EXPECT_EQ(log_.lines(), (Lines{lk("VDISK-v1"), lk("NODE-7"), ul("NODE-7"), ul("VDISK-v1"),
                                   lk("VDISK-v1"), lk("NODE-7"), ul("NODE-7"), ul("VDISK-v1"),
                                   lk("VDISK-v1"), lk("NODE-8"), ul("VDISK-v1")}));
}

TEST_F(LockTest, NamesAreCheckedBeforeAnyFileIsTouched) {
    // A wrapper name over 255 bytes: -1 and not a word.
    std::string uuid(260, 'u');
    EXPECT_EQ(LockTake(VDiskLockName(uuid.c_str())), -1);
    LockRelease(VDiskLockName(uuid.c_str()));
    EXPECT_TRUE(log_.lines().empty()) << log_.dump();
    // A name that fits but makes the lock path too long; one byte shorter
    // fits exactly in 255.
    std::string name(255 - path("").size() + 1, 'n');
    EXPECT_EQ(PathLock(name.c_str(), 750), -4);
    hold(name);  // the file system takes the path; the release must not
    PathUnlock(name.c_str());
    EXPECT_TRUE(exists(name));
    EXPECT_EQ(log_.lines(), (Lines{line("error: PathLock(): too big lock path ", name),
                                   line("error: PathUnlock(): too big lock path ", name)}));
    name.pop_back();
    EXPECT_EQ(PathLock(name.c_str(), 750), 0);
    PathUnlock(name.c_str());
    EXPECT_FALSE(exists(name));
    // Names that would leave the lock directory.
    log_.clear();
    tmp_.write("victim", "data\n");
    for (const char* bad : {"../victim", "a/b", "", ".", ".."}) {
        EXPECT_EQ(PathLock(bad, 750), -2) << bad;
        PathUnlock(bad);
    }
    EXPECT_EQ(NodeLockStr("1/../../victim"), -2);
    EXPECT_EQ(tmp_.read("victim"), "data\n");
    ASSERT_EQ(log_.lines_containing("Bad lock name").size(), 11u) << log_.dump();
    EXPECT_EQ(log_.lines()[0], "error: PathLock(): Bad lock name ../victim");
    EXPECT_EQ(log_.lines()[1], "error: PathUnlock(): Bad lock name ../victim");
}

}  // namespace
}  // namespace corvald
