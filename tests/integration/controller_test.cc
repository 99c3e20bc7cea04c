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
#include <string>
#include <vector>

#include "support/daemon.h"
#include "support/temp_dir.h"
#include "support/udp.h"

namespace corvald::test {
namespace {

// Messages from line `from` on that contain needle, in order.
std::vector<std::string> since(Daemon& d, size_t from, const std::string& needle) {
    std::vector<std::string> out;
    const auto& all = d.lines();
    for (size_t i = from; i < all.size(); ++i)
        if (all[i].message.find(needle) != std::string::npos) out.push_back(all[i].message);
    return out;
}

// Sends SIGHUP and waits until the reload has got through both files: the
// unicast-hosts "Loading" notice comes after the local nodes' dump. Returns
// the mark taken before the signal.
size_t reload(Daemon& d, const std::string& done = "notice: load_unicast_hosts(): Loading") {
    size_t m = d.mark();
    d.signal(SIGHUP);
    EXPECT_TRUE(d.wait_for_after(m, done)) << "no reload after SIGHUP";
    return m;
}

// Stops the daemon with sig and checks the status and the order of the
// stop notices.
void stop(Daemon& d, int sig) {
    d.signal(sig);
    ASSERT_EQ(d.wait_exit(), 0);
    std::vector<std::string> tail;
    for (const auto& l : d.lines())
        if (l.message.find("Exit...") != std::string::npos ||
            l.message.find("shutdown sequence") != std::string::npos ||
            l.message.find("Shutdown sequence") != std::string::npos)
            tail.push_back(l.message);
    EXPECT_EQ(tail, (std::vector<std::string>{
                        "notice: controller_thread_loop(): Exit...",
                        "notice: controller_module_teardown(): Starting shutdown sequence...",
                        "notice: controller_module_teardown(): Shutdown sequence finished!"}));
}

const std::vector<std::string> kThreeNodes = {
    "notice: dump_local_nodes(): [1/3] 1",
    "notice: dump_local_nodes(): [2/3] 2",
    "notice: dump_local_nodes(): [3/3] 17",
};

TEST(Controller, LocalNodesFileIsAppliedWholeOrNotAtAll) {
    TempDir dir;
    TestConfig cfg(dir);
    std::string path = dir.write("local_nodes", "1\n2\n# comment 99\n\n17 word\n");
    Daemon d({"-dd", "-C", cfg.write(dir)}, dir);
    ASSERT_TRUE(d.wait_for("notice: load_unicast_hosts(): Loading"));
    EXPECT_EQ(since(d, 0, "load_local_nodes():"),
              (std::vector<std::string>{"notice: load_local_nodes(): Loading " + path,
                                        "debug: load_local_nodes(): LOCAL_NODE: 1 (1)",
                                        "debug: load_local_nodes(): LOCAL_NODE: 2 (2)",
                                        "debug: load_local_nodes(): LOCAL_NODE: 17 (17 word)"}));
    EXPECT_EQ(since(d, 0, "dump_local_nodes"), kThreeNodes);
    ASSERT_TRUE(d.wait_handler(SIGHUP));

    // Each of these files is refused whole; the dump after it still shows
    // the three nodes in force.
    const std::string too_long = "5" + std::string(254, ' ') + "\n";  // 255 characters
    for (const std::string& bad : {std::string("1\n2"), std::string("1\nabc\n"),
                                   std::string("1\n0\n"), std::string("1\n   \n"),
                                   std::string("1\n4294967296\n"), too_long}) {
        SCOPED_TRACE(bad.substr(0, 20));
        dir.write("local_nodes", bad);
        size_t m = reload(d);
        EXPECT_EQ(since(d, m, "load_local_nodes(): Malformed file"),
                  std::vector<std::string>{"error: load_local_nodes(): Malformed file " + path});
        EXPECT_EQ(since(d, m, "dump_local_nodes"), kThreeNodes);
    }

    std::remove(path.c_str());
    size_t m = reload(d);
    EXPECT_EQ(since(d, m, "error:"),
              std::vector<std::string>{"error: load_local_nodes(): fopen(" + path +
                                       "): No such file or directory"});
    EXPECT_EQ(since(d, m, "dump_local_nodes"), kThreeNodes);

    // The longest line there is: 254 characters and the newline.
    dir.write("local_nodes", "5" + std::string(253, ' ') + "\n");
    m = reload(d);
    EXPECT_EQ(since(d, m, "dump_local_nodes"),
              std::vector<std::string>{"notice: dump_local_nodes(): [1/1] 5"});

    // An empty file is a valid empty list: no dump line at all.
    dir.write("local_nodes", "# nothing here\n");
    m = reload(d);
    EXPECT_TRUE(since(d, m, "dump_local_nodes").empty());
    EXPECT_TRUE(since(d, m, "error:").empty());
    stop(d, SIGTERM);
}

TEST(Controller, UnicastHostsFileIsAppliedWholeOrNotAtAll) {
    TempDir dir;
    TestConfig cfg(dir);
    std::string path = dir.write("unicast_hosts", "127.0.0.2\n# 127.0.0.9\n\n127.1\n");
    const std::string port = std::to_string(cfg.bind_port());
    Daemon d({"-dd", "-C", cfg.write(dir)}, dir);
    ASSERT_TRUE(d.wait_for("notice: dump_unicast_hosts(): [2/2]"));
    EXPECT_EQ(since(d, 0, "unicast_hosts():"),
              (std::vector<std::string>{
                  "notice: load_unicast_hosts(): Loading " + path,
                  "debug: load_unicast_hosts(): UNICAST_HOST: 127.0.0.2:" + port + " (127.0.0.2)",
                  "debug: load_unicast_hosts(): UNICAST_HOST: 127.0.0.1:" + port + " (127.1)",
                  "notice: dump_unicast_hosts(): [1/2] 127.0.0.2",
                  "notice: dump_unicast_hosts(): [2/2] 127.1"}));
    ASSERT_TRUE(d.wait_handler(SIGHUP));

    const std::vector<std::string> two_hosts = {"notice: dump_unicast_hosts(): [1/2] 127.0.0.2",
                                                "notice: dump_unicast_hosts(): [2/2] 127.1"};
    // A port is no part of the syntax; 16 characters are too many; a name
    // is no address. The message names the refused line.
    for (const std::string bad : {"127.0.0.2:8000", "127.000.000.0002", "localhost"}) {
        SCOPED_TRACE(bad);
        dir.write("unicast_hosts", "127.0.0.3\n" + bad + "\n");
        size_t m = reload(d, "dump_unicast_hosts(): [2/2]");
        EXPECT_EQ(since(d, m, "error:"),
                  std::vector<std::string>{"error: load_unicast_hosts(): Malformed unicast address: " +
                                           bad});
        EXPECT_EQ(since(d, m, "dump_unicast_hosts"), two_hosts);
    }

    std::remove(path.c_str());
    size_t m = reload(d, "dump_unicast_hosts(): [2/2]");
    EXPECT_EQ(since(d, m, "error:"),
              std::vector<std::string>{"error: load_unicast_hosts(): fopen(" + path +
                                       "): No such file or directory"});
    EXPECT_EQ(since(d, m, "dump_unicast_hosts"), two_hosts);

    // Fifteen characters fit.
    dir.write("unicast_hosts", "127.000.000.002\n");
    reload(d, "dump_unicast_hosts(): [1/1] 127.000.000.002");
    stop(d, SIGINT);
}

// "RX: ALL=a/b PING=..." -> the eighteen numbers in order.
std::vector<long long> rx_numbers(const std::string& line) {
    std::vector<long long> out;
    for (size_t p = line.find('='); p != std::string::npos; p = line.find('=', p + 1)) {
        size_t slash = line.find('/', p);
        out.push_back(std::stoll(line.substr(p + 1, slash - p - 1)));
        out.push_back(std::stoll(line.substr(slash + 1)));
    }
    return out;
}

TEST(Controller, StatisticsCountReceivedDatagramsByType) {
    TempDir dir;
    TestConfig cfg(dir);
    cfg.values["stats_interval"] = "1";
    std::string path = dir / "local_nodes";
    std::remove(path.c_str());  // a missing file leaves the daemon running, with no nodes
    Daemon d({"-dd", "-C", cfg.write(dir)}, dir);
    ASSERT_TRUE(d.wait_for("error: load_local_nodes(): fopen(" + path + "): No such file or directory"));

    const std::string zeros_rx =
        "notice: stats(): RX: ALL=0/0 PING=0/0 DS_PING=0/0 AUX_PING=0/0 SV_PING=0/0 "
        "VDISK_DEL=0/0 HEARTBEAT=0/0 ST_JSON=0/0 UNKNOWN=0/0";
    const std::string zeros_tx =
        "notice: stats(): TX: ALL=0/0 PING=0/0 DS_PING=0/0 AUX_PING=0/0 SV_PING=0/0 "
        "VDISK_DEL=0/0 HEARTBEAT=0/0 ST_JSON=0/0 ";
    ASSERT_TRUE(d.wait_for("stats(): TX:"));
    EXPECT_EQ(d.matching("stats(): RX:").front(), zeros_rx);
    EXPECT_EQ(d.matching("stats(): TX:").front(), zeros_tx);  // ends with a blank

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
    const std::string total_rx =
        "RX: ALL=0/12 PING=0/1 DS_PING=0/1 AUX_PING=0/1 SV_PING=0/1 VDISK_DEL=0/1 "
        "HEARTBEAT=0/1 ST_JSON=0/2 UNKNOWN=0/4";
    ASSERT_TRUE(d.wait_for_after(m, total_rx)) << "no report with the totals and empty short counts";

    // The short counts of the reports since the first datagram add up to
    // the totals: each report counts its own stretch only.
    std::vector<long long> sum(18, 0);
    for (const std::string& line : since(d, m, "stats(): RX:")) {
        std::vector<long long> n = rx_numbers(line.substr(line.find("RX:")));
        ASSERT_EQ(n.size(), 18u) << line;
        for (size_t i = 0; i < 18; i += 2) sum[i] += n[i];
    }
    EXPECT_EQ((std::vector<long long>{sum[0], sum[2], sum[4], sum[6], sum[8], sum[10], sum[12],
                                      sum[14], sum[16]}),
              (std::vector<long long>{12, 1, 1, 1, 1, 1, 1, 2, 4}));
    for (const std::string& line : since(d, m, "stats(): TX:")) EXPECT_EQ(line, zeros_tx);

    // One receive trace per datagram of at least a header, from the
    // sender's address; the unknown types with their header dump.
    auto traces = since(d, m, "recvfrom(");
    ASSERT_EQ(traces.size(), types.size());
    EXPECT_EQ(traces[0].rfind("debug: controller_thread_loop(): recvfrom(127.0.0.3:", 0), 0u);
    EXPECT_EQ(traces[1].substr(traces[1].size() - 6), "): 400");
    EXPECT_EQ(since(d, m, "Received unknown header type"),
              (std::vector<std::string>{
                  "error: controller_thread_loop(): Received unknown header type 5",
                  "error: controller_thread_loop(): Received unknown header type 5",
                  "error: controller_thread_loop(): Received unknown header type 200",
                  "error: controller_thread_loop(): Received unknown header type 0"}));
    EXPECT_EQ(since(d, m, "debug: hdr_dump(): type=").size(), 4u);
    EXPECT_EQ(since(d, m, "debug: hdr_dump(): type=200 [UNKNOWN]").size(), 1u);
    stop(d, SIGTERM);
}

// A start-up failure ends the run with status 1 after the failing step's
// message, without the stop notices (teardown does not run) and before any
// list file is read.
void expect_start_failure(const TempDir& dir, const TestConfig& cfg, const std::string& message) {
    Daemon d({"-d", "-C", cfg.write(dir)}, dir);
    EXPECT_EQ(d.wait_exit(), 1);
    EXPECT_TRUE(d.wait_for(message, std::chrono::milliseconds(0))) << "missing: " << message;
    EXPECT_TRUE(d.matching("Exit...").empty());
    EXPECT_TRUE(d.matching("shutdown sequence").empty());
    EXPECT_TRUE(d.matching("Loading").empty());
}

// A socket of the test's own on a port, bound without SO_REUSEADDR so the
// daemon cannot share it.
struct Holder {
    int so = -1;
    Holder(int type, uint32_t addr, int port) {
        so = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
        struct sockaddr_in sa = {};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(addr);
        sa.sin_port = htons(static_cast<uint16_t>(port));
        bool ok = ::bind(so, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0 &&
                  (type != SOCK_STREAM || ::listen(so, 1) == 0);
        EXPECT_TRUE(ok) << "cannot hold port " << port;
    }
    ~Holder() { ::close(so); }
};

TEST(Controller, StartUpFailuresEndWithStatusOne) {
    TempDir dir;
    {
        TestConfig cfg(dir);
        cfg.values["bind_interface"] = "nosuchif0";
        expect_start_failure(dir, cfg, "error: get_interface_addr(): ioctl(SIOCGIFADDR): No such device");
    }
    {
        TestConfig cfg(dir);
        Holder udp(SOCK_DGRAM, INADDR_ANY, cfg.bind_port());
        expect_start_failure(dir, cfg,
                             "error: open_socket(): bind(0.0.0.0:" + std::to_string(cfg.bind_port()) +
                                 "): Address already in use");
    }
    {
        TestConfig cfg(dir);
        Holder tcp(SOCK_STREAM, INADDR_LOOPBACK, cfg.ctrl_port());
        expect_start_failure(dir, cfg,
                             "error: tcp_listen(): bind(127.0.0.1:" + std::to_string(cfg.ctrl_port()) +
                                 "): Address already in use");
    }
    // Multicast mode fails on its groups before joining any.
    {
        TestConfig cfg(dir);
        cfg.values["unicast_mode"] = "0";
        cfg.values["multicast_address"] = "\" , \"";
        expect_start_failure(dir, cfg, "error: controller_thread_loop(): Multicast groups missing");
        cfg.values["multicast_address"] = "\"224.1.1.1, bogus\"";
        expect_start_failure(dir, cfg, "error: parse_mcast_groups(): Malformed multicast address: bogus");
    }
}

}  // namespace
}  // namespace corvald::test
