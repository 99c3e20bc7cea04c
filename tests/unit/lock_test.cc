// Path locks: the lock file and its pid, the back-off on a held lock, the
// names refused before any file is touched, and HeldLock's releases.
#include "store/beneath.h"
#include "store/lock.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/config.h"
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
    std::string line(const std::string& what, const std::string& name) const {
        return what + path(name);
    }

    test::ScopedSettings settings_;
    test::TempDir tmp_;
    test::LogCapture log_;
};

void on_alarm(int) {}

// Neither an interrupted create nor a sleep cut short by a signal changes
// the back-off: each attempt here begins with two creates that fail with
// EINTR, which are tried again at once and not counted, and SIGALRM arrives
// every 20 ms, which only shortens the waits. At the end the holder goes
// away during the back-off, and the lock is taken: the file holds our pid.
TEST_F(LockTest, HeldLockWaitsDoublingStepsThenGivesUp) {
    hold("NODE-7");
    // The walk opens the lock file with openat, where the hooks see it.
    store_force_walk(true);
    test::SyscallHooks hooks;
    int opens = 0;
    auto timer = std::make_unique<test::SignalTimer>(SIGALRM, on_alarm, 20, 20);
    const std::pair<int, std::vector<int>> cases[] = {
        {0, {}}, {50, {50}}, {1000, {50, 100, 200, 400, 800}}};
    for (const auto& [timeout_ms, waits] : cases) {
        log_.clear();
        hooks.fail_open(path("NODE-7"), EINTR, 2);
        EXPECT_EQ(PathLock("NODE-7", timeout_ms), -1) << timeout_ms;
        // The creates, and with the first wait one look at the holder.
        opens += 2 + static_cast<int>(waits.size()) + 1 + (waits.empty() ? 0 : 1);
        EXPECT_EQ(hooks.open_calls(path("NODE-7")), opens) << timeout_ms;
        Lines want;
        for (int w : waits)
            want.push_back(line("notice: PathLock(): Contention on ", "NODE-7") + ", sleep " +
                           std::to_string(w) + "ms");
        // Only a timeout of 0 (or less) gives up without a word.
        if (timeout_ms > 0) want.push_back(line("notice: PathLock(): Timed out locking ", "NODE-7"));
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
    store_force_walk(false);
}

// A HeldLock releases by name what it took, on every way out, and never what
// it could not take; a release of a lock already gone only warns. A file
// that was created but could not be completed is removed again, so that the
// name is not locked for good. Names that do not fit or would leave the lock
// directory are refused before any file is touched, and the lock directory
// is not ours to make.
TEST_F(LockTest, ReleasesAndRefusals) {
    hold("NODE-8");
    for (unsigned int nodeid : {7u, 8u}) {
        HeldLock vdisk, node;
        EXPECT_EQ(vdisk.take(VDiskLockName("v1")), 0);
        EXPECT_EQ(node.take(NodeLockName(nodeid)), nodeid == 7 ? 0 : -1);
    }
    EXPECT_TRUE(exists("NODE-8") && !exists("VDISK-v1") && !exists("NODE-7"));
    PathUnlock("NODE-7");
    {
        test::SyscallHooks hooks;
        hooks.fail_fsync(EIO);
        EXPECT_EQ(PathLock("NODE-3", 750), -4);
    }
    EXPECT_FALSE(exists("NODE-3"));
    auto lk = [&](const char* n) { return line("info: PathLock(): Lock ", n); };
    auto ul = [&](const char* n) { return line("info: PathUnlock(): Unlock ", n); };
    EXPECT_EQ(log_.lines(), (Lines{lk("VDISK-v1"), lk("NODE-7"), ul("NODE-7"), ul("VDISK-v1"),
                                   lk("VDISK-v1"), lk("NODE-8"), ul("VDISK-v1"), ul("NODE-7"),
                                   line("warn: PathUnlock(): unlink(", "NODE-7") +
                                       "): No such file or directory",
                                   lk("NODE-3"), line("warn: PathLock(): fsync(", "NODE-3") +
                                       "): Input/output error"}));
    log_.clear();
    cfg_datastore_lock_timeout_ms = 2;  // a data store's name is cut to 14 bytes
    const LockName ds = DatastoreLockName("0123456789abcdef");
    EXPECT_EQ(std::string(ds.text) + std::to_string(ds.timeout_ms), "DS-0123456789abcd2");
    EXPECT_EQ(HeldLock().take(VDiskLockName(std::string(260, 'u').c_str())), -1);  // silent
    // A name that fits but makes the lock path one byte too long for 255.
    std::string name(255 - path("").size() + 1, 'n');
    EXPECT_EQ(PathLock(name.c_str(), 750), -4);
    hold(name);  // the file system takes the path; the release must not
    PathUnlock(name.c_str());
    EXPECT_TRUE(exists(name));
    EXPECT_EQ(HeldLock().take(NodeLockNameStr("1/../../sentinel")), -2);
    PathUnlock("..");
    std::filesystem::remove_all(tmp_ / "locks");
    EXPECT_EQ(PathLock("NODE-7", 750), -2);
    EXPECT_NE(::access((tmp_ / "locks").c_str(), F_OK), 0);
    EXPECT_EQ(log_.lines(), (Lines{line("error: PathLock(): too big lock path ", name),
                                   line("error: PathUnlock(): too big lock path ", name),
                                   "error: PathLock(): Bad lock name NODE-1/../../sentinel",
                                   "error: PathUnlock(): Bad lock name ..", lk("NODE-7"),
                                   line("error: PathLock(): open(", "NODE-7") +
                                       "): No such file or directory"}));
}

}  // namespace
}  // namespace corvald
