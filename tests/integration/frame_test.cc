// Start-up, configuration errors, work directory, pid file, log masks and
// the orderly stop, through the real binary.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <string>

#include "support/daemon.h"
#include "support/temp_dir.h"

namespace corvald::test {
namespace {

const std::string kUsage = std::string("Usage: ") + CORVALD_BIN + " [-dh] [-C config]\n";

TEST(Frame, UsageErrorsComeBeforeAnyFileIsRead) {
    RunResult h = run_to_exit({"-h", "-C", "/nonexistent/corvald.conf"});
    EXPECT_EQ(h.status, 1);
    EXPECT_EQ(h.err, kUsage);

    RunResult x = run_to_exit({"-x"});
    EXPECT_EQ(x.status, 1);
    EXPECT_EQ(x.err, std::string(CORVALD_BIN) + ": invalid option -- 'x'\n" + kUsage);

    RunResult c = run_to_exit({"-d", "-C"});
    EXPECT_EQ(c.status, 1);
    EXPECT_NE(c.err.find(kUsage), std::string::npos) << c.err;
}

TEST(Frame, ConfigurationErrorsEndTheStartOnStderr) {
    TempDir dir;
    std::string missing = dir / "none.conf";
    RunResult r = run_to_exit({"-C", missing});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "error: config_load(): fopen(" + missing + "): No such file or directory\n");

    // Even without -d the message reaches stderr, and nothing is created.
    TestConfig cfg(dir);
    cfg.values["ctrl_port"] = "65536";
    r = run_to_exit({"-C", cfg.write(dir)});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "error: config_load(): Incorrect ctrl_port value: 65536\n");
    struct stat st;
    EXPECT_NE(::stat((dir / "db").c_str(), &st), 0) << "work directory made despite a bad file";

    // The first error ends the read: the bad priority after it is never seen.
    std::string text = "bind_port = 0\nsyslog_priority = bogus\n";
    r = run_to_exit({"-d", "-C", dir.write("bad.conf", text)});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "error: config_load(): Incorrect bind_port value: 0\n");
}

TEST(Frame, WorkDirectoryFailures) {
    TempDir dir;
    TestConfig cfg(dir);
    cfg.values["work_directory"] = dir / "no/such/parent";
    RunResult r = run_to_exit({"-d", "-C", cfg.write(dir)});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("error: mkdir(" + dir / "no/such/parent" + "): No such file or directory\n"),
              std::string::npos)
        << r.err;

    dir.write("plainfile", "x");
    cfg.values["work_directory"] = dir / "plainfile";
    r = run_to_exit({"-d", "-C", cfg.write(dir)});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("error: chdir(" + dir / "plainfile" + "): Not a directory\n"), std::string::npos)
        << r.err;
}

// Runs a foreground daemon to its stop by sig; checks the pid file and the
// shutdown notices; returns the pid it ran as.
pid_t run_and_stop(const TempDir& dir, const std::string& conf, int sig) {
    Daemon d({"-d", "-C", conf}, dir);
    EXPECT_TRUE(d.wait_for("syslog_ident=corvald syslog_facility=daemon"));
    EXPECT_TRUE(d.wait_handler(sig));
    EXPECT_EQ(read_file(dir / "corvald.pid"), std::to_string(d.child_pid()) + "\n");
    d.signal(sig);
    EXPECT_EQ(d.wait_exit(), 0);
    EXPECT_TRUE(d.wait_for("notice: controller_thread_loop(): Exit...", 0ms));
    EXPECT_TRUE(d.wait_for("notice: controller_module_teardown(): Starting shutdown sequence...", 0ms));
    EXPECT_TRUE(d.wait_for("notice: controller_module_teardown(): Shutdown sequence finished!", 0ms));
    return d.child_pid();
}

TEST(Frame, PidFileSurvivesStopAndIsRewrittenOnRestart) {
    TempDir dir;
    std::string conf = TestConfig(dir).write(dir);
    pid_t first = run_and_stop(dir, conf, SIGTERM);
    EXPECT_EQ(read_file(dir / "corvald.pid"), std::to_string(first) + "\n");
    pid_t second = run_and_stop(dir, conf, SIGINT);
    EXPECT_NE(first, second);
    EXPECT_EQ(read_file(dir / "corvald.pid"), std::to_string(second) + "\n");
    // The work directory is made 0755 under the daemon's umask.
    struct stat st;
    ASSERT_EQ(::stat((dir / "db").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u);
}

TEST(Frame, UnwritablePidFileEndsWithStatusOne) {
    TempDir dir;
    TestConfig cfg(dir);
    cfg.values["pid_file"] = dir / "missing/corvald.pid";
    Daemon d({"-d", "-C", cfg.write(dir)}, dir);
    EXPECT_EQ(d.wait_exit(), 1);
    EXPECT_TRUE(d.wait_for("error: fd_open(): open(" + dir / "missing/corvald.pid" +
                               "): No such file or directory",
                           0ms));
}

// The dump is an info line, the stop notices are notice lines: the mask
// decides which of them reach stderr under -d.
TEST(Frame, LogMaskFollowsPriorityAndDebugCount) {
    TempDir dir;
    TestConfig cfg(dir);
    cfg.values["syslog_priority"] = "notice";
    std::string conf = cfg.write(dir);
    {
        Daemon d({"-d", "-C", conf}, dir);
        ASSERT_TRUE(d.wait_handler(SIGTERM));
        d.signal(SIGTERM);
        EXPECT_EQ(d.wait_exit(), 0);
        EXPECT_TRUE(d.wait_for("Shutdown sequence finished!", 0ms));
        EXPECT_TRUE(d.matching("syslog_ident=").empty());
    }
    {
        // -dd passes the info dump and the loop's debug lines whatever the
        // configured priority.
        Daemon d({"-dd", "-C", conf}, dir);
        EXPECT_TRUE(d.wait_for("syslog_priority=notice"));
        EXPECT_TRUE(d.wait_for("debug: controller_thread_loop(): Waiting..."));
        d.signal(SIGTERM);
        EXPECT_EQ(d.wait_exit(), 0);
    }
    {
        // Under -d at info, an idle pass logs its statistics but not the
        // debug line that follows them: two reports mean a whole idle pass.
        cfg.values["syslog_priority"] = "info";
        cfg.values["stats_interval"] = "0";
        Daemon d({"-d", "-C", cfg.write(dir)}, dir);
        ASSERT_TRUE(d.wait_for("TX: ALL=0/0"));
        ASSERT_TRUE(d.wait_for_after(d.mark(), "TX: ALL=0/0"));
        EXPECT_TRUE(d.matching("Waiting...").empty());
        d.signal(SIGTERM);
        EXPECT_EQ(d.wait_exit(), 0);
        cfg.values.erase("stats_interval");
    }
    cfg.values["syslog_priority"] = "none";
    conf = cfg.write(dir);
    {
        Daemon d({"-d", "-C", conf}, dir);
        ASSERT_TRUE(d.wait_handler(SIGTERM));
        d.signal(SIGTERM);
        EXPECT_EQ(d.wait_exit(), 0);
        EXPECT_TRUE(d.lines().empty()) << d.lines().front().raw;
    }
}

// Without -d the daemon detaches: the started process returns 0 at once,
// the pid file names the daemon, and every message goes to syslog with the
// priority that matches its level word.
TEST(Frame, DetachedDaemonLogsToSyslogOnly) {
    if (!syslog_available()) GTEST_SKIP() << "needs root and mount namespaces to give the daemon its own /dev/log";
    TempDir dir;
    TestConfig cfg(dir);
    cfg.values["syslog_ident"] = "\"corvald test\"";
    Daemon d({"-C", cfg.write(dir)}, dir, Daemon::LogVia::Syslog);
    EXPECT_EQ(d.wait_exit(), 0);
    auto dump = d.wait_for("syslog_ident=corvald test syslog_facility=daemon syslog_priority=info");
    ASSERT_TRUE(dump);
    EXPECT_EQ(dump->priority, 6);
    EXPECT_EQ(dump->raw.rfind("<30>", 0), 0u) << dump->raw;  // daemon.info
    auto daemon_pid = d.wait_pid_file(dir / "corvald.pid");
    ASSERT_TRUE(daemon_pid);
    pid_t pid = *daemon_pid;
    EXPECT_NE(pid, d.child_pid());
    EXPECT_NE(dump->raw.find("corvald test[" + std::to_string(pid) + "]: "), std::string::npos);
    ASSERT_TRUE(d.wait_handler(SIGTERM, pid));
    d.signal(SIGTERM, pid);
    auto fin = d.wait_for("notice: controller_module_teardown(): Shutdown sequence finished!");
    ASSERT_TRUE(fin);
    EXPECT_EQ(fin->priority, 5);
    for (const auto& l : d.lines()) EXPECT_EQ(l.priority == -1, false) << "on stderr: " << l.raw;
}

// syslog_priority = debug lets the loop's debug lines through without -d.
TEST(Frame, SyslogDebugPriorityWithoutDashD) {
    if (!syslog_available()) GTEST_SKIP() << "needs root and mount namespaces to give the daemon its own /dev/log";
    TempDir dir;
    TestConfig cfg(dir);
    cfg.values["syslog_priority"] = "debug";
    Daemon d({"-C", cfg.write(dir)}, dir, Daemon::LogVia::Syslog);
    EXPECT_EQ(d.wait_exit(), 0);
    auto pid = d.wait_pid_file(dir / "corvald.pid");
    ASSERT_TRUE(pid);
    auto waiting = d.wait_for("debug: controller_thread_loop(): Waiting...");
    ASSERT_TRUE(waiting);
    EXPECT_EQ(waiting->priority, 7);
    ASSERT_TRUE(d.wait_handler(SIGTERM, *pid));
    d.signal(SIGTERM, *pid);
    EXPECT_TRUE(d.wait_for("Shutdown sequence finished!"));
}

TEST(Frame, SyslogWarnPriorityHidesNotices) {
    if (!syslog_available()) GTEST_SKIP() << "needs root and mount namespaces to give the daemon its own /dev/log";
    TempDir dir;
    TestConfig cfg(dir);
    cfg.values["syslog_priority"] = "warn";
    Daemon d({"-C", cfg.write(dir)}, dir, Daemon::LogVia::Syslog);
    EXPECT_EQ(d.wait_exit(), 0);
    auto pid = d.wait_pid_file(dir / "corvald.pid");
    ASSERT_TRUE(pid);
    ASSERT_TRUE(d.wait_handler(SIGTERM, *pid));
    d.signal(SIGTERM, *pid);
    // Nothing at warn or above is logged by a clean run: the mask hides the
    // info dump and the notices alike, so the log stays empty until the
    // process is gone.
    EXPECT_TRUE(d.wait_gone(*pid));
    EXPECT_TRUE(d.lines().empty()) << d.lines().front().raw;
}

}  // namespace
}  // namespace corvald::test
