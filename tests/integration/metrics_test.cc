// The metrics file through the real binary: what it counts, that promtool
// and node_exporter's textfile collector read it, the failing write; and
// corvalctl check-config.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "base/version.h"
#include "support/control_client.h"
#include "support/daemon.h"
#include "support/run.h"
#include "support/seed_store.h"
#include "support/udp.h"
#include "support/wire.h"

namespace corvald::test {
namespace {

// The value of the sample that begins with name (labels included) in text.
long long sample(const std::string& text, const std::string& name) {
    const size_t at = text.find("\n" + name + " ");
    return at == std::string::npos ? -1 : std::atoll(text.c_str() + at + name.size() + 2);
}

// What the kernel dropped on the daemon's socket (any address, port).
long long udp_drops(int port) {
    char local[16];
    std::snprintf(local, sizeof local, " 00000000:%04X ", port);
    const std::string table = read_file("/proc/net/udp");
    std::istringstream line(table.substr(std::min(table.find(local), table.size())));
    std::string f[12];  // address to pointer, then the drops
    for (std::string& field : f) line >> field;
    return f[11].empty() ? -1 : std::stoll(f[11]);
}

// Of each kind a known number (the daemon's start-up pings and a stored
// document's announcement go to a peer); a node locked by the test (no wait allowed)
// and one without a record; a flood while the daemon is stopped, which the
// kernel drops in part. Every short datagram is counted, as short or by the
// kernel. Then the directory goes: one error line, not one per report.
TEST(Metrics, FileCountsWhatCameAndCollectorsReadIt) {
    SeedStore s;
    s.cfg.values["stats_interval"] = "0";
    s.cfg.values["node_lock_timeout_ms"] = "0";
    s.cfg.values["metrics_file"] = s.dir / "m/corvald.prom";
    ASSERT_EQ(::mkdir((s.dir / "m").c_str(), 0755), 0);
    s.write("locks/NODE-99", std::to_string(::getpid()) + "\n");
    const int port = s.cfg.bind_port();
    UdpSink peer("127.0.0.2", port);  // the daemon's own sends do not come back
    Daemon d({"-d", "-C", s.conf()}, s.dir);
    EXPECT_TRUE(d.wait_for(" version=" CORVALD_VERSION));  // the start-up line
    ASSERT_TRUE(d.wait_for("notice: load_local_nodes(): Loading"));
    for (uint32_t uid : {99, 99, 98}) ASSERT_TRUE(send_datagram(header(32, uid).b, port));
    for (uint8_t type : {35, 200, 200}) ASSERT_TRUE(send_datagram(header(type, 99).b, port));
    ControlClient c(s.cfg.ctrl_port());
    ASSERT_TRUE(c.send("hello\n") && d.wait_for("MSG (ignored)"));
    ASSERT_TRUE(c.send("store_json|1|apps/|cfg.json|{}\n"));
    d.signal(SIGSTOP);
    const size_t flood = d.mark();
    for (int i = 0; i < 1000; ++i) ASSERT_TRUE(send_datagram(header(32, 99, 206).b, port));
    const long long dropped = udp_drops(port);
    ASSERT_GT(dropped, 0);
    d.signal(SIGCONT);
    // Only a drained queue is sure to take the next two, both with the count.
    for (size_t m = d.mark(); d.matching("#1", flood).size() < size_t(1000 - dropped); m = d.mark())
        ASSERT_TRUE(d.wait_for_after(m, "#1"));
    ASSERT_TRUE(send_datagram(header(32, 99, 206).b, port) &&
                send_datagram(header(201, 99).b, port));
    ASSERT_TRUE(d.wait_for("Received unknown header type 201", 60s));
    ASSERT_TRUE(d.wait_for_after(d.mark(), "stats(): TX:") && d.wait_for_after(d.mark(), "RX:"));
    const std::string file = read_file(s.dir / "m/corvald.prom");
    const std::pair<const char*, long long> want[] = {
        {"corvald_datagrams_received_total{type=\"heartbeat\"}", 3},
        {"corvald_datagrams_sent_total{type=\"st_json\"}", 1},
        {"corvald_datagrams_dropped_total{reason=\"malformed\"}", 1},
        {"corvald_datagrams_dropped_total{reason=\"short\"}", 1001 - dropped},
        {"corvald_datagrams_dropped_total{reason=\"kernel\"}", dropped},
        {"corvald_datagrams_dropped_total{reason=\"unknown_type\"}", 3},
        {"corvald_lock_timeouts_total{kind=\"node\"}", 2},
        {"corvald_store_errors_total", 1},
        {"corvald_control_connections_total", 1},
        {"corvald_control_commands_total{command=\"store_json\"}", 1},
        {"corvald_documents_stored_total", 1},
        {"corvald_control_commands_total{command=\"ignored\"}", 1}};
    for (const auto& [name, n] : want) EXPECT_EQ(sample(file, name), n) << name << "\n" << file;

    // Three reports after the directory went: one line for all.
    ASSERT_EQ(std::rename((s.dir / "m").c_str(), (s.dir / "gone").c_str()), 0);
    const size_t m = d.mark();
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(d.wait_for_after(d.mark(), "RX:"));
    EXPECT_EQ(d.matching("metrics", m),
              (std::vector<std::string>{"error: metrics_report(): "
                                        "Failed to write metrics file " +
                                        s.dir / "m/corvald.prom: No such file or directory"}));

    if (std::system("which promtool prometheus-node-exporter curl >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "promtool, prometheus-node-exporter or curl missing (tools/deps check)";
    EXPECT_EQ(run_to_exit("/bin/sh", {"-c", "promtool check metrics"}, file).status, 0);
    // The last file written, in the directory's new place, through a collector.
    const char* scrape = R"(export D="$0" A="$1"; sh -c 'echo $$ >"$D/ne"; exec \
      prometheus-node-exporter --collector.disable-defaults --collector.textfile \
      --collector.textfile.directory="$D/gone" --web.listen-address="$A"' 2>&1 | { grep -q -m1 \
      'Listening on'; curl -s "http://$A/metrics"; kill $(cat "$D/ne"); })";
    const std::string addr = "127.0.0.1:" + std::to_string(free_port());
    const RunResult r = run_to_exit("/bin/sh", {"-c", scrape, s.dir.path(), addr});
    EXPECT_EQ(sample(r.out, "corvald_store_errors_total"), 1) << r.out;
    EXPECT_EQ(sample(r.out, "node_textfile_scrape_error"), 0) << r.out;
}

// 0 and "ok" for a configuration that works here, 1 and a line per value
// that cannot, 2 and the daemon's own message for one it refuses.
TEST(Metrics, CheckConfigStatuses) {
    SeedStore s;
    const std::string good = s.conf();
    s.cfg.values["local_nodes"] = "gone";
    s.cfg.values["metrics_file"] = "no/m.prom";
    s.cfg.values["bind_interface"] = "nosuch0";
    s.cfg.values["path_lock_timeout_ms"] = "x";
    const std::string bad = s.cfg.write(s.dir, "bad.conf");
    const std::string broken = s.dir.write("broken.conf", "ping_interval = 3601\n");
    // Each row: the status, standard output, "|", standard error.
    const std::pair<std::vector<std::string>, std::string> rows[] = {
        {{"check-config", good}, "0 " + good + ": ok\n|"},
        {{"-C", bad, "check-config"},
         "1 warning: local_nodes: gone: No such file or directory\nwarning: metrics_file: "
         "no/m.prom: its directory is missing\nwarning: bind_interface: nosuch0: no such "
         "interface on this host\nwarning: path_lock_timeout_ms: 0: a document held elsewhere "
         "is given up at once\n|"},
        {{"check-config", broken},
         "2 |error: config_load(): Incorrect ping_interval value: 3601\n"},
        {{"--version"}, "0 corvalctl " CORVALD_VERSION "\n|"}};
    for (const auto& [args, want] : rows) {
        const RunResult r = run_to_exit(CORVALCTL_BIN, args);
        EXPECT_EQ(std::to_string(r.status) + " " + r.out + "|" + r.err, want);
    }
}

}  // namespace
}  // namespace corvald::test
