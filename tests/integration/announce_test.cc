// The daemon's own announcements through the real binary: what it sends for
// the local nodes of a store, byte for byte, and when.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "support/daemon.h"
#include "support/seed_store.h"
#include "support/udp.h"
#include "support/wire.h"

namespace corvald::test {
namespace {

// The seed's Node/1 header under type (version 1.8 unless minor says else).
Golden seed_header(size_t len, uint8_t type, uint8_t minor = 8) {
    Golden g = header(type, 1, len, 1, minor);
    g.num(3, 2, 1).text(8, "CORVAL").text(40, "Demo Node").num(72, 81920, 4).num(76, 37, 4);
    g.text(80, "1.8.0").text(104, "DEMO-0001").text(168, "0:0:1:0");
    g.num(200, 102400, 4).num(204, 3, 1).num(205, 1, 2);
    return g;
}

// The seed's PING of node 1 (each VDisk with one member, node 1, and one
// frontend, 127.0.0.1) with generation count gen encoded for minor.
std::string seed_ping(unsigned gen = 1, uint8_t minor = 8) {
    Golden g = seed_header(207, 4, minor);
    for (bool snap : {false, true}) {  // plain before snapshot
        VDiskBlock v(snap ? kSnap : kPlain, {1}, {0x7f000001}, snap ? kPlain : "");
        v.gen = gen, v.name = snap ? "demo disk snap" : "demo disk";
        g.vdisk(v);
    }
    return g.b;
}

// Node 1 is the seed's own, node 2 speaks version 1.7 with generation count
// 305, the others each lack one piece of their store. The start-up round,
// then (heartbeat_interval 0: from the third second on, every pass) the
// heartbeats.
TEST(Announce, EachNodeAsItsStoreAllowsAndItsVersionSays) {
    SeedStore s("1\n2\n3\n4\n5\n");
    s.cfg.values["heartbeat_interval"] = "0";
    for (int n : {2, 3, 4, 5}) s.clone_node(n);
    s.sh(
        "echo v1.7 > Node/2/version && for v in VDisk/*; do echo 305 >"
        " $v/memberinfo/2/membership_gen_count; done && echo nods > Node/3/datastoremember &&"
        " ln -s ../../../VDisk/gone Node/3/vdisks/gone && rm Node/4/datastoremember"
        " Node/4/vdisks/* && rm Node/5/datastoremember");
    UdpSink sink("127.0.0.2", s.cfg.bind_port());
    Daemon d({"-d", "-C", s.conf()}, s.dir);
    std::vector<std::string> got;
    std::string kinds;  // "type/node/length" of each
    for (int i = 0; i < 14; ++i) {
        const std::string& g = got.emplace_back(sink.next().value_or(std::string(8, '\0')));
        kinds += std::to_string(uint8_t(g[2])) + "/" + std::to_string(uint8_t(g[4])) + "/" +
                 std::to_string(g.size()) + " ";
    }
    EXPECT_EQ(
        kinds,
        "16/1/294 35/1/236 4/1/473 16/2/294 35/2/236 4/2/473 "  // whole; 1.7
        "35/3/236 "                                             // no data store, VDisk gone
        "16/4/207 35/4/236 4/4/207 16/5/207 35/5/236 4/5/473 32/1/207 ");  // bare; VDisks without
                                                                           // DS; heartbeat
    Golden aux = seed_header(236, 35);
    aux.num(208, 28, 4).num(212, 20480, 4).num(216, 2, 4).num(220, 2, 4).num(224, 64, 4);
    aux.num(228, 16384, 4).num(232, 9216, 4);
    EXPECT_EQ(got[0], seed_header(207, 16).datastore("ds01", "demo store", "one-host demo").b);
    EXPECT_EQ(got[1], aux.b);
    EXPECT_EQ(got[2], seed_ping());
    Golden v17(0);
    v17.b = seed_ping(305, 7);
    v17.num(4, 2, 4);  // the membership lists still name node 1 only
    EXPECT_EQ(got[5], v17.b);
    EXPECT_EQ(got[13], seed_header(207, 32).b);
    ASSERT_TRUE(d.wait_for("info: send_heartbeats(): Send HEARTBEAT 207B from Node 1"));
    const std::vector<std::string> sends = d.matching("send_pings(): Send");
    EXPECT_EQ(std::vector(sends.begin(), sends.begin() + 3),
              (std::vector<std::string>{
                  "info: send_pings(): Send DS_PING 294B from Node 1 Datastore ds01",
                  "info: send_pings(): Send AUX_PING 236B from Node 1",
                  "info: send_pings(): Send PING 473B from Node 1"}));
    EXPECT_EQ(
        d.matching("error:"),
        (std::vector<std::string>{
            "error: fd_open(): open(" + s.db() + "/Datastore/nods): No such file or directory",
            "error: fd_open(): open(" + s.db() + "/VDisk/gone): No such file or directory",
            "error: send_pings(): PING from Node 3 not sent due to VDisk gone error",
            "error: send_pings(): Local node 5 not part of any data store but references "
            "vdisks!?"}));
}

// A PING that ends exactly at msg_buffer_size is built (and then refused
// by the kernel as too long for UDP); one byte less of buffer is Oversized.
TEST(Announce, OversizedBoundaryIsTheBufferSize) {
    // 473 bytes and 16517 more members of the plain VDisk: 66541 bytes.
    std::string ids;
    for (int i = 2; i < 2 + 16517; ++i) ids += std::to_string(i) + "\n";
    std::vector<std::unique_ptr<SeedStore>> stores;
    std::vector<std::unique_ptr<Daemon>> daemons;
    for (int size : {66541, 66540}) {
        SeedStore& s = *stores.emplace_back(std::make_unique<SeedStore>());
        s.write("VDisk/" + kPlain + "/membership", "1\n" + ids);
        s.cfg.values["msg_buffer_size"] = std::to_string(size);
        daemons.push_back(
            std::make_unique<Daemon>(std::vector<std::string>{"-d", "-C", s.conf()}, s.dir));
    }
    EXPECT_TRUE(daemons[0]->wait_for("info: send_pings(): Send PING 66541B from Node 1"));
    EXPECT_TRUE(daemons[0]->wait_for(
        "error: xmit_msg(): sendto(127.0.0.2:" + std::to_string(stores[0]->cfg.bind_port()) +
        ", 66541): Message too long"));
    EXPECT_TRUE(daemons[1]->wait_for("error: send_pings(): Oversized PING from Node 1"));
}

}  // namespace
}  // namespace corvald::test
