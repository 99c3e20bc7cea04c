// The daemon under the faults an operator's host meets: steps of the system
// clock, idle control clients. Each runs the real binary.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "base/config.h"
#include "store/lock_files.h"
#include "store/node.h"
#include "store/vdisk.h"
#include "support/control_client.h"
#include "support/daemon.h"
#include "support/log_capture.h"
#include "support/seed_store.h"
#include "support/settings.h"
#include "support/udp.h"
#include "support/wire.h"

namespace corvald::test {
namespace {

// A step of the wall clock an hour back, then two hours on: the heartbeats
// and pings go on at their intervals throughout (timed on the monotonic
// clock), no task runs early (the statistics, due a minute after the start,
// stay silent), and a peer's lastping written to the store follows the wall
// clock as it was stepped.
TEST(Fault, ClockStepsNeitherStopNorHurryThePeriodicTasks) {
    SeedStore s;
    s.clone_node(2);
    UdpSink sink("127.0.0.2", s.cfg.bind_port());
    s.cfg.values["heartbeat_interval"] = "1";
    s.cfg.values["ping_interval"] = "2";
    s.cfg.values["stats_interval"] = "60";
    s.dir.write("shift", "0");
    const std::string shift = s.dir / "shift";
    // Under AddressSanitizer the shim comes before the sanitizer's runtime.
    const std::string asan = std::getenv("ASAN_OPTIONS") ? std::getenv("ASAN_OPTIONS") : "";
    ::setenv("ASAN_OPTIONS", (asan + ":verify_asan_link_order=0").c_str(), 1);
    ::setenv("LD_PRELOAD", CLOCK_SHIFT_LIB, 1);
    ::setenv("CORVALD_TEST_CLOCK_SHIFT", shift.c_str(), 1);
    Daemon d({"-d", "-C", s.conf()}, s.dir);
    ::unsetenv("LD_PRELOAD");
    ::unsetenv("CORVALD_TEST_CLOCK_SHIFT");
    ::setenv("ASAN_OPTIONS", asan.c_str(), 1);
    ASSERT_TRUE(d.wait_for("Send HEARTBEAT"));

    for (long step : {-3600L, 3600L}) {
        s.dir.write("shift", std::to_string(step));
        const size_t m = d.mark();
        // A loop timed on the wall clock would wait an hour after the step back.
        for (size_t at = m, i = 0; i < 3; ++i, at = d.mark())
            ASSERT_TRUE(d.wait_for_after(at, "Send HEARTBEAT", 10s)) << "after a step of " << step;
        ASSERT_TRUE(d.wait_for_after(m, "Send PING", 10s)) << "after a step of " << step;
        ASSERT_TRUE(send_datagram(header(32, 2).b, s.cfg.bind_port()));
        const auto line = d.wait_for_after(m, "Update Node 2 set lastping=");
        ASSERT_TRUE(line);
        const long lastping = std::stol(line->message.substr(line->message.find('=') + 1));
        EXPECT_NEAR(lastping, ::time(nullptr) + step, 5) << "lastping is wall-clock time";
    }
    // A loop timed on the wall clock runs every task at once after the step on.
    EXPECT_TRUE(d.matching("RX:").empty());
}

// A client that says nothing for longer than ctrl_idle_timeout is hung up
// on, with a notice naming it; a client that speaks keeps its connection.
TEST(Fault, IdleControlClientsAreClosed) {
    SeedStore s;
    s.cfg.values["ctrl_idle_timeout"] = "1";
    Daemon d({"-d", "-C", s.conf()}, s.dir);
    ASSERT_TRUE(d.wait_for("Send PING"));  // the loop and its listener are up
    ControlClient idle(s.cfg.ctrl_port()), busy(s.cfg.ctrl_port());
    ASSERT_TRUE(d.wait_for("Accepted CTRL connection from " + busy.id()));
    // The busy client speaks every half second until the idle one is gone.
    std::optional<LoggedLine> gone;
    for (int i = 0; i < 20 && !gone; ++i) {
        ASSERT_TRUE(busy.send("hello\n"));
        gone = d.wait_for("Idle CTRL client " + idle.id() + " for ", 500ms);
    }
    ASSERT_TRUE(gone);
    ASSERT_TRUE(d.wait_for("Closing CTRL connection from " + idle.id()));
    EXPECT_TRUE(d.matching("Idle CTRL client " + busy.id()).empty());
}

// A pid that was a process of this test and is gone now.
pid_t dead_pid() {
    pid_t pid = ::fork();
    if (pid == 0)
        _exit(0);
    ::waitpid(pid, nullptr, 0);
    return pid;
}

// Lock files of the daemon's previous run (its pid is in the pid file, the
// process gone) are removed at start-up, each with a notice; a lock of a
// live process stays, and a lock of some other dead process stays too but is
// reported while the daemon waits on it.
TEST(Fault, LocksOfTheDeadPreviousRunGoAtStartUp) {
    SeedStore s;
    s.clone_node(2);
    const pid_t previous = dead_pid(), other = dead_pid();
    s.dir.write("corvald.pid", std::to_string(previous) + "\n");
    s.write("locks/NODE-1", std::to_string(previous) + "\n");
    s.write("locks/VDISK-" + kPlain, std::to_string(previous) + "\n");
    s.write("locks/DS-ds01", std::to_string(::getpid()) + "\n");
    s.write("locks/NODE-2", std::to_string(other) + "\n");
    s.cfg.values["node_lock_timeout_ms"] = "100";
    Daemon d({"-d", "-C", s.conf()}, s.dir);
    for (const std::string& name : {std::string("NODE-1"), "VDISK-" + kPlain})
        EXPECT_TRUE(d.wait_for("Removed stale lock " + s.db() + "/locks/" + name + " of pid " +
                               std::to_string(previous)));
    // The node's own PING went out: its lock was free. (The daemon may hold
    // it again by now, storing that PING, which comes back to it.)
    ASSERT_TRUE(d.wait_for("Send PING"));
    EXPECT_NE(look(s.db() + "/locks/NODE-1"), std::to_string(previous) + "\n");
    EXPECT_EQ(look(s.db() + "/locks/DS-ds01"), std::to_string(::getpid()) + "\n");
    ASSERT_TRUE(send_datagram(header(32, 2).b, s.cfg.bind_port()));
    EXPECT_TRUE(d.wait_for("Lock " + s.db() + "/locks/NODE-2 held by dead process " +
                           std::to_string(other)));
    EXPECT_EQ(look(s.db() + "/locks/NODE-2"), std::to_string(other) + "\n");
    EXPECT_EQ(d.matching("Removed stale lock").size(), 2u);
}

// List files far larger than any meaningful one (here 2 MiB, sparse) are
// refused unread, each with a line naming it: a VDisk's membership fails that
// VDisk's load, and a local-nodes file on reload leaves the list in force.
TEST(Fault, OversizedListFilesAreRefusedUnread) {
    SeedStore s;
    const std::string membership = s.db() + "/VDisk/" + kPlain + "/membership";
    ASSERT_EQ(::truncate(membership.c_str(), 2 << 20), 0);
    Daemon d({"-d", "-C", s.conf()}, s.dir);
    EXPECT_TRUE(d.wait_for("error: MembershipLoad(): Oversized file " + membership + ": 2097152 bytes"));
    ASSERT_TRUE(d.wait_for("Send AUX_PING"));
    const size_t m = d.mark();
    ASSERT_EQ(::truncate((s.dir / "local_nodes").c_str(), 2 << 20), 0);
    d.signal(SIGHUP);
    EXPECT_TRUE(d.wait_for_after(m, "error: load_local_nodes(): Oversized file " +
                                        s.dir / "local_nodes" + ": 2097152 bytes"));
    EXPECT_TRUE(d.wait_for_after(m, "dump_local_nodes(): [1/1] 1"));
}

// A VDisk record whose writing was cut short (no generation count, an empty
// attribute) would fail every update of it; the next announcement of the
// VDisk completes it instead, once, and the update goes on. A Node record
// with a gap anywhere is completed and reported the same way.
TEST(Fault, RecordsCutShortAreCompletedByTheNextAnnouncement) {
    SeedStore s;
    s.clone_node(2);
    const std::string rec = s.db() + "/VDisk/" + kPlain;
    ASSERT_EQ(::unlink((rec + "/highest_gen_count").c_str()), 0);
    s.write("VDisk/" + kPlain + "/description", "");
    s.write("Node/2/hbtl", "");
    s.sh("mkdir VDisk/cut && rm Node/2/datastoremember");
    Daemon d({"-dd", "-C", s.conf()}, s.dir);
    ASSERT_TRUE(d.wait_for("BIND UDP"));
    const std::string ping = header(4, 2).demo_node().vdisk({kPlain, {1, 2}}).vdisk({"cut", {2}}).b;
    // A record made new has nothing to complete.
    ASSERT_TRUE(send_datagram(header(35, 3).demo_node().aux().b, s.cfg.bind_port()));
    for (uint32_t marker : {901, 902}) {
        // Handled in order: once the marker of unknown type behind it is
        // traced, the PING is done.
        ASSERT_TRUE(send_datagram(ping, s.cfg.bind_port()));
        ASSERT_TRUE(send_datagram(header(5, marker).b, s.cfg.bind_port()));
        ASSERT_TRUE(d.wait_for("debug: hdr_dump(): uid=" + std::to_string(marker)));
    }
    EXPECT_EQ(d.matching("Completed ").size(), 3u);
    EXPECT_TRUE(d.wait_for("info: VDiskUpdate(): Completed VDisk cut from Node 2"));
    EXPECT_TRUE(d.wait_for("info: NodeCreate(): Completed Node 2 from Node 2"));
    EXPECT_TRUE(d.wait_for("info: VDiskUpdate(): Completed VDisk " + kPlain + " from Node 2"));
    EXPECT_TRUE(d.matching("Failed to load").empty());
    EXPECT_EQ(look(rec + "/highest_gen_count"), "1\n");
    EXPECT_EQ(look(rec + "/description"), "the demo's plain disk\n");
    EXPECT_EQ(look(s.db() + "/Node/2/hbtl"), "0:0:1:0\n");
    EXPECT_EQ(look(s.db() + "/VDisk/cut/membership"), "2\n");
}

// The seed's store on a tmpfs of its own (mount options opts), mounted in a
// private mount namespace of this test process, which the daemons it starts
// share; unmounted when it goes. skip says why there is none.
struct TmpfsStore {
    TmpfsStore(const SeedStore& s, const std::string& opts) : at(s.db()) {
        if (::geteuid() != 0)
            skip = "a tmpfs of its own needs root";
        else if (::unshare(CLONE_NEWNS) < 0 ||
                 ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0 ||
                 ::mount("tmpfs", at.c_str(), "tmpfs", 0, opts.c_str()) < 0)
            skip = std::string("no private tmpfs here: ") + std::strerror(errno);
        else
            EXPECT_TRUE(StoreBuilder().seed().put("locks").write(at));
    }
    ~TmpfsStore() {
        if (skip.empty())
            ::umount2(at.c_str(), MNT_DETACH);
    }
    std::string at, skip;
};

std::string ingested(uint32_t peer, int i) {
    char uuid[15];
    std::snprintf(uuid, sizeof uuid, "in%02u%010d", peer, i);
    return uuid;
}

// Peers 11..14 with `per_peer` VDisks each, in data store ds01: a DS_PING,
// an AUX_PING and a PING apiece.
std::vector<std::string> ingest(int per_peer) {
    std::vector<std::string> round;
    for (uint32_t peer = 11; peer <= 14; ++peer) {
        round.push_back(header(16, peer).demo_node().datastore("ds01").b);
        round.push_back(header(35, peer).demo_node().aux().b);
        Golden ping = header(4, peer).demo_node();
        for (int i = 0; i < per_peer; ++i) ping.vdisk({ingested(peer, i), {peer, peer % 4 + 11}});
        round.push_back(ping.b);
    }
    return round;
}

// Sends the round with at most two PINGs in the socket's buffer: each
// peer's once the daemon locks the peer before it.
void send_round(Daemon& d, const SeedStore& s, const std::vector<std::string>& round) {
    const size_t m = d.mark();
    for (size_t i = 0; i < round.size(); ++i) {
        ASSERT_TRUE(send_datagram(round[i], s.cfg.bind_port()));
        if (i % 3 == 2) {
            ASSERT_TRUE(d.wait_for_after(m, "Lock " + s.db() + "/locks/NODE-" + std::to_string(11 + i / 3)));
        }
    }
}

// Sends the round and waits until it was handled: the daemon locks a node
// without a record (marker) for the heartbeat sent behind it.
void feed(Daemon& d, const SeedStore& s, const std::vector<std::string>& round, uint32_t marker) {
    ASSERT_TRUE(d.wait_for("BIND UDP"));
    send_round(d, s, round);
    ASSERT_TRUE(send_datagram(header(32, marker).b, s.cfg.bind_port()));
    ASSERT_TRUE(d.wait_for("/locks/NODE-" + std::to_string(marker), 60s));
}

// After a stop: no lock file is left, and every record loads, each Node
// record with every VDisk it links to and each VDisk record on its own. The
// number of VDisk records.
size_t expect_every_record_loads(const std::string& db) {
    ScopedSettings keep;
    LogCapture log;  // the loads' error lines, for a failure
    const auto errors = [&] { return testing::PrintToString(log.lines_containing("error: ")); };
    cfg_work_directory = db;
    EXPECT_TRUE(LockFileList().empty()) << LockFileList().front().name;
    namespace fs = std::filesystem;
    for (const auto& e : fs::directory_iterator(db + "/Node")) {
        Node n;
        NodeInit(&n, static_cast<uint32_t>(std::stoul(e.path().filename())));
        VDiskTree linked;
        EXPECT_EQ(NodeLoad(&n), 0) << errors();
        EXPECT_EQ(NodeLoad_VDisks(n.nodeid, &linked), 0) << errors();
        for (auto& [uuid, v] : linked) EXPECT_EQ(VDiskLoad(&n, v.get()), 0) << errors();
    }
    size_t records = 0;
    for (const auto& e : fs::directory_iterator(db + "/VDisk")) {
        VDisk v;
        std::snprintf(v.vdiskuuid, sizeof v.vdiskuuid, "%s", e.path().filename().c_str());
        EXPECT_EQ(VDiskLoad(nullptr, &v), 0) << errors();
        ++records;
    }
    return records;
}

// kill -9 in the middle of a large ingest, at three depths chosen by the log
// (the creation of the records, then their updates), then a restart and the
// same announcements again: the restart removes the dead run's locks, and the
// second round leaves no lock file and every record whole.
TEST(Fault, KilledMidIngestTheNextRoundLeavesEveryRecordWhole) {
    SeedStore s;
    TmpfsStore fs(s, "size=256m");
    if (!fs.skip.empty())
        GTEST_SKIP() << fs.skip;
    const std::vector<std::string> round = ingest(200);
    uint32_t marker = 900;
    for (auto [peer, depth] : {std::pair{11u, 50}, {12u, 150}, {14u, 100}}) {
        {
            Daemon d({"-d", "-C", s.conf()}, s.dir);
            ASSERT_TRUE(d.wait_for("BIND UDP"));
            send_round(d, s, {round.begin(), round.begin() + 3 * (peer - 10)});
            ASSERT_TRUE(d.wait_for("VDisk " + ingested(peer, depth)));
            d.signal(SIGKILL);
            ASSERT_EQ(d.wait_exit(), 128 + SIGKILL);
        }
        Daemon d({"-d", "-C", s.conf()}, s.dir);
        feed(d, s, round, ++marker);
        d.signal(SIGTERM);
        ASSERT_EQ(d.wait_exit(), 0);
        EXPECT_EQ(expect_every_record_loads(s.db()), 2u + 4 * 200) << "killed at " << ingested(peer, depth);
    }
}

// A full disk in the middle of an ingest leaves records half-written (empty
// attribute files, missing ones); once space is free, the next round of the
// same announcements completes every one of them.
TEST(Fault, AFullDiskIsHealedByTheNextRoundOnceSpaceIsFree) {
    SeedStore s;
    TmpfsStore fs(s, "size=8m");
    if (!fs.skip.empty())
        GTEST_SKIP() << fs.skip;
    Daemon d({"-d", "-C", s.conf()}, s.dir);
    // Filled up, then 256 KiB freed: room for a few records only.
    const std::string filler = s.db() + "/filler";
    const int fd = ::open(filler.c_str(), O_WRONLY | O_CREAT, 0600);
    const std::string chunk(1 << 16, 'x');
    while (::write(fd, chunk.data(), chunk.size()) > 0) {
    }
    ASSERT_EQ(::ftruncate(fd, ::lseek(fd, 0, SEEK_CUR) - (1 << 18)), 0);
    ::close(fd);
    const std::vector<std::string> round = ingest(25);
    feed(d, s, round, 901);
    EXPECT_FALSE(d.matching("No space left on device").empty());
    ASSERT_EQ(::unlink(filler.c_str()), 0);
    feed(d, s, round, 902);
    EXPECT_FALSE(d.matching("Completed VDisk").empty());
    d.signal(SIGTERM);
    ASSERT_EQ(d.wait_exit(), 0);
    EXPECT_EQ(expect_every_record_loads(s.db()), 2u + 4 * 25);
}

}  // namespace
}  // namespace corvald::test
