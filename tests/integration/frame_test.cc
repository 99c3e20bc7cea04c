// Start-up and the orderly stop through the real binary: the command line,
// the configuration, the work directory, the pid file, the sockets and groups
// of the loop, the log mask, detaching, and the stop signals.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <map>
#include <memory>
#include <string>

#include "support/daemon.h"
#include "support/run.h"
#include "support/seed_store.h"
#include "support/temp_dir.h"
#include "util/unique_fd.h"

namespace corvald::test {
namespace {

const std::vector<std::string> kStopNotices = {
    "notice: controller_thread_loop(): Exit...",
    "notice: controller_module_teardown(): Starting shutdown sequence...",
    "notice: controller_module_teardown(): Shutdown sequence finished!"};

// A socket of the test's own on port, bound without SO_REUSEADDR so that the
// daemon cannot share it.
UniqueFd hold_port(int type, uint32_t addr, int port) {
    UniqueFd so(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
    sockaddr_in sa = {AF_INET, htons(uint16_t(port)), {htonl(addr)}, {}};
    EXPECT_EQ(::bind(so.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
    EXPECT_TRUE(type != SOCK_STREAM || ::listen(so.get(), 1) == 0);
    return so;
}

// Every run that ends before the loop ends with status 1 and without the
// teardown: usage errors before any file is read, configuration errors (on
// stderr even without -d), then each start-up step that fails, with its
// message, in the order of the steps.
TEST(Frame, RunsThatEndBeforeTheLoop) {
    TempDir dir;
    dir.write("plainfile", "x");
    const int udp = free_port(), tcp = free_port();
    const UniqueFd held_udp = hold_port(SOCK_DGRAM, INADDR_ANY, udp),
                   held_tcp = hold_port(SOCK_STREAM, INADDR_LOOPBACK, tcp);
    int files = 0;
    auto conf = [&](const std::map<std::string, std::string>& values) {
        TestConfig c(dir);
        for (const auto& [k, v] : values) c.values[k] = v;
        return c.write(dir, std::to_string(++files) + ".conf");
    };
    const std::string usage = std::string("Usage: ") + CORVALD_BIN + " [-dh] [-C config]\n";
    const std::string enoent = "): No such file or directory\n",
                      in_use = "): Address already in use\n";
    const struct {
        std::vector<std::string> args;
        std::string err;  // the whole of stderr, or with -d a line of it
    } cases[] = {
        {{"-h", "-C", "/nonexistent/corvald.conf"}, usage},
        {{"-x"}, std::string(CORVALD_BIN) + ": invalid option -- 'x'\n" + usage},
        {{"-d", "-C"}, usage},
        {{"-C", conf({{"ctrl_port", "65536"}, {"work_directory", dir / "never"}})},
         "error: config_load(): Incorrect ctrl_port value: 65536\n"},
        {{"-d", "-C", conf({{"work_directory", dir / "no/such/parent"}})},
         "error: mkdir(" + dir / "no/such/parent" + enoent},
        {{"-d", "-C", conf({{"work_directory", dir / "plainfile"}})},
         "error: chdir(" + dir / "plainfile" + "): Not a directory\n"},
        {{"-d", "-C", conf({{"pid_file", dir / "missing/corvald.pid"}})},
         "error: fd_open(): open(" + dir / "missing/corvald.pid" + enoent},
        {{"-d", "-C", conf({{"bind_interface", "nosuchif0"}})},
         "error: get_interface_addr(): ioctl(SIOCGIFADDR): No such device\n"},
        {{"-d", "-C", conf({{"bind_port", std::to_string(udp)}})},
         "error: open_socket(): bind(0.0.0.0:" + std::to_string(udp) + in_use},
        {{"-d", "-C", conf({{"ctrl_port", std::to_string(tcp)}})},
         "error: tcp_listen(): bind(127.0.0.1:" + std::to_string(tcp) + in_use},
        // Multicast mode fails on its groups before joining any.
        {{"-d", "-C", conf({{"unicast_mode", "0"}, {"multicast_address", "\" , \""}})},
         "error: controller_thread_loop(): Multicast groups missing\n"},
        {{"-d", "-C", conf({{"unicast_mode", "0"}, {"multicast_address", "\"224.1.1.1, bogus\""}})},
         "error: parse_mcast_groups(): Malformed multicast address: bogus\n"},
    };
    const mode_t umask_before = ::umask(0);  // the daemon sets its own
    for (const auto& c : cases) {
        RunResult r = run_to_exit(CORVALD_BIN, c.args);
        EXPECT_EQ(r.status, 1) << c.err;
        if (c.args[0] == "-d") {
            EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
            EXPECT_EQ(r.err.find("shutdown sequence"), std::string::npos) << r.err;
            EXPECT_EQ(r.err.find("Loading"), std::string::npos) << r.err;
        } else {
            EXPECT_EQ(r.err, c.err);
        }
    }
    ::umask(umask_before);
    struct stat st;
    EXPECT_NE(::stat((dir / "never").c_str(), &st), 0) << "work directory made despite a bad file";
    // The runs that got past it made the work directory 0755 under their umask.
    ASSERT_EQ(::stat((dir / "db").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u);
}

// What is logged where, and the stop. Under -d every message that passes the
// mask is copied to stderr: the dump is an info line, the reload and stop
// notices are notices, and -dd passes the loop's debug lines whatever the
// configured priority; with pings on every pass, two PINGs at info mean a
// whole idle pass without its debug line. Without -d the daemon detaches (the
// started process returns 0 at once) and logs to syslog only, each message
// with the priority of its level word. The pid file, rewritten at start,
// names the daemon and stays after the stop by SIGTERM (or, every other run,
// SIGINT). The runs go side by side.
TEST(Frame, LogMaskDetachingAndTheStop) {
    const bool syslog = syslog_available();
    const struct {
        const char *priority, *dash_d;  // "": detached, logging to syslog (the last rows)
        std::vector<std::string> seen;
        const char* unseen;  // "" matches every line: nothing may be logged
    } cases[] = {
        {"notice", "-d", {"notice: load_local_nodes(): Loading"}, "syslog_ident="},
        {"notice", "-dd", {"syslog_priority=notice", "debug: controller_thread_loop()"}, "error:"},
        {"info", "-d", {"syslog_ident=", "Send PING 473B", "Send PING 473B"}, "Waiting..."},
        {"none", "-d", {}, ""},
        {"info", "", {"syslog_ident=corvald test syslog_facility=daemon"}, "Waiting..."},
        {"debug", "", {"debug: controller_thread_loop(): Waiting..."}, "error:"},
        {"warn", "", {}, ""},  // a clean run logs nothing at warn or above
    };
    std::vector<std::unique_ptr<SeedStore>> stores;
    std::vector<std::unique_ptr<Daemon>> daemons;
    for (const auto& c : cases) {
        SeedStore& s = *stores.emplace_back(std::make_unique<SeedStore>());
        s.cfg.values["syslog_ident"] = "\"corvald test\"";
        s.cfg.values["syslog_priority"] = c.priority;
        s.cfg.values["ping_interval"] = "0";
        s.dir.write("corvald.pid", "a stale pid file longer than any pid\n");
        std::vector<std::string> args = {c.dash_d, "-C", s.conf()};
        if (*c.dash_d == '\0')
            args.erase(args.begin());
        if (*c.dash_d || syslog)
            daemons.push_back(std::make_unique<Daemon>(
                args, s.dir, *c.dash_d ? Daemon::LogVia::Stderr : Daemon::LogVia::Syslog));
    }
    const std::map<std::string, int> level = {
        {"error", 3}, {"warn", 4}, {"notice", 5}, {"info", 6}, {"debug", 7}};
    for (size_t i = 0; i < daemons.size(); ++i) {
        const auto& c = cases[i];
        Daemon& d = *daemons[i];
        SCOPED_TRACE(std::string(c.priority) + " " + c.dash_d);
        const int stop = i % 2 ? SIGINT : SIGTERM;
        const bool detached = *c.dash_d == '\0', quiet = c.seen.empty();
        pid_t pid = d.child_pid();
        if (detached) {
            EXPECT_EQ(d.wait_exit(), 0);
            pid = d.wait_pid_file(stores[i]->dir / "corvald.pid").value_or(pid);
            EXPECT_NE(pid, d.child_pid());
        }
        ASSERT_TRUE(d.wait_handler(stop, pid));
        size_t m = 0;
        for (const std::string& line : c.seen) {
            ASSERT_TRUE(d.wait_for_after(m, line)) << line;
            m = d.mark();
        }
        const std::string pid_file = stores[i]->dir / "corvald.pid";
        EXPECT_EQ(read_file(pid_file), std::to_string(pid) + "\n");
        d.signal(stop, pid);
        EXPECT_TRUE(detached ? d.wait_gone(pid) : d.wait_exit() == 0);
        EXPECT_EQ(read_file(pid_file), std::to_string(pid) + "\n");
        EXPECT_EQ(d.wait_for(kStopNotices.back(), quiet ? 1s : 20s).has_value(), !quiet);
        EXPECT_EQ(d.matching("notice: controller_"),
                  quiet ? std::vector<std::string>{} : kStopNotices);
        EXPECT_TRUE(d.matching(c.unseen).empty());
        // daemon facility (3 << 3), the priority of the level word (the dump's
        // is info), the ident with the daemon's pid
        for (const LoggedLine& l : detached ? d.lines() : std::vector<LoggedLine>{}) {
            auto word = level.find(l.message.substr(0, l.message.find(':')));
            const int pri = word == level.end() ? 6 : word->second;
            EXPECT_EQ(l.raw.rfind("<" + std::to_string(24 + pri) + ">", 0), 0u) << l.raw;
            EXPECT_NE(l.raw.find("corvald test[" + std::to_string(pid) + "]: "), std::string::npos);
        }
    }
    if (!syslog)
        GTEST_SKIP() << "detached runs need root, a mount namespace and a \"/\" that can be made "
                        "private for a /dev/log of their own";
}

}  // namespace
}  // namespace corvald::test
