// Start-up, configuration errors, work directory, pid file, log masks and
// the orderly stop, through the real binary.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <map>
#include <string>

#include "support/daemon.h"
#include "support/temp_dir.h"

namespace corvald::test {
namespace {

// Runs that end with status 1 before the loop: usage errors before any file
// is read, configuration errors (on stderr even without -d), then work
// directory and pid file failures.
TEST(Frame, RunsThatEndBeforeTheLoop) {
    TempDir dir;
    TestConfig cfg(dir);
    const std::string usage = std::string("Usage: ") + CORVALD_BIN + " [-dh] [-C config]\n";
    const std::string enoent = "): No such file or directory\n";
    int files = 0;
    auto conf = [&](const std::map<std::string, std::string>& values) {
        TestConfig c(dir);
        for (const auto& [k, v] : values) c.values[k] = v;
        return c.write(dir, std::to_string(++files) + ".conf");
    };
    dir.write("plainfile", "x");
    const struct {
        std::vector<std::string> args;
        std::string err;  // the whole of stderr, or with -d a line of it
    } cases[] = {
        {{"-h", "-C", "/nonexistent/corvald.conf"}, usage},
        {{"-x"}, std::string(CORVALD_BIN) + ": invalid option -- 'x'\n" + usage},
        {{"-d", "-C"}, usage},
        {{"-C", conf({{"ctrl_port", "65536"}})},
         "error: config_load(): Incorrect ctrl_port value: 65536\n"},
        {{"-d", "-C", conf({{"work_directory", dir / "no/such/parent"}})},
         "error: mkdir(" + dir / "no/such/parent" + enoent},
        {{"-d", "-C", conf({{"work_directory", dir / "plainfile"}})},
         "error: chdir(" + dir / "plainfile" + "): Not a directory\n"},
        {{"-d", "-C",
          conf({{"pid_file", dir / "missing/corvald.pid"}, {"work_directory", dir.path()}})},
         "error: fd_open(): open(" + dir / "missing/corvald.pid" + enoent},
    };
    for (const auto& c : cases) {
        RunResult r = run_to_exit(c.args);
        EXPECT_EQ(r.status, 1) << c.err;
        if (c.args[0] == "-d") {
            EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
        } else {
            EXPECT_EQ(r.err, c.err);
        }
    }
    struct stat st;
    EXPECT_NE(::stat((dir / "db").c_str(), &st), 0) << "work directory made despite a bad file";
}

// Under -d the mask decides what reaches stderr: the dump is an info line,
// statistics and stop notices are notices, and -dd passes the loop's debug
// lines whatever the configured priority. With statistics every pass, two
// reports under -d at info mean a whole idle pass without its debug line.
// Each run rewrites the pid file, and the stop (by SIGTERM or SIGINT) leaves
// it in place.
TEST(Frame, LogMaskFollowsPriorityAndDebugCount) {
    TempDir dir;
    TestConfig cfg(dir);
    cfg.values["stats_interval"] = "0";
    const struct {
        const char *priority, *dash_d;
        std::vector<std::string> seen;
        const char* unseen;  // "" matches every line: nothing may be logged
        int stop;
    } cases[] = {
        {"notice", "-d", {"TX: ALL=0/0"}, "syslog_ident=", SIGTERM},
        {"notice",
         "-dd",
         {"syslog_priority=notice", "debug: controller_thread_loop(): Waiting..."},
         "error:",
         SIGINT},
        {"info", "-d", {"syslog_ident=", "TX: ALL=0/0", "TX: ALL=0/0"}, "Waiting...", SIGTERM},
        {"none", "-d", {}, "", SIGTERM},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.priority) + " " + c.dash_d);
        cfg.values["syslog_priority"] = c.priority;
        Daemon d({c.dash_d, "-C", cfg.write(dir)}, dir);
        ASSERT_TRUE(d.wait_handler(c.stop));
        size_t m = 0;
        for (const std::string& line : c.seen) {
            ASSERT_TRUE(d.wait_for_after(m, line)) << line;
            m = d.mark();
        }
        const std::string pid = std::to_string(d.child_pid()) + "\n";
        EXPECT_EQ(read_file(dir / "corvald.pid"), pid);
        d.signal(c.stop);
        EXPECT_EQ(d.wait_exit(), 0);
        EXPECT_EQ(read_file(dir / "corvald.pid"), pid);
        const std::vector<std::string> stop = {
            "notice: controller_thread_loop(): Exit...",
            "notice: controller_module_teardown(): Starting shutdown sequence...",
            "notice: controller_module_teardown(): Shutdown sequence finished!"};
        EXPECT_EQ(d.matching("notice: controller_"),
                  std::string(c.priority) == "none" ? std::vector<std::string>{} : stop);
        EXPECT_TRUE(d.matching(c.unseen).empty());
    }
    // The work directory is made 0755 under the daemon's umask.
    struct stat st;
    ASSERT_EQ(::stat((dir / "db").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u);
}

// Without -d the daemon detaches: the started process returns 0 at once,
// the pid file names the daemon, and every message goes to syslog only, with
// the priority of its level word, as far as syslog_priority lets it through.
TEST(Frame, DetachedDaemonLogsToSyslogOnly) {
    if (!syslog_available())
        GTEST_SKIP() << "needs root and mount namespaces for a /dev/log of its own";
    const struct {
        const char* priority;
        std::string seen;
        int seen_priority;
    } cases[] = {
        {"info", "syslog_ident=corvald test syslog_facility=daemon syslog_priority=info", 6},
        {"debug", "debug: controller_thread_loop(): Waiting...", 7},
        {"warn", "", 0},  // a clean run logs nothing at warn or above
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.priority);
        TempDir dir;
        TestConfig cfg(dir);
        cfg.values["syslog_ident"] = "\"corvald test\"";
        cfg.values["syslog_priority"] = c.priority;
        Daemon d({"-C", cfg.write(dir)}, dir, Daemon::LogVia::Syslog);
        EXPECT_EQ(d.wait_exit(), 0);
        auto pid = d.wait_pid_file(dir / "corvald.pid");
        ASSERT_TRUE(pid);
        EXPECT_NE(*pid, d.child_pid());
        if (!c.seen.empty()) {
            auto line = d.wait_for(c.seen);
            ASSERT_TRUE(line);
            EXPECT_EQ(line->priority, c.seen_priority);
            // daemon facility (3 << 3) and the priority; the ident with the daemon's pid
            EXPECT_EQ(line->raw.rfind("<" + std::to_string(24 + c.seen_priority) + ">", 0), 0u)
                << line->raw;
            EXPECT_NE(line->raw.find("corvald test[" + std::to_string(*pid) + "]: "),
                      std::string::npos);
        }
        ASSERT_TRUE(d.wait_handler(SIGTERM, *pid));
        d.signal(SIGTERM, *pid);
        EXPECT_TRUE(d.wait_gone(*pid));
        auto fin =
            d.wait_for("notice: controller_module_teardown(): Shutdown sequence finished!", 1s);
        EXPECT_EQ(fin ? fin->priority : -2, c.seen.empty() ? -2 : 5);
        for (const auto& l : d.lines()) EXPECT_NE(l.priority, -1) << "on stderr: " << l.raw;
        EXPECT_TRUE(!c.seen.empty() || d.lines().empty());
    }
}

}  // namespace
}  // namespace corvald::test
