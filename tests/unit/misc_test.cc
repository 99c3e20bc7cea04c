#include "util/misc.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

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

// Neither a file nor a link to a directory is a tree to remove, and links in
// a tree are removed, not followed. Directory permissions bind only an
// unprivileged user: the walk that must stop at the first entry it cannot
// remove runs in a child that has become nobody.
TEST(RmFr, RemovesTreesButNeverFollowsLinksAndStopsAtTheFirstFailure) {
    test::LogCapture log;
    test::TempDir dir;
    EXPECT_EQ(rm_fr((dir / "missing").c_str()), 0);
    dir.write("file", "x");
    EXPECT_EQ(rm_fr((dir / "file").c_str()), -2);
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"error: rm_fr(): " + dir / "file" + " not a directory!"});
    for (const char* d : {"outside", "tree", "tree/a", "t", "t/locked"})
        ::mkdir((dir / d).c_str(), 0777);
    dir.write("outside/keep", "k"), dir.write("tree/a/f", "1"), dir.write("t/locked/f", "1");
    ::symlink((dir / "outside").c_str(), (dir / "link-to-dir").c_str());
    ::symlink((dir / "outside").c_str(), (dir / "tree/a/abs").c_str());
    EXPECT_EQ(rm_fr((dir / "link-to-dir").c_str()), -2);
    EXPECT_EQ(rm_fr((dir / "tree").c_str()), 0);
    EXPECT_TRUE(!exists(dir / "tree") && exists(dir / "link-to-dir"));
    EXPECT_EQ(dir.read("outside/keep"), "k");

    ASSERT_EQ(::chmod(dir.path().c_str(), 0777) | ::chmod((dir / "t/locked").c_str(), 0555), 0);
    pid_t pid = ::fork();
    if (pid == 0)
        ::_exit((::geteuid() != 0 || ::setuid(65534) == 0) && rm_fr((dir / "t").c_str()) == -1 &&
                        exists(dir / "t/locked/f") ? 0 : 1);
    int status = -1;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    ::chmod((dir / "t/locked").c_str(), 0755);
}

volatile sig_atomic_t caught = 0;
void on_signal(int) {
    caught = caught + 1;
}

TEST(Msleep, HoldsBackStopAndReloadSignalsButNotUsr1) {
    using namespace std::chrono;
    // SIGHUP waits until the mask is restored, before msleep returns; SIGUSR1
    // ends the sleep. 1100 ms: seconds and milliseconds are both slept.
    const struct { int sig, ms, rc; } cases[] = {{SIGHUP, 300, 0}, {SIGUSR1, 60000, -EINTR}, {0, 1100, 0}};
    for (const auto& c : cases) {
        caught = 0;
        test::SignalTimer timer(c.sig ? c.sig : SIGUSR2, on_signal, c.sig ? 20 : 0);
        auto t0 = steady_clock::now();
        EXPECT_EQ(msleep(c.ms), c.rc) << c.sig;
        auto slept = steady_clock::now() - t0;
        EXPECT_EQ(caught, c.sig ? 1 : 0) << c.sig;
        EXPECT_TRUE(c.rc == 0 ? slept >= milliseconds(c.ms) : slept < seconds(30)) << c.sig;
    }
}

}  // namespace
}  // namespace corvald
