// A store with entries planted in it by a hostile or broken local program:
// links that lead out of the store, a FIFO where an attribute file belongs.
// Datagrams and commands that reach them change nothing outside the store,
// and the daemon goes on serving.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/control_client.h"
#include "support/daemon.h"
#include "support/seed_store.h"
#include "support/store_builder.h"
#include "support/udp.h"
#include "support/wire.h"

namespace corvald::test {
namespace {

TEST(Confine, PlantedLinksAndFifosLeadNowhere) {
    SeedStore s;
    s.clone_node(51);
    UdpSink sink("127.0.0.2", s.cfg.bind_port());
    const std::string out = s.dir / "sentinel";
    ASSERT_EQ(::mkdir(out.c_str(), 0755), 0);
    s.dir.write("sentinel/victim", "keep\n");
    s.dir.write("sentinel/x.json", "keep\n");
    ASSERT_EQ(::symlink(out.c_str(), (s.db() + "/Node/50").c_str()), 0);
    ASSERT_EQ(::unlink((s.db() + "/Node/51/lastping").c_str()), 0);
    ASSERT_EQ(::symlink((out + "/victim").c_str(), (s.db() + "/Node/51/lastping").c_str()), 0);
    ASSERT_EQ(::mkdir((s.db() + "/v2").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("../../sentinel", (s.db() + "/v2/apps").c_str()), 0);
    ASSERT_EQ(::unlink((s.db() + "/Node/1/freespace").c_str()), 0);
    ASSERT_EQ(::mkfifo((s.db() + "/Node/1/freespace").c_str(), 0644), 0);
    const auto before = snapshot(out);

    Daemon d({"-dd", "-C", s.conf()}, s.dir);
    EXPECT_TRUE(d.wait_for("Not a regular file: freespace"));
    EXPECT_TRUE(d.wait_for("Failed to load " + s.db() + "/Node/1/freespace"));
    // A peer's document stored and one deleted under the link in v2.
    const Golden doc = header(36, 51, 353).text(209, "51").text(225, "apps/");
    for (const std::string& dg : {header(16, 50).demo_node().datastore("ds01").b,
                                  header(35, 50).demo_node().aux().b,
                                  header(4, 50).demo_node().vdisk({"vd50", {50}}).b,
                                  header(32, 51).b, Golden(doc).text(289, "y.json").b + "{}",
                                  Golden(doc).num(2, 37, 1).text(289, "x.json").b})
        ASSERT_TRUE(send_datagram(dg, s.cfg.bind_port()));
    ControlClient c(s.cfg.ctrl_port());
    ASSERT_TRUE(c.send("delete_json|1|apps/|x.json|{}\n"));
    // Handled in order: once the marker behind them is traced, so are they.
    ASSERT_TRUE(send_datagram(header(5, 999).b, s.cfg.bind_port()));
    ASSERT_TRUE(d.wait_for("debug: hdr_dump(): uid=999"));
    ASSERT_TRUE(d.wait_for("MSG from CTRL client " + c.id()));
    EXPECT_EQ(snapshot(out), before);
    EXPECT_FALSE(d.matching("Too many levels of symbolic links").empty());

    // Still serving: a peer's heartbeat is stored, and a stop ends the run.
    ASSERT_TRUE(send_datagram(header(32, 1).b, s.cfg.bind_port()));
    EXPECT_TRUE(d.wait_for("Update Node 1 set lastping="));
    d.signal(SIGTERM);
    EXPECT_EQ(d.wait_exit(), 0);
}

}  // namespace
}  // namespace corvald::test
