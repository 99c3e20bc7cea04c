// The controller's loop through the real binary: the two list files at start
// and on SIGHUP, and the statistics report with what it counts.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "support/daemon.h"
#include "support/seed_store.h"
#include "support/temp_dir.h"
#include "support/udp.h"
#include "support/wire.h"

namespace corvald::test {
namespace {

using Lines = std::vector<std::string>;

// Comments and empty lines are skipped, a node id is read like strtoul, an
// address whole by inet_aton; a file is applied whole or not at all.
TEST(Controller, ListFilesAreAppliedWholeOrNotAtAll) {
    TempDir dir;
    TestConfig cfg(dir);
    const std::string n = "local_nodes", h = "unicast_hosts", nodes = dir / n, hosts = dir / h;
    const std::string good_nodes = "1\n2\n# comment 99\n\n17 word\n";
    const std::string good_hosts = "127.0.0.2\n# 127.0.0.9\n\n127.1\n";
    dir.write(n, good_nodes);
    dir.write(h, good_hosts);
    Daemon d({"-d", "-C", cfg.write(dir)}, dir);
    const Lines three = {"notice: dump_local_nodes(): [1/3] 1",
                         "notice: dump_local_nodes(): [2/3] 2",
                         "notice: dump_local_nodes(): [3/3] 17"};
    const Lines two = {"notice: dump_unicast_hosts(): [1/2] 127.0.0.2",
                       "notice: dump_unicast_hosts(): [2/2] 127.1"};
    ASSERT_TRUE(d.wait_for(two.back()));
    EXPECT_EQ(d.matching("load_"), (Lines{"notice: load_local_nodes(): Loading " + nodes,
                                          "notice: load_unicast_hosts(): Loading " + hosts}));
    EXPECT_EQ(d.matching("dump_"), (Lines{three[0], three[1], three[2], two[0], two[1]}));
    ASSERT_TRUE(d.wait_handler(SIGHUP));

    // Before each reload both files are put back and one of them replaced
    // ("-": removed). A refused file leaves the list in force as it was; an
    // accepted one is dumped as its new list.
    const std::string bad_nodes = "error: load_local_nodes(): Malformed file " + nodes;
    const std::string bad_host = "error: load_unicast_hosts(): Malformed unicast address: ";
    const struct {
        std::string file, content, error;
        Lines dump;  // of the list the file holds; the old one after an error
    } cases[] = {
        {n, "1\n2", bad_nodes, three},
        {n, "1\n0\n", bad_nodes, three},
        {n, "1\n4294967296\n", bad_nodes, three},                   // the low 32 bits are 0
        {n, "5" + std::string(254, ' ') + "\n", bad_nodes, three},  // 255 characters
        {n, "-", "error: load_local_nodes(): fopen(" + nodes + "): No such file or directory",
         three},
        // A port is no part of the syntax; 16 characters are too many.
        {h, "127.0.0.3\n127.0.0.2:8000\n", bad_host + "127.0.0.2:8000", two},
        {h, "127.0.0.3\n127.000.000.0002\n", bad_host + "127.000.000.0002", two},
        // The longest lines there are: 254 characters and the newline, and
        // 15 characters; a file without entries is an empty list.
        {n, "5" + std::string(253, ' ') + "\n", "", {"notice: dump_local_nodes(): [1/1] 5"}},
        {n, "# nothing here\n", "", {}},
        {h, "127.000.000.002\n", "", {"notice: dump_unicast_hosts(): [1/1] 127.000.000.002"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content.substr(0, 20));
        dir.write(n, good_nodes);
        dir.write(h, good_hosts);
        if (c.content == "-")
            std::remove((dir / c.file).c_str());
        else
            dir.write(c.file, c.content);
        const size_t m = d.mark();
        d.signal(SIGHUP);
        ASSERT_TRUE(d.wait_for_after(m, c.file == h ? c.dump.back() : two.back()));
        EXPECT_EQ(d.matching("error: load_", m), c.error.empty() ? Lines{} : Lines{c.error});
        EXPECT_EQ(d.matching("dump_" + c.file, m), c.dump);
    }
}

// With stats_interval 0 every pass from the seventh second on reports one RX
// and one TX line of short/long counts, the short ones since the report
// before. A received datagram counts under its type (the one test of that
// mapping); a sent one once per destination reached (the broadcast address
// refuses it and is skipped), and SIGUSR1 sends the pings again.
TEST(Controller, StatisticsCountPerTypeAndPerDestination) {
    SeedStore s("1\n", "255.255.255.255\n127.0.0.2\n127.0.0.4\n");
    s.cfg.values["stats_interval"] = "0";
    const int bind_port = s.cfg.bind_port();
    const std::string port = std::to_string(bind_port);
    UdpSink a("127.0.0.2", bind_port), b("127.0.0.4", bind_port);
    Daemon d({"-d", "-C", s.conf()}, s.dir);
    for (UdpSink* sink : {&a, &b})
        for (int i = 0; i < 3; ++i) EXPECT_TRUE(sink->next());
    EXPECT_EQ(
        d.matching("error: xmit_msg(): sendto(255.255.255.255:"),
        (Lines{"error: xmit_msg(): sendto(255.255.255.255:" + port + ", 294): Permission denied",
               "error: xmit_msg(): sendto(255.255.255.255:" + port + ", 236): Permission denied",
               "error: xmit_msg(): sendto(255.255.255.255:" + port + ", 473): Permission denied"}));
    // Of the n-th known type in the line's order n datagrams, and 8 of unknown
    // types (DELETE_JSON counts as ST_JSON), all from a node of no store and
    // handled long before the first report; 206 bytes are no header and count
    // nowhere.
    const std::pair<int, int> sent[] = {{4, 1},  {16, 2}, {35, 3}, {33, 4},  {34, 5}, {32, 6},
                                        {36, 3}, {37, 4}, {5, 4},  {200, 2}, {0, 2}};
    for (auto [type, n] : sent)
        for (int i = 0; i < n; ++i) ASSERT_TRUE(send_datagram(header(type, 99).b, bind_port));
    ASSERT_TRUE(send_datagram(header(4, 99, 206).b, bind_port));
    ASSERT_TRUE(d.wait_for("notice: stats(): TX: ALL=0/6 "));
    const Lines rx = d.matching("stats(): RX: "), tx = d.matching("stats(): TX: ");
    const std::string idle = "SV_PING=0/0 VDISK_DEL=0/0 HEARTBEAT=0/0 ST_JSON=0/0 ",
                      n = "notice: stats(): ";
    ASSERT_GE(std::min(rx.size(), tx.size()), 2u);
    EXPECT_EQ(rx[0], n + "RX: ALL=36/36 PING=1/1 DS_PING=2/2 AUX_PING=3/3 SV_PING=4/4 "
                         "VDISK_DEL=5/5 HEARTBEAT=6/6 ST_JSON=7/7 UNKNOWN=8/8");
    EXPECT_EQ(rx[1], n + "RX: ALL=0/36 PING=0/1 DS_PING=0/2 AUX_PING=0/3 SV_PING=0/4 "
                         "VDISK_DEL=0/5 HEARTBEAT=0/6 ST_JSON=0/7 UNKNOWN=0/8");
    // The pings went out once, to two destinations; the line ends in a blank.
    EXPECT_EQ(tx[0], n + "TX: ALL=6/6 PING=2/2 DS_PING=2/2 AUX_PING=2/2 " + idle);
    EXPECT_EQ(tx[1], n + "TX: ALL=0/6 PING=0/2 DS_PING=0/2 AUX_PING=0/2 " + idle);
    ASSERT_TRUE(d.wait_handler(SIGUSR1));
    const size_t m = d.mark();
    d.signal(SIGUSR1);
    EXPECT_TRUE(d.wait_for_after(m, "TX: ALL=6/12 PING=2/4 DS_PING=2/4 AUX_PING=2/4 SV_PING=0/0 "));
    EXPECT_EQ(a.next().value_or("...")[2], 16) << "the DS_PING of the next round";
}

}  // namespace
}  // namespace corvald::test
