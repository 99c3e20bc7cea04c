#include "util/misc.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>

#include "support/log_capture.h"
#include "support/signals.h"
#include "support/temp_dir.h"

namespace corvald {
namespace {

bool exists(const std::string& p) {
    struct stat st;
    return ::lstat(p.c_str(), &st) == 0;
}

TEST(RmFr, RemovesTreesButNeverFollowsLinks) {
    test::LogCapture log;
    test::TempDir dir;
    EXPECT_EQ(rm_fr((dir / "missing").c_str()), 0);
    EXPECT_TRUE(log.lines().empty());

    dir.write("file", "x");
    EXPECT_EQ(rm_fr((dir / "file").c_str()), -2);
    EXPECT_TRUE(exists(dir / "file"));
    EXPECT_TRUE(log.contains("error: rm_fr(): " + dir / "file" + " not a directory!"));

    // Outside the tree: a directory that links inside point at.
    ::mkdir((dir / "outside").c_str(), 0755);
    dir.write("outside/keep", "k");
    ::symlink((dir / "outside").c_str(), (dir / "link-to-dir").c_str());
    EXPECT_EQ(rm_fr((dir / "link-to-dir").c_str()), -2);
    EXPECT_TRUE(exists(dir / "outside/keep"));

    ::mkdir((dir / "tree").c_str(), 0755);
    ::mkdir((dir / "tree/a").c_str(), 0755);
    ::mkdir((dir / "tree/a/b").c_str(), 0755);
    dir.write("tree/a/b/f", "1");
    dir.write("tree/g", "2");
    ::symlink("../../outside", (dir / "tree/a/rel").c_str());
    ::symlink((dir / "outside").c_str(), (dir / "tree/abs").c_str());
    ::symlink("dangling", (dir / "tree/dangling").c_str());
    EXPECT_EQ(rm_fr((dir / "tree").c_str()), 0);
    EXPECT_FALSE(exists(dir / "tree"));
    EXPECT_EQ(dir.read("outside/keep"), "k");
    // Contents before their directory, the root last.
    EXPECT_TRUE(log.contains("debug: rm_fn(): unlink(" + dir / "tree/a/rel" + "): 0"));
    EXPECT_TRUE(log.contains("debug: rm_fn(): unlink(" + dir / "tree/abs" + "): 0"));
    auto lines = log.lines();
    EXPECT_EQ(lines.back(), "debug: rm_fn(): rmdir(" + dir / "tree" + "): 0");
}

TEST(RmFr, StopsAtTheFirstEntryItCannotRemove) {
    if (::geteuid() == 0) {
        // Root ignores directory permissions; an unreadable tree cannot be made.
        GTEST_SKIP() << "needs an unprivileged user to make an entry unremovable";
    }
    test::TempDir dir;
    ::mkdir((dir / "t").c_str(), 0755);
    ::mkdir((dir / "t/locked").c_str(), 0755);
    dir.write("t/locked/f", "1");
    ::chmod((dir / "t/locked").c_str(), 0555);
    EXPECT_EQ(rm_fr((dir / "t").c_str()), -1);
    EXPECT_TRUE(exists(dir / "t/locked/f"));
    ::chmod((dir / "t/locked").c_str(), 0755);
}

volatile sig_atomic_t hups = 0;
volatile sig_atomic_t usr1s = 0;
void on_hup(int) { hups = hups + 1; }
void on_usr1(int) { usr1s = usr1s + 1; }

TEST(Msleep, HoldsBackStopAndReloadSignalsButNotUsr1) {
    using Clock = std::chrono::steady_clock;

    EXPECT_EQ(msleep(0), 0);

    hups = 0;
    {
        test::SignalTimer hup(SIGHUP, on_hup, 20);
        auto t0 = Clock::now();
        EXPECT_EQ(msleep(300), 0);
        EXPECT_GE(Clock::now() - t0, std::chrono::milliseconds(300));
        // Delivered when the mask was restored, before msleep returned.
        EXPECT_EQ(hups, 1);
    }

    usr1s = 0;
    {
        test::SignalTimer usr1(SIGUSR1, on_usr1, 20);
        auto t0 = Clock::now();
        EXPECT_EQ(msleep(60000), -EINTR);
        EXPECT_LT(Clock::now() - t0, std::chrono::seconds(30));
        EXPECT_EQ(usr1s, 1);
    }

    // Seconds and milliseconds are both slept.
    auto t0 = Clock::now();
    EXPECT_EQ(msleep(1100), 0);
    EXPECT_GE(Clock::now() - t0, std::chrono::milliseconds(1100));
}

}  // namespace
}  // namespace corvald
