// The receive path through the real binary: one datagram of each kind from
// 127.0.0.3 to the daemon's UDP port lands in its store (a copy of the seed).
// What each kind does is the in-process receive tables' (unit/receive_test.cc).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/daemon.h"
#include "support/seed_store.h"
#include "support/udp.h"
#include "support/wire.h"

namespace corvald::test {
namespace {

TEST(Receive, EachKindLandsInTheStore) {
    SeedStore s("", "");
    Daemon d({"-dd", "-C", s.conf()}, s.dir);
    ASSERT_TRUE(d.wait_for("BIND UDP"));
    const std::string seed_ping = look(s.db() + "/Node/1/lastping");
    // Each datagram, the store path it changes and what is there after it.
    const struct { std::string dgram, path, after; } rows[] = {
        {header(16, 7).demo_node().datastore("ds01").b, "Datastore/ds01/members/7", "-> ../../../Node/7"},
        {header(4, 7).demo_node().vdisk({"vd7", {7}}).b, "VDisk/vd7/memberinfo/7", "<dir>"},
        {header(33, 7).demo_node().vdisk({kPlain, {1, 7}}).b, "VDisk/" + kPlain + "/membership", "1\n7\n"},
        {header(35, 7).demo_node().aux().b, "Node/7/memavail", "9216\n"},
        {header(34, 1).demo_node().vdisk_deleted(1, kSnap).b, "VDisk/" + kSnap, "<missing>"},
        {header(32, 1).b, "Node/1/lastping", ""},  // renewed
    };
    uint32_t marker = 0;
    for (const auto& [dgram, path, after] : rows) {
        // Datagrams are handled in their order: once the trace of a marker of
        // unknown type sent behind one is there, so is that one's work.
        ASSERT_TRUE(send_datagram(dgram, s.cfg.bind_port()) &&
                    send_datagram(header(5, ++marker).b, s.cfg.bind_port()));
        ASSERT_TRUE(d.wait_for("debug: hdr_dump(): uid=" + std::to_string(marker)));
        const std::string now = look(s.db() + "/" + path);
        EXPECT_TRUE(after.empty() ? now != seed_ping : now == after) << path << ": " << now;
    }
    EXPECT_EQ(look(s.db() + "/Node/7/ipaddr"), "127.0.0.3\n");  // the sender's address
    EXPECT_EQ(d.matching("error:"), std::vector<std::string>(std::size(rows), "error: controller_thread_loop(): Received unknown header type 5"));
}

}  // namespace
}  // namespace corvald::test
