// Path locks: the lock file and its pid, the back-off on a held lock, the
// names refused before any file is touched, and HeldLock's releases.
#include "store/lock.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/config.h"
#include "support/hostile_names.h"
#include "support/log_capture.h"
#include "support/settings.h"
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

    std::string path(const std::string& name) const { return tmp_ / ("locks/" + name); }
    bool exists(const std::string& name) const { return ::access(path(name).c_str(), F_OK) == 0; }
    // Another holder, as a program following the same protocol leaves it.
    void hold(const std::string& name) const { tmp_.write("locks/" + name, "4242\n"); }
    // what + the lock path of name + tail
    std::string line(const std::string& what, const std::string& name,
                     const std::string& tail = "") const {
        return what + path(name) + tail;
    }

    test::ScopedSettings settings_;
    test::TempDir tmp_;
    test::LogCapture log_;
};

// The file holds the pid until released. A file that was created but could
// not be completed is removed again, so that the name is not locked for good
// by a lock nobody will release.
TEST_F(LockTest, OwnFileHoldsThePidOrIsRemoved) {
    EXPECT_EQ(PathLock("NODE-7", 750), 0);
    EXPECT_EQ(tmp_.read("locks/NODE-7"), std::to_string(::getpid()) + "\n");
    PathUnlock("NODE-7");
    PathUnlock("NODE-7");  // already gone: a warning, nothing else
    {
        test::SyscallHooks hooks;
        hooks.fail_fsync(EIO);
        EXPECT_EQ(PathLock("NODE-3", 750), -4);
    }
    EXPECT_FALSE(exists("NODE-3"));
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

void on_alarm(int) {}

// Neither an interrupted create nor a sleep cut short by a signal changes
// the back-off: each attempt here begins with two creates that fail with
// EINTR, which are tried again at once and not counted, and SIGALRM arrives
// every 20 ms, which only shortens the waits. At the end the holder goes
// away during the back-off, and the lock is taken.
TEST_F(LockTest, HeldLockWaitsDoublingStepsThenGivesUp) {
    hold("NODE-7");
    test::SyscallHooks hooks;
    int opens = 0;
    auto timer = std::make_unique<test::SignalTimer>(SIGALRM, on_alarm, 20, 20);
    const std::pair<int, std::vector<int>> cases[] = {
        {0, {}}, {-5, {}}, {30, {}}, {50, {50}}, {1000, {50, 100, 200, 400, 800}}};
    for (const auto& [timeout_ms, waits] : cases) {
        log_.clear();
        hooks.fail_open(path("NODE-7"), EINTR, 2);
        EXPECT_EQ(PathLock("NODE-7", timeout_ms), -1) << timeout_ms;
        // The creates, and with the first wait one look at the holder.
        opens += 2 + static_cast<int>(waits.size()) + 1 + (waits.empty() ? 0 : 1);
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
    EXPECT_EQ(tmp_.read("locks/NODE-7"), "4242\n");  // the holder's file is left alone

    std::thread releaser([&] {
        log_.wait_for("Contention on " + path("NODE-7"), std::chrono::seconds(60));
        ::unlink(path("NODE-7").c_str());
    });
    EXPECT_EQ(PathLock("NODE-7", 60000), 0);
    releaser.join();
    EXPECT_EQ(tmp_.read("locks/NODE-7"), std::to_string(::getpid()) + "\n");
}

// Each kind's name with its own timeout, and a HeldLock that releases by
// name what it took, on every way out, and never what it could not take.
TEST_F(LockTest, NamesOfEachKindAndHeldLocksReleaseOnEveryExit) {
    cfg_node_lock_timeout_ms = 1;
    cfg_datastore_lock_timeout_ms = 2;
    cfg_vdisk_lock_timeout_ms = 3;
    const std::pair<LockName, std::pair<std::string, int>> names[] = {
        {NodeLockName(4294967295u), {"NODE-4294967295", 1}},
        {NodeLockNameStr("7"), {"NODE-7", 1}},
        {DatastoreLockName("0123456789abcdef"), {"DS-0123456789abcd", 2}},  // 14 bytes
        {DatastoreLockNameStr("ds1"), {"DS-ds1", 2}},
        {VDiskLockName("v1"), {"VDISK-v1", 3}}};
    for (const auto& [ln, want] : names) {
        EXPECT_TRUE(ln.fits);
        EXPECT_EQ(std::pair(std::string(ln.text), ln.timeout_ms), want);
    }

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
    EXPECT_EQ(log_.lines_containing("info: "),
              (Lines{lk("VDISK-v1"), lk("NODE-7"), ul("NODE-7"), ul("VDISK-v1"), lk("VDISK-v1"),
                     lk("NODE-7"), ul("NODE-7"), ul("VDISK-v1"), lk("VDISK-v1"), lk("NODE-8"),
                     ul("VDISK-v1")}));
}

TEST_F(LockTest, NamesAreCheckedBeforeAnyFileIsTouched) {
    // A name over 255 bytes does not fit: -1 and not a word.
    std::string uuid(260, 'u');
    EXPECT_FALSE(VDiskLockName(uuid.c_str()).fits);
    EXPECT_EQ(HeldLock().take(VDiskLockName(uuid.c_str())), -1);
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
    Lines want;
    for (std::string_view bad : test::kHostileNames) {
        const std::string n(bad);
        EXPECT_EQ(PathLock(n.c_str(), 750), -2) << n;
        PathUnlock(n.c_str());
        want.push_back("error: PathLock(): Bad lock name " + n);
        want.push_back("error: PathUnlock(): Bad lock name " + n);
    }
    EXPECT_EQ(HeldLock().take(NodeLockNameStr("1/../../sentinel")), -2);
    want.push_back("error: PathLock(): Bad lock name NODE-1/../../sentinel");
    EXPECT_EQ(log_.lines(), want);
}

}  // namespace
}  // namespace corvald
