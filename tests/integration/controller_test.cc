// The controller's main loop through the real binary: the two list files at
// start and on SIGHUP, the statistics lines, the receive step up to the
// dispatch, the ordered stop and the start-up failures.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/daemon.h"
#include "support/temp_dir.h"
#include "support/udp.h"
#include "util/unique_fd.h"

namespace corvald::test {
namespace {

using Lines = std::vector<std::string>;

// Messages from line `from` on that contain needle, in order.
Lines since(Daemon& d, size_t from, const std::string& needle) {
    Lines out;
    for (size_t i = from; i < d.lines().size(); ++i)
        if (d.lines()[i].message.find(needle) != std::string::npos)
            out.push_back(d.lines()[i].message);
    return out;
}

// Stops the daemon with SIGTERM; checks the status and the stop notices in order.
void stop(Daemon& d) {
    d.signal(SIGTERM);
    ASSERT_EQ(d.wait_exit(), 0);
    EXPECT_EQ(d.matching("notice: controller_"),
              (Lines{"notice: controller_thread_loop(): Exit...",
                     "notice: controller_module_teardown(): Starting shutdown sequence...",
                     "notice: controller_module_teardown(): Shutdown sequence finished!"}));
}

TEST(Controller, ListFilesAreAppliedWholeOrNotAtAll) {
    TempDir dir;
    TestConfig cfg(dir);
    const std::string good_nodes = "1\n2\n# comment 99\n\n17 word\n", nodes = dir / "local_nodes";
    const std::string good_hosts = "127.0.0.2\n# 127.0.0.9\n\n127.1\n",
                      hosts = dir / "unicast_hosts";
    dir.write("local_nodes", good_nodes);
    dir.write("unicast_hosts", good_hosts);
    const std::string port = std::to_string(cfg.bind_port());
    Daemon d({"-dd", "-C", cfg.write(dir)}, dir);
    const Lines three = {"notice: dump_local_nodes(): [1/3] 1",
                         "notice: dump_local_nodes(): [2/3] 2",
                         "notice: dump_local_nodes(): [3/3] 17"};
    const Lines two = {"notice: dump_unicast_hosts(): [1/2] 127.0.0.2",
                       "notice: dump_unicast_hosts(): [2/2] 127.1"};
    ASSERT_TRUE(d.wait_for(two.back()));
    const std::string node = "debug: load_local_nodes(): LOCAL_NODE: ";
    const std::string host = "debug: load_unicast_hosts(): UNICAST_HOST: 127.0.0.";
    EXPECT_EQ(since(d, 0, "load_"),
              (Lines{"notice: load_local_nodes(): Loading " + nodes, node + "1 (1)", node + "2 (2)",
                     node + "17 (17 word)", "notice: load_unicast_hosts(): Loading " + hosts,
                     host + "2:" + port + " (127.0.0.2)", host + "1:" + port + " (127.1)"}));
    EXPECT_EQ(since(d, 0, "dump_"), (Lines{three[0], three[1], three[2], two[0], two[1]}));
    ASSERT_TRUE(d.wait_handler(SIGHUP));

    // Before each reload both files are put back and one of them replaced
    // ("-": removed). A refused file leaves the list in force as it was; an
    // accepted one is dumped as its new list.
    const std::string bad_nodes = "error: load_local_nodes(): Malformed file " + nodes;
    const std::string bad_host = "error: load_unicast_hosts(): Malformed unicast address: ";
    const std::string enoent = "): No such file or directory";
    const struct {
        std::string file, content, error;
        Lines dump;  // of the list the file holds; the old one after an error
    } cases[] = {
        {"local_nodes", "1\n2", bad_nodes, three},
        {"local_nodes", "1\n0\n", bad_nodes, three},
        {"local_nodes", "1\n4294967296\n", bad_nodes, three},  // the low 32 bits are 0
        {"local_nodes", "5" + std::string(254, ' ') + "\n", bad_nodes, three},  // 255 characters
        {"local_nodes", "-", "error: load_local_nodes(): fopen(" + nodes + enoent, three},
        // A port is no part of the syntax; 16 characters are too many.
        {"unicast_hosts", "127.0.0.3\n127.0.0.2:8000\n", bad_host + "127.0.0.2:8000", two},
        {"unicast_hosts", "127.0.0.3\n127.000.000.0002\n", bad_host + "127.000.000.0002", two},
        // The longest lines there are: 254 characters and the newline, and
        // 15 characters; a file without entries is an empty list.
        {"local_nodes",
         "5" + std::string(253, ' ') + "\n",
         "",
         {"notice: dump_local_nodes(): [1/1] 5"}},
        {"local_nodes", "# nothing here\n", "", {}},
        {"unicast_hosts",
         "127.000.000.002\n",
         "",
         {"notice: dump_unicast_hosts(): [1/1] 127.000.000.002"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content.substr(0, 20));
        dir.write("local_nodes", good_nodes);
        dir.write("unicast_hosts", good_hosts);
        if (c.content == "-")
            std::remove((dir / c.file).c_str());
        else
            dir.write(c.file, c.content);
        size_t m = d.mark();
        d.signal(SIGHUP);
        const std::string last = c.file == "unicast_hosts" ? c.dump.back() : two.back();
        ASSERT_TRUE(d.wait_for_after(m, last)) << "no reload after SIGHUP";
        EXPECT_EQ(since(d, m, "error: load_"), c.error.empty() ? Lines{} : Lines{c.error});
        EXPECT_EQ(since(d, m, "dump_" + c.file), c.dump);
    }
    stop(d);
}

TEST(Controller, StatisticsCountReceivedDatagramsByType) {
    TempDir dir;
    TestConfig cfg(dir);
    cfg.values["stats_interval"] = "1";
    std::string path = dir / "local_nodes";
    std::remove(path.c_str());  // a missing file leaves the daemon running, with no nodes
    Daemon d({"-dd", "-C", cfg.write(dir)}, dir);
    ASSERT_TRUE(
        d.wait_for("error: load_local_nodes(): fopen(" + path + "): No such file or directory"));
    const std::string counters =
        "ALL=0/0 PING=0/0 DS_PING=0/0 AUX_PING=0/0 SV_PING=0/0 VDISK_DEL=0/0 HEARTBEAT=0/0 "
        "ST_JSON=0/0 ";
    const std::string zeros_tx = "notice: stats(): TX: " + counters;  // ends with a blank
    ASSERT_TRUE(d.wait_for("notice: stats(): RX: " + counters + "UNKNOWN=0/0"));

    size_t m = d.mark();
    ASSERT_TRUE(send_datagram(std::string(206, '\0'), cfg.bind_port()));
    ASSERT_TRUE(d.wait_for_after(m, "error: controller_thread_loop(): Malformed packet? #1"));
    // Known types are counted under their own names, the rest as UNKNOWN;
    // the length beyond the header does not matter to the count.
    const std::vector<uint8_t> types = {5, 4, 16, 35, 33, 34, 32, 36, 37, 5, 200, 0};
    for (uint8_t t : types) {
        // One at a time, each awaited: the traces then come in sending order.
        size_t before = d.mark();
        ASSERT_TRUE(send_datagram(datagram_of_type(t, t == 4 ? 400 : 207), cfg.bind_port()));
        ASSERT_TRUE(d.wait_for_after(before, "recvfrom(127.0.0.3:"));
    }
    ASSERT_TRUE(d.wait_for_after(m,
                                 "RX: ALL=0/12 PING=0/1 DS_PING=0/1 AUX_PING=0/1 SV_PING=0/1 "
                                 "VDISK_DEL=0/1 HEARTBEAT=0/1 ST_JSON=0/2 UNKNOWN=0/4"))
        << "no report with the totals and empty short counts";
    // The short counts of the reports since the first datagram add up to
    // the totals: each report counts its own stretch only.
    std::vector<long long> sums(9, 0);
    for (const std::string& line : since(d, m, "stats(): RX:")) {
        size_t i = 0;  // "NAME=short/long", the short count first
        for (size_t eq = line.find('='); eq != std::string::npos; eq = line.find('=', eq + 1))
            sums.at(i++) += std::stoll(line.substr(eq + 1));
    }
    EXPECT_EQ(sums, (std::vector<long long>{12, 1, 1, 1, 1, 1, 1, 2, 4}));
    EXPECT_EQ(since(d, m, "stats(): TX:"), Lines(since(d, m, "stats(): TX:").size(), zeros_tx));

    // One receive trace per datagram of at least a header (each awaited
    // above by its sender's address) with its length; the unknown types
    // with their header dump.
    auto traces = since(d, m, "recvfrom(");
    ASSERT_EQ(traces.size(), types.size());
    EXPECT_EQ(traces[1].substr(traces[1].size() - 6), "): 400");
    const std::string unknown = "error: controller_thread_loop(): Received unknown header type ";
    EXPECT_EQ(since(d, m, "Received unknown header type"),
              (Lines{unknown + "5", unknown + "5", unknown + "200", unknown + "0"}));
    EXPECT_EQ(since(d, m, "debug: hdr_dump(): type=").size(), 4u);
    stop(d);
}

// A start-up failure ends the run with status 1 after the failing step's
// message, without the stop notices (teardown does not run) and before any
// list file is read. Ports are held by sockets of the test's own, bound
// without SO_REUSEADDR so that the daemon cannot share them.
TEST(Controller, StartUpFailuresEndWithStatusOne) {
    TempDir dir;
    const std::string in_use = "): Address already in use";
    const struct {
        std::map<std::string, std::string> values;
        int hold;  // the socket type whose port is taken, or 0
        std::string message;
    } cases[] = {
        {{{"bind_interface", "nosuchif0"}},
         0,
         "error: get_interface_addr(): ioctl(SIOCGIFADDR): No such device"},
        {{}, SOCK_DGRAM, "error: open_socket(): bind(0.0.0.0:"},
        {{}, SOCK_STREAM, "error: tcp_listen(): bind(127.0.0.1:"},
        // Multicast mode fails on its groups before joining any.
        {{{"unicast_mode", "0"}, {"multicast_address", "\" , \""}},
         0,
         "error: controller_thread_loop(): Multicast groups missing"},
        {{{"unicast_mode", "0"}, {"multicast_address", "\"224.1.1.1, bogus\""}},
         0,
         "error: parse_mcast_groups(): Malformed multicast address: bogus"},
    };
    for (const auto& c : cases) {
        TestConfig cfg(dir);
        for (const auto& [k, v] : c.values) cfg.values[k] = v;
        const int port = c.hold == SOCK_STREAM ? cfg.ctrl_port() : cfg.bind_port();
        const std::string message = c.message + (c.hold ? std::to_string(port) + in_use : "");
        UniqueFd holder(c.hold ? ::socket(AF_INET, c.hold | SOCK_CLOEXEC, 0) : -1);
        struct sockaddr_in sa = {};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(c.hold == SOCK_STREAM ? INADDR_LOOPBACK : INADDR_ANY);
        sa.sin_port = htons(static_cast<uint16_t>(port));
        ASSERT_TRUE(!holder ||
                    (::bind(holder.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0 &&
                     (c.hold != SOCK_STREAM || ::listen(holder.get(), 1) == 0)));
        Daemon d({"-d", "-C", cfg.write(dir)}, dir);
        EXPECT_EQ(d.wait_exit(), 1);
        EXPECT_TRUE(d.wait_for(message, std::chrono::milliseconds(0))) << "missing: " << message;
        for (const char* absent : {"Exit...", "shutdown sequence", "Loading"})
            EXPECT_TRUE(d.matching(absent).empty()) << absent;
    }
}

}  // namespace
}  // namespace corvald::test
