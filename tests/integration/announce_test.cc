// The daemon's own announcements through the real binary: what it sends for
// the local nodes of a store, byte for byte, and when.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "support/daemon.h"
#include "support/temp_dir.h"
#include "support/udp.h"

namespace corvald::test {
namespace {

const std::string kPlain = "5f3a9c0e1b2d47";  // the seed's VDisks; the snapshot sorts first
const std::string kSnap = "0c71e2aa9f3b10";

// Expected datagrams, written from the record layouts (offsets and widths),
// not from the daemon's structures. Numbers are little-endian.
struct Golden {
    std::string b;
    explicit Golden(size_t n) : b(n, '\0') {}
    Golden& num(size_t off, uint64_t v, int width) {
        for (int i = 0; i < width; ++i) b[off + i] = static_cast<char>(v >> (8 * i));
        return *this;
    }
    Golden& text(size_t off, const std::string& s) {
        b.replace(off, s.size(), s);
        return *this;
    }
};

// The seed's Node/1 header under type (version 1.8 unless minor says else).
Golden seed_header(size_t len, uint8_t type, uint8_t minor = 8) {
    Golden g(len);
    g.num(0, 1, 1).num(1, minor, 1).num(2, type, 1).num(3, 2, 1).num(4, 1, 4);
    g.text(8, "CORVAL").text(40, "Demo Node").num(72, 81920, 4).num(76, 37, 4);
    g.text(80, "1.8.0").text(104, "DEMO-0001").text(168, "0:0:1:0");
    g.num(200, 102400, 4).num(204, 3, 1).num(205, 1, 2);
    return g;
}

// One seed VDisk block at off (one member, node 1; one frontend,
// 127.0.0.1) with generation count gen encoded for minor.
void seed_vdisk(Golden& g, size_t off, bool snap, unsigned gen, uint8_t minor) {
    char two[3];
    std::snprintf(two, sizeof two, "%02u", gen % 100);
    g.text(off + 4, snap ? kSnap : kPlain).text(off + 18, two);
    g.text(off + 20, snap ? "demo disk snap" : "demo disk");
    if (minor >= 8) g.num(off + 48, ((gen & 0xff) << 8) | ((gen >> 8) & 0xff), 2);
    g.num(off + 50, 512, 4).num(off + 62, 2097152, 8).num(off + 70, 1, 8);
    if (snap) {
        g.num(off + 78, 26, 1).num(off + 79, 11, 1).num(off + 80, 23, 2).num(off + 82, 9, 1);
        g.num(off + 83, 30, 1).text(off + 85, kPlain);
    } else {
        g.text(off + 78, "the demo's plain disk");
    }
    g.num(off + 110, 1, 1).num(off + 111, 3260, 2).num(off + 113, 1, 2).num(off + 116, 1, 1);
    g.num(off + 117, 64, 2).num(off + 119, snap ? 1 : 0, 2).num(off + 121, 1, 2);
    g.num(off + 123, 1, 2).num(off + 125, 1, 4).num(off + 129, 0x7f000001, 4);
}

std::string seed_ping(unsigned gen = 1, uint8_t minor = 8) {
    Golden g = seed_header(207 + 2 * 133, 4, minor);
    seed_vdisk(g, 207, false, gen, minor);  // plain before snapshot
    seed_vdisk(g, 340, true, gen, minor);
    return g.b;
}

// A store copied from the seed, a configuration whose unicast hosts are the
// given sinks' addresses, and helpers to change the copy.
struct SeedStore {
    TempDir dir;
    TestConfig cfg{dir};
    explicit SeedStore(const std::string& local_nodes = "1\n",
                       const std::string& hosts = "127.0.0.2\n") {
        std::string cmd = "cp -a " CORVALD_SOURCE_DIR "/etc/local/seed " + db() +
                          " && mkdir -p " + db() + "/locks";
        EXPECT_EQ(std::system(cmd.c_str()), 0);
        dir.write("local_nodes", local_nodes);
        dir.write("unicast_hosts", hosts);
        cfg.values["ping_interval"] = "3600";
        cfg.values["heartbeat_interval"] = "3600";
    }
    std::string db() const { return dir / "db"; }
    void write(const std::string& rel, const std::string& text) { dir.write("db/" + rel, text); }
    // Node/<to> as a copy of Node/1, also as a member of both VDisks.
    void clone_node(int to) {
        std::string t = std::to_string(to), cmd = "cp -a " + db() + "/Node/1 " + db() + "/Node/" + t;
        for (const std::string& v : {kPlain, kSnap})
            cmd += " && cp -a " + db() + "/VDisk/" + v + "/memberinfo/1 " + db() + "/VDisk/" + v +
                   "/memberinfo/" + t;
        EXPECT_EQ(std::system(cmd.c_str()), 0);
    }
    void sh(const std::string& cmd) { EXPECT_EQ(std::system(("cd " + db() + " && " + cmd).c_str()), 0); }
    std::string conf() { return cfg.write(dir); }
};

// (type, node, length) of a datagram.
using Sent = std::tuple<int, int, size_t>;
Sent sent(const std::string& d) {
    return {static_cast<uint8_t>(d[2]), static_cast<uint8_t>(d[4]), d.size()};
}

TEST(Announce, SeedStoreSendsItsNodeByteForByte) {
    SeedStore s;
    UdpSink sink("127.0.0.2", s.cfg.bind_port());
    Daemon d({"-dd", "-C", s.conf()}, s.dir);
    Golden ds = seed_header(294, 16);
    ds.text(207, "ds01").text(221, "demo store").text(253, "one-host demo").num(285, 512, 4);
    ds.num(289, 1, 2).num(291, 1, 2);
    Golden aux = seed_header(236, 35);
    aux.num(208, 28, 4).num(212, 20480, 4).num(216, 2, 4).num(220, 2, 4).num(224, 64, 4);
    aux.num(228, 16384, 4).num(232, 9216, 4);
    EXPECT_EQ(sink.next(), ds.b);
    EXPECT_EQ(sink.next(), aux.b);
    EXPECT_EQ(sink.next(), seed_ping());
    ASSERT_TRUE(d.wait_for("info: send_pings(): Send PING 473B from Node 1"));
    EXPECT_EQ(d.matching("send_pings(): Send"),
              (std::vector<std::string>{"info: send_pings(): Send DS_PING 294B from Node 1 Datastore ds01",
                                        "info: send_pings(): Send AUX_PING 236B from Node 1",
                                        "info: send_pings(): Send PING 473B from Node 1"}));
    EXPECT_TRUE(d.matching("error:").empty());
}

// Node 2 speaks version 1.7 with generation count 305; the others each
// lack one piece of their store.
TEST(Announce, EachNodeAsItsStoreAllowsAndItsVersionSays) {
    SeedStore s("1\n2\n3\n4\n5\n");
    for (int n : {2, 3, 4, 5}) s.clone_node(n);
    s.sh("echo v1.7 > Node/2/version && for v in VDisk/*; do echo 305 >"
         " $v/memberinfo/2/membership_gen_count; done && echo nods > Node/3/datastoremember &&"
         " ln -s ../../../VDisk/gone Node/3/vdisks/gone && rm Node/4/datastoremember"
         " Node/4/vdisks/* && rm Node/5/datastoremember");
    UdpSink sink("127.0.0.2", s.cfg.bind_port());
    Daemon d({"-dd", "-C", s.conf()}, s.dir);
    std::vector<std::string> got;
    for (int i = 0; i < 12; ++i) got.push_back(sink.next().value_or(std::string(8, '\0')));
    std::vector<Sent> kinds;
    for (const auto& g : got) kinds.push_back(sent(g));
    EXPECT_EQ(kinds, (std::vector<Sent>{{16, 1, 294}, {35, 1, 236}, {4, 1, 473},  // whole
                                       {16, 2, 294}, {35, 2, 236}, {4, 2, 473},  // 1.7
                                       {35, 3, 236},                  // no data store, VDisk gone
                                       {16, 4, 207}, {35, 4, 236}, {4, 4, 207},  // bare node
                                       {16, 5, 207}, {35, 5, 236}}));
    Golden v17(0);
    v17.b = seed_ping(305, 7);
    v17.num(4, 2, 4);  // the membership lists still name node 1 only
    EXPECT_EQ(got[5], v17.b);
    EXPECT_EQ(sent(sink.next().value_or(std::string(8, '\0'))), Sent(4, 5, 473));
    ASSERT_TRUE(d.wait_for("Send PING 473B from Node 5"));
    EXPECT_EQ(d.matching("error:"),
              (std::vector<std::string>{
                  "error: fd_open(): open(" + s.db() + "/Datastore/nods): No such file or directory",
                  "error: fd_open(): open(" + s.db() + "/VDisk/gone): No such file or directory",
                  "error: send_pings(): PING from Node 3 not sent due to VDisk gone error",
                  "error: send_pings(): Local node 5 not part of any data store but references vdisks!?"}));
}

TEST(Announce, CountsPerDestinationAndPingsAgainOnSIGUSR1) {
    SeedStore s("1\n", "127.0.0.2\n127.0.0.4\n");
    s.cfg.values["stats_interval"] = "0";
    UdpSink a("127.0.0.2", s.cfg.bind_port()), b("127.0.0.4", s.cfg.bind_port());
    Daemon d({"-dd", "-C", s.conf()}, s.dir);
    for (UdpSink* sink : {&a, &b})
        for (int i = 0; i < 3; ++i) EXPECT_TRUE(sink->next());
    const std::string first = "TX: ALL=6/6 PING=2/2 DS_PING=2/2 AUX_PING=2/2 SV_PING=0/0 "
                              "VDISK_DEL=0/0 HEARTBEAT=0/0 ST_JSON=0/0 ";
    ASSERT_TRUE(d.wait_for("notice: stats(): " + first));
    ASSERT_TRUE(d.wait_handler(SIGUSR1));
    size_t m = d.mark();
    d.signal(SIGUSR1);
    EXPECT_TRUE(d.wait_for_after(m, "TX: ALL=6/12 PING=2/4 DS_PING=2/4 AUX_PING=2/4 "));
    EXPECT_EQ(sent(a.next().value_or(std::string(8, '\0'))), Sent(16, 1, 294));
}

TEST(Announce, HeartbeatsAndPingsOnEveryPassWithIntervalZero) {
    SeedStore s;
    s.cfg.values["ping_interval"] = "0";
    s.cfg.values["heartbeat_interval"] = "0";
    UdpSink sink("127.0.0.2", s.cfg.bind_port());
    Daemon d({"-dd", "-C", s.conf()}, s.dir);
    ASSERT_TRUE(d.wait_for("info: send_heartbeats(): Send HEARTBEAT 207B from Node 1"));
    size_t m = d.mark();
    EXPECT_TRUE(d.wait_for_after(m, "Send PING 473B from Node 1"));
    std::string hb;
    for (int i = 0; i < 200 && hb.empty(); ++i) {
        std::string got = sink.next().value_or("");
        if (got.size() > 2 && got[2] == 32) hb = got;
    }
    EXPECT_EQ(hb, seed_header(207, 32).b);
}

// A PING that ends exactly at msg_buffer_size is built (and then refused
// by the kernel as too long for UDP); one byte less of buffer is Oversized.
TEST(Announce, OversizedBoundaryIsTheBufferSize) {
    for (int size : {66541, 66540}) {
        SCOPED_TRACE(size);
        SeedStore s;
        // 473 bytes and 16517 more members of the plain VDisk: 66541 bytes.
        std::string ids;
        for (int i = 2; i < 2 + 16517; ++i) ids += std::to_string(i) + "\n";
        s.write("VDisk/" + kPlain + "/membership", "1\n" + ids);
        s.cfg.values["msg_buffer_size"] = std::to_string(size);
        Daemon d({"-dd", "-C", s.conf()}, s.dir);
        if (size == 66541) {
            EXPECT_TRUE(d.wait_for("info: send_pings(): Send PING 66541B from Node 1"));
            EXPECT_TRUE(d.wait_for("error: xmit_msg(): sendto(127.0.0.2:" +
                                   std::to_string(s.cfg.bind_port()) + ", 66541): Message too long"));
        } else {
            EXPECT_TRUE(d.wait_for("error: send_pings(): Oversized PING from Node 1"));
        }
    }
}

}  // namespace
}  // namespace corvald::test
