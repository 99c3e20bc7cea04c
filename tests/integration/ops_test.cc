// corvalctl for monitoring and scripts: check's four statuses, lock against
// a running daemon, watch's events, the refusals and --wait of the control
// commands, and the listing filters.
#include <fcntl.h>
#include <poll.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <nlohmann/json.hpp>

#include "support/run.h"
#include "support/seed_store.h"
#include "support/wire.h"

namespace corvald::test {
namespace {

// text with every age of min to max digits ("123s") shown as "<age>".
std::string ages(std::string text, size_t min, size_t max) {
    for (size_t i = 0; (i = text.find_first_of("0123456789", i)) != std::string::npos;) {
        const size_t end = text.find_first_not_of("0123456789", i), n = end - i;
        if (end != std::string::npos && text[end] == 's' && n >= min && n <= max)
            text.replace(i, n + 1, "<age>");
        else
            i = end == std::string::npos ? text.size() : end;
    }
    return text;
}

using J = nlohmann::json;

RunResult ctl(const std::vector<std::string>& args, const std::string& in = "") {
    return run_to_exit(CORVALCTL_BIN, args, in);
}

// corvalctl running in the background, its standard output read by line.
struct Spawned {
    pid_t pid = -1;
    int out = -1;
    std::string buf;
    explicit Spawned(std::vector<std::string> args) {
        int p[2];
        EXPECT_EQ(::pipe2(p, O_CLOEXEC), 0);
        if ((pid = ::fork()) == 0) {
            ::dup2(p[1], 1);
            std::vector<char*> argv{const_cast<char*>(CORVALCTL_BIN)};
            for (std::string& a : args) argv.push_back(a.data());
            argv.push_back(nullptr);
            ::execv(CORVALCTL_BIN, argv.data());
            ::_exit(127);
        }
        ::close(p[1]);
        out = p[0];
    }
    ~Spawned() {
        if (pid > 0 && ::kill(pid, SIGKILL) == 0)
            ::waitpid(pid, nullptr, 0);
        ::close(out);
    }
    // The next line; "" at the end of the output or after 20 s without one.
    std::string line() {
        for (size_t nl; (nl = buf.find('\n')) == std::string::npos;) {
            struct pollfd p = {out, POLLIN, 0};
            char b[4096];
            ssize_t n = ::poll(&p, 1, 20000) == 1 ? ::read(out, b, sizeof b) : 0;
            if (n <= 0)
                return "";
            buf.append(b, static_cast<size_t>(n));
        }
        std::string l = buf.substr(0, buf.find('\n'));
        buf.erase(0, l.size() + 1);
        return l;
    }
    int wait() {
        int st = 0;
        ::waitpid(pid, &st, 0);
        pid = -1;
        return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    }
};

std::string first_line(const std::string& s) {
    return s.substr(0, s.find('\n'));
}

// A daemon on the seed store that hears its own announcements.
struct Running : SeedStore {
    Running() : SeedStore("1\n", "127.0.0.1\n") {}
};

TEST(Ops, CheckReturnsEachOfItsFourStatuses) {
    Running s;
    const std::string conf = s.conf(), metrics = s.dir / "metrics.prom";
    // A pid file whose pid now belongs to a later process (this test's).
    const std::string pid_file = s.dir.write("corvald.pid", std::to_string(::getpid()) + "\n");
    const struct timeval long_ago[2] = {{1000000000, 0}, {1000000000, 0}};
    ::utimes(pid_file.c_str(), long_ago);
    const std::string down = "CORVALD CRITICAL - daemon not running: process " +
                             std::to_string(::getpid()) + " of pid file " + pid_file + " is gone";
    RunResult r = ctl({"-C", conf, "check"});
    EXPECT_EQ(r.status, 2);
    // The seed's lastping, days ago.
    EXPECT_EQ(ages(r.out, 6, 20),
              down + "; local node 1 last announced <age> ago | 'local_age'=<age>;7200;18000 "
                     "'peers_late'=0;1; 'peers_silent'=0;1; 'peers_alive'=0;; 'dead_locks'=0;1;\n");
    // Down outranks a store that cannot be read.
    s.cfg.values["work_directory"] = s.dir / "none";
    const std::string nostore = s.cfg.write(s.dir, "nostore.conf");
    r = ctl({"-C", nostore, "check"});
    EXPECT_EQ(r.out + std::to_string(r.status),
              down + "; store " + s.dir / "none" + ": No such file or directory | \n2");

    Daemon d({"-d", "-C", conf}, s.dir);
    ASSERT_TRUE(d.wait_for("Update Node 1 set datastoremember=ds01"));
    r = ctl({"-C", conf, "check"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(ages(r.out, 1, 1),
              "CORVALD OK - 1 local nodes announced, 0 peers alive | 'local_age'=<age>;7200;18000 "
              "'peers_late'=0;1; 'peers_silent'=0;1; 'peers_alive'=0;; 'dead_locks'=0;1;\n");

    // A lock whose holder is gone.
    const pid_t dead = ::fork();
    if (dead == 0)
        ::_exit(0);
    ::waitpid(dead, nullptr, 0);
    s.write("locks/VDISK-gone", std::to_string(dead) + "\n");
    r = ctl({"-C", conf, "check"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out.substr(0, 56), "CORVALD WARNING - 1 locks held by dead processes | 'loca");

    // Store errors count from the metrics file's last figure seen.
    s.dir.write("metrics.prom", "# TYPE corvald_store_errors_total counter\n"
                                "corvald_store_errors_total 2\n");
    EXPECT_EQ(ctl({"-C", conf, "check", "--metrics-file", metrics, "--dead-locks-warn", "0"}).status,
              0);
    s.dir.write("metrics.prom", "corvald_store_errors_total{kind=\"node\"} 5\n");
    r = ctl({"-C", conf, "check", "--metrics-file", metrics, "--dead-locks-warn", "0"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(first_line(r.out).substr(0, 39), "CORVALD WARNING - 3 new store errors | ");
    EXPECT_NE(r.out.find(" 'store_errors'=3c;1;\n"), std::string::npos) << r.out;
    EXPECT_EQ(s.dir.read("metrics.prom.check"), "5\n");

    s.write("Node/1/lastping", std::to_string(std::time(nullptr) - 8000) + "\n");
    r = ctl({"-C", conf, "check", "--dead-locks-warn", "0"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out.substr(0, 48), "CORVALD WARNING - local node 1 last announced 80");

    r = ctl({"-C", nostore, "check"});
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.out, "CORVALD UNKNOWN - store " + s.dir / "none" +
                         ": No such file or directory | \n");
    r = ctl({"-C", s.dir / "no.conf", "check"});
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.out, "CORVALD UNKNOWN - error: config_load(): fopen(" + s.dir / "no.conf" +
                         "): No such file or directory | \n");

    // status tells the same daemon.
    r = ctl({"-C", conf, "--json", "status"});
    EXPECT_EQ(r.status, 0);
    const J st = J::parse(r.out);
    EXPECT_EQ(st["daemon"]["running"], true);
    EXPECT_EQ(st["daemon"]["pid"], d.child_pid());
    EXPECT_EQ(st["local_nodes"][0]["state"], "late");
}

TEST(Ops, LockIsExclusiveAgainstTheDaemonAndGoneWithItsCommand) {
    Running s;
    const std::string conf = s.conf();
    Daemon d({"-d", "-C", conf}, s.dir);
    ASSERT_TRUE(d.wait_for("Update Node 1 set datastoremember=ds01"));
    Spawned lock({"-C", conf, "lock", "NODE-1", "--", "sh", "-c", "echo $$; exec sleep 600"});
    const std::string child = lock.line();
    ASSERT_FALSE(child.empty());
    EXPECT_EQ(look(s.db() + "/locks/NODE-1"), std::to_string(lock.pid) + "\n");
    EXPECT_EQ(ctl({"-C", conf, "ds-ping", "1"}).status, 0);
    EXPECT_TRUE(d.wait_for("Contention on " + s.db() + "/locks/NODE-1, sleep 50ms"));
    ::kill(std::stoi(child), SIGKILL);
    EXPECT_EQ(lock.wait(), 128 + SIGKILL);
    EXPECT_EQ(look(s.db() + "/locks/NODE-1"), "<missing>");

    // A stop request is passed on; the command's status is corvalctl's.
    Spawned term({"-C", conf, "lock", "VDISK-x", "--", "sh", "-c", "echo up; exec sleep 600"});
    ASSERT_EQ(term.line(), "up");
    ::kill(term.pid, SIGTERM);
    EXPECT_EQ(term.wait(), 128 + SIGTERM);
    EXPECT_EQ(ctl({"-C", conf, "lock", "VDISK-x", "--", "sh", "-c", "exit 7"}).status, 7);
    EXPECT_EQ(look(s.db() + "/locks/VDISK-x"), "<missing>");
}

TEST(Ops, WatchSeesEveryKindOfEvent) {
    SeedStore s;
    s.cfg.values["heartbeat_interval"] = "1";
    s.cfg.values["json_ping_interval"] = "60";
    const std::string conf = s.conf();
    Spawned w({"-C", conf, "--json", "watch"});
    ASSERT_EQ(J::parse(w.line())["event"], "started");
    // The next event of kind and type, any others before it skipped.
    auto next = [&](const std::string& kind, const std::string& event) {
        for (std::string l; !(l = w.line()).empty();) {
            const J e = J::parse(l);
            if (e["kind"] == kind && e["event"] == event)
                return e;
        }
        return J();
    };
    s.sh("mkdir -p VDisk/v1 v2/a Node/9");
    EXPECT_EQ(next("vdisk", "created")["uuid"], "v1");
    s.write("VDisk/v1/name", "x\n");
    EXPECT_EQ(next("vdisk", "changed")["uuid"], "v1");
    s.sh("rm -r VDisk/v1");
    EXPECT_EQ(next("vdisk", "removed")["uuid"], "v1");

    // Late and silent come with the clock, after two and five heartbeats.
    s.write("Node/9/lastping", std::to_string(std::time(nullptr)) + "\n");
    EXPECT_EQ(next("node", "joined")["id"], 9);
    EXPECT_EQ(next("node", "late")["id"], 9);
    EXPECT_EQ(next("node", "silent")["id"], 9);
    s.write("Node/9/lastping", std::to_string(std::time(nullptr)) + "\n");
    EXPECT_EQ(next("node", "back")["id"], 9);

    const time_t now = std::time(nullptr);
    auto store = [&](const std::string& file, const std::string& text, int64_t lastping) {
        s.write("v2/a/" + file, text);
        s.write("v2/a/" + file + ".mtd",
                Golden(146).text(2, "1").text(18, "a/").text(82, file).num(114, lastping, 8).b);
    };
    store("d.json", "[1]", now);
    J e = next("doc", "stored");
    e.erase("time");
    EXPECT_EQ(e, J::parse(R"({"kind":"doc","document":"a/d.json","event":"stored","node":1})"));
    store("d.json", "[2]", now);
    EXPECT_EQ(next("doc", "replaced")["document"], "a/d.json");
    // Gone before its five ping intervals: deleted; after them: expired.
    s.sh("rm v2/a/d.json.mtd v2/a/d.json");
    EXPECT_EQ(next("doc", "deleted")["document"], "a/d.json");
    store("old.json", "[3]", now - 1000);
    EXPECT_EQ(next("doc", "stored")["document"], "a/old.json");
    s.sh("rm v2/a/old.json.mtd v2/a/old.json");
    EXPECT_EQ(next("doc", "expired")["document"], "a/old.json");
}

// Refusals come before anything is sent (no daemon runs then: a line sent
// would end in "cannot connect"); --wait returns once the store shows it.
TEST(Ops, ControlCommandsRefuseAndWait) {
    Running s;
    const std::string conf = s.conf(), more = "\nRun with --help for more information.\n";
    const struct {
        std::vector<std::string> args;
        std::string err;
    } refused[] = {
        {{"store-json", "1", "a/", "b.json", "{not json"},
         "corvalctl: TEXT is not JSON: parse error at line 1, column 3: syntax error while parsing "
         "object key - invalid literal; last read: '{no'; expected string literal" + more},
        {{"ds-ping", "99"}, "corvalctl: node 99 is not local (not in " + s.dir / "local_nodes)\n"},
        {{"delete-json", "01", "a/", "b.json", "[1]"},
         "corvalctl: node 01 is not local (not in " + s.dir / "local_nodes)\n"},
        {{"nodes", "--state", "gone"}, "corvalctl: --state: gone not in {alive,late,silent}" + more},
    };
    for (const auto& c : refused) {
        std::vector<std::string> args = c.args;
        args.insert(args.begin(), {"-C", conf});
        const RunResult r = ctl(args);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(r.out, "");
    }

    Daemon d({"-d", "-C", conf}, s.dir);
    ASSERT_TRUE(d.wait_for("Update Node 1 set datastoremember=ds01"));
    std::string doc_lock = s.db() + "/v2/a/b.json";
    std::replace(doc_lock.begin(), doc_lock.end(), '/', '|');
    const std::vector<std::string> store = {CORVALCTL_BIN, "-C", conf, "store-json", "1",
                                            "a/", "b.json", "[1]", "--wait", "--timeout", "1"};
    std::vector<std::string> held = {"-C", conf, "lock", doc_lock, "--"};
    held.insert(held.end(), store.begin(), store.end());
    RunResult r = ctl(held);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "corvalctl: timed out after 1s: the store does not show a/b.json with this text\n");
    r = ctl({store.begin() + 1, store.end()});
    EXPECT_EQ(r.out + std::to_string(r.status), "sent: store_json|1|a/|b.json|[1]\n0");
    // Read under the document's lock: the first line, sent while the lock was
    // held, may still be rewriting the same text.
    EXPECT_EQ(ctl({"-C", conf, "lock", doc_lock, "--", "cat", s.db() + "/v2/a/b.json"}).out, "[1]");
    EXPECT_EQ(ctl({"-C", conf, "delete-json", "1", "a/", "b.json", "-", "--wait"}, "{}").status, 0);
    EXPECT_EQ(look(s.db() + "/v2/a/b.json"), "<missing>");
    EXPECT_EQ(ctl({"-C", conf, "wait", "node", "1"}).status, 0);
    r = ctl({"-C", conf, "wait", "doc", "a/", "b.json", "--timeout", "1"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "corvalctl: timed out after 1s: no document a/b.json\n");
}

TEST(Ops, ListingFilters) {
    SeedStore s;
    s.cfg.values["heartbeat_interval"] = "10";
    const std::string conf = s.conf();
    for (int n : {2, 3}) s.clone_node(n);
    const time_t now = std::time(nullptr);
    for (auto [node, age] : {std::pair{1, 5}, {2, 35}, {3, 500}})
        s.write("Node/" + std::to_string(node) + "/lastping", std::to_string(now - age) + "\n");
    s.write("VDisk/" + kPlain + "/membership", "1\n2\n");
    s.sh("mkdir v2");
    for (const char* node : {"3", "7"})
        s.write(std::string("v2/") + node + ".mtd",
                Golden(146).text(2, node).text(82, node).num(114, now, 8).b);
    auto ids = [&](const std::vector<std::string>& args, const char* list, const char* key) {
        std::vector<J> out;
        const J doc = J::parse(ctl(args).out);
        for (const J& e : doc[list]) out.push_back(e[key]);
        return J(out);
    };
    EXPECT_EQ(ids({"-C", conf, "--json", "nodes", "--state", "late"}, "nodes", "id"), J({2}));
    EXPECT_EQ(ids({"-C", conf, "--json", "nodes", "--state", "silent"}, "nodes", "id"), J({3}));
    EXPECT_EQ(ids({"-C", conf, "--json", "vdisks", "--node", "2"}, "vdisks", "uuid"), J({kPlain}));
    EXPECT_EQ(ids({"-C", conf, "--json", "docs", "--node", "7"}, "docs", "node"), J({7}));
}

}  // namespace
}  // namespace corvald::test
