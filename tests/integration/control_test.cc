// The control channel through the real binary: what each command line sends
// and logs, how reads become commands, and the life of the connections (end
// of input, descriptors beyond the select set, shutdown).
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <filesystem>

#include "net/netlib.h"
#include "support/control_client.h"
#include "support/daemon.h"
#include "support/run.h"
#include "support/seed_store.h"
#include "support/udp.h"
#include "support/wire.h"

namespace corvald::test {
namespace {

using Lines = std::vector<std::string>;

// Connects n clients one after another, each once the daemon has logged the
// one before (its listen queue holds 128), kept in *held or else closed.
void connect_all(Daemon& d, int port, std::vector<ControlClient>* held, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        const size_t m = d.mark();
        ControlClient c(port);
        ASSERT_TRUE(d.wait_for_after(m, "CTRL connection from " + c.id()));
        if (held)
            held->push_back(std::move(c));
    }
}

// One daemon on the seed store for every case: the command lines on one
// connection, then a thousand idle clients and some more, then the stop.
TEST(Control, CommandsAndConnectionsFromFirstToLast) {
    // The daemon inherits the soft limit. The hard limit is only ever raised:
    // lowering it would be for good, for every later test of this process.
    rlimit rl;
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &rl), 0);
    rl.rlim_cur = std::max<rlim_t>(rl.rlim_cur, 2 * FD_SETSIZE);
    rl.rlim_max = std::max(rl.rlim_max, rl.rlim_cur);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &rl), 0) << "needs 2 * FD_SETSIZE descriptors";
    SeedStore s;
    s.cfg.values["stats_interval"] = "86400";
    UdpSink sink("127.0.0.2", s.cfg.bind_port());  // else the daemon's own socket receives
    Daemon d({"-d", "-C", s.conf()}, s.dir);
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(sink.next());  // the start-up announcements
    auto open_fds = [fd_dir = "/proc/" + std::to_string(d.child_pid()) + "/fd"] {
        return size_t(std::distance(std::filesystem::directory_iterator(fd_dir), {}));
    };
    // Accepted sockets take the lowest free descriptors: room of them fit.
    const size_t room = FD_SETSIZE - open_fds();

    ControlClient c(s.cfg.ctrl_port());
    ASSERT_TRUE(d.wait_for("controller_thread_loop(): Accepted CTRL connection from " + c.id()));
    // Datagrams as type, length and the first bytes from offset 207 on.
    using Dg = std::tuple<int, size_t, std::string>;
    const Dg aux{35, 236, ""}, ds{16, 294, ""};
    const Dg vdd{34, 225, Golden(0).vdisk_deleted(1, "14-characters!").b};
    const Dg svp{33, 340, header(33, 1).vdisk(VDiskBlock(kPlain, {1}, {0x7f000001})).b.substr(207)};
    const std::string msg = "notice: handle_ctrl_cmd(): MSG from CTRL client " + c.id() + ": ",
                      err = "error: handle_ctrl_cmd(): ", ds_msg = msg + "DS_PING Node=1",
                      ds_sent =
                          "info: send_ds_ping(): Send DS_PING 294B from Node 1 Datastore ds01";
    const std::string aux_sent = "(): Send AUX_PING 236B from Node 1";
    const std::tuple<std::string, Lines, std::vector<Dg>> rows[] = {
        {"single_vdisk_ping 1 " + kPlain + "\r\n",
         {msg + "SINGLE_VDISK_PING Node=1 VDisk=" + kPlain,
          "info: send_single_vdisk_ping(): Send SINGLE_VDISK_PING 340B from Node 1 VDisk " + kPlain,
          "info: send_single_vdisk_ping" + aux_sent},
         {svp, aux}},
        {"DS_PING 1\n", {ds_msg, ds_sent}, {ds}},
        {"vdisk_deleted 1 14-characters!\n",
         {msg + "VDISK_DELETED Node=1 VDisk=14-characters!",
          "info: send_vdisk_deleted(): Send VDISK_DELETED 225B from Node 1 VDisk 14-characters!",
          "info: send_vdisk_deleted" + aux_sent},
         {vdd, aux}},
        {"Vdisk_Deleted 1 15-characters!!\n",
         {msg + "VDISK_DELETED Node=1 VDisk=15-characters!!",
          "error: send_vdisk_deleted(): Oversized VDISK_DELETED from Node 1 VDisk 15-characters!!"},
         {}},
        {"single_vdisk_ping\n", {err + "Missing Node UUID for CTRL single_vdisk_ping"}, {}},
        {"single_vdisk_ping 1\n", {err + "Missing VDisk UUID for CTRL single_vdisk_ping"}, {}},
        {"ds_ping\n", {err + "Missing Node UUID for CTRL ds_ping"}, {}},
        {"vdisk_deleted 1\n", {err + "Missing VDisk UUID for CTRL vdisk_deleted"}, {}},
        {"ds_ping 1 \n", {ds_msg + " "}, {}},  // the node text "1 " is no local node
        {"ds_ping 7\n", {msg + "DS_PING Node=7"}, {}},
        {"ds_pi", {err + "Malformed CTRL MSG ds_pi"}, {}},  // one command in two reads
        {"ng 1\n",
         {"notice: handle_ctrl_cmd(): MSG (ignored) from CTRL client " + c.id() + ": ng 1"},
         {}},
        {"ds_ping 1\nvdisk_deleted 1 x\n", {ds_msg, ds_sent}, {ds}},
    };
    for (const auto& [in, log, sent] : rows) {
        const size_t m = d.mark();
        ASSERT_TRUE(c.send(in));
        ASSERT_TRUE(d.wait_for_after(m, log.back())) << in;
        Lines said;  // without the store's own traces
        for (const std::string& l : d.matching("", m))
            if (l.rfind("info: ", 0) != 0 || l.find("(): Send ") != std::string::npos)
                said.push_back(l);
        EXPECT_EQ(said, log);
        // One datagram too many shifts every later one: the last row sends.
        for (const auto& [type, len, bytes] : sent) {
            std::string got = sink.next().value_or(std::string(207, '\0'));
            const Dg seen(uint8_t(got[2]), got.size(), got.substr(207, bytes.size()));
            EXPECT_EQ(seen, Dg(type, len, bytes)) << in;
        }
    }
    // A data store membership that is no safe name is refused: no DS_PING
    // (the next datagram is corvalctl's, below).
    s.write("Node/1/datastoremember", "..\n");
    const size_t refused = d.mark();
    ASSERT_TRUE(c.send("ds_ping 1\n"));
    ASSERT_TRUE(d.wait_for_after(refused, ds_msg));
    ASSERT_TRUE(c.send("ds_ping 7\n"));  // handled after the one before
    ASSERT_TRUE(d.wait_for_after(refused, msg + "DS_PING Node=7"));
    s.write("Node/1/datastoremember", "ds01\n");
    const size_t before_close = d.mark();
    c.close();
    ASSERT_TRUE(d.wait_for_after(before_close, "Closing CTRL connection from " + c.id()));
    EXPECT_EQ(d.matching(c.id(), before_close),
              (Lines{"notice: controller_thread_loop(): EOF from CTRL client " + c.id(),
                     "notice: CtrlConnFree(): Closing CTRL connection from " + c.id()}));
    // corvalctl writes the same lines, each on a connection of its own: a
    // DS_PING, and a STORE_JSON of the text read from its standard input.
    RunResult r = run_to_exit(CORVALCTL_BIN, {"-C", s.conf(), "ds-ping", "1"});
    EXPECT_EQ(r.out + std::to_string(r.status), "sent: ds_ping 1\n0");
    EXPECT_EQ(sink.next().value_or("").size(), 294u);
    r = run_to_exit(CORVALCTL_BIN, {"-C", s.conf(), "store-json", "1", "a/", "b.json", "-"},
                    "[1]\n");
    EXPECT_EQ(r.out + std::to_string(r.status), "sent: store_json|1|a/|b.json|[1]\n0");
    const std::string json = sink.next().value_or("");
    EXPECT_EQ(json.substr(std::min(json.size(), JSON_TEXT_OFFSET)), "[1]");

    std::vector<ControlClient> held;  // clients that never write
    connect_all(d, s.cfg.ctrl_port(), &held, room + 10);
    // Each one beyond is hung up on before the next is accepted.
    EXPECT_EQ(d.matching(" on descriptor 1024 beyond select() capacity 1024").size(), 10u);
    // Three descriptors come free and serve client after client.
    held.erase(held.begin(), held.begin() + 3);
    connect_all(d, s.cfg.ctrl_port(), nullptr, 20);
    ControlClient last(s.cfg.ctrl_port());
    ASSERT_TRUE(last.send("ds_ping 1\n"));
    ASSERT_TRUE(sink.next());
    EXPECT_EQ(open_fds(), FD_SETSIZE - 2u);  // the held clients and the last
    EXPECT_EQ(d.matching("notice: controller_thread_loop(): EOF from CTRL client ").size(), 26u);

    // Every connection's closing notice once: at its end, or at the shutdown
    // between "Exit..." and the teardown.
    const size_t m = d.mark();
    d.signal(SIGTERM);
    ASSERT_EQ(d.wait_exit(), 0);
    const std::string closing = "notice: CtrlConnFree(): Closing CTRL connection from ";
    EXPECT_EQ(d.matching(closing).size(), room + 34);
    EXPECT_EQ(d.matching("", m).at(room - 1),
              "notice: controller_module_teardown(): Starting shutdown sequence...");
}

}  // namespace
}  // namespace corvald::test
