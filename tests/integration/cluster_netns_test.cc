// Three hosts, each a network namespace on one bridge (198.18.0.0/15) with a
// real daemon in multicast mode on a store of its own, all in one group.
// Hosts 1 and 2 each announce their node of the seed (nodes 1 and 2, members
// of the seed's VDisks and data store); host 3 holds only node 3. Each host
// must learn the other hosts' nodes, and host 3 the VDisks with both member
// records, but never hear itself (its own node would take the sender's
// address); then a JSON document handed in on host 1 must reach every host,
// and its withdrawal leave none.
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/control_client.h"
#include "support/daemon.h"
#include "support/netns.h"
#include "support/seed_store.h"

namespace corvald::test {
namespace {

TEST(ClusterHosts, EachLearnsTheOthersAndTheSharedVDiskAndJsonDocumentsReachAll) {
    Box bridge, host[3];
    if (bridge.answer != "netns")
        GTEST_SKIP() << "no network namespace for the test: " << bridge.answer;
    if (run_ip(bridge.pid, "-V") != 0)
        GTEST_SKIP() << "the ip tool (iproute2) is not installed";
    ASSERT_TRUE(make_bridge(bridge));

    const std::string addr[3] = {"198.18.0.1", "198.18.0.2", "198.18.0.3"};
    const std::string port = std::to_string(free_port());
    std::vector<std::unique_ptr<SeedStore>> store;
    std::vector<std::unique_ptr<Daemon>> daemon;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(host[i].answer, "netns");
        ASSERT_TRUE(plug(bridge, host[i], addr[i] + "/15"));
        auto& s =
            *store.emplace_back(std::make_unique<SeedStore>(std::to_string(i + 1) + "\n", ""));
        // A round sent before a peer is up is lost: the next one, a second
        // later, repeats it.
        auto& c = s.cfg.values;
        c["bind_interface"] = "eth1", c["bind_port"] = port, c["ping_interval"] = "1";
        c["unicast_mode"] = "0", c["multicast_address"] = "239.18.0.77";
        if (i < 2) {
            s.clone_node(2);
            s.sh("for v in VDisk/*; do printf '1\\n2\\n' > $v/membership; done");
        } else {
            s.sh(
                "rm -r VDisk/* Datastore/* Node/1/vdisks/* Node/1/datastoremember && "
                "mv Node/1 Node/3");
        }
        ASSERT_TRUE(in_netns(host[i].pid, [&] {
            daemon.push_back(
                std::make_unique<Daemon>(std::vector<std::string>{"-d", "-C", s.conf()}, s.dir));
        }));
    }

    // "<host> <path in its store>": what must be there. Every host learns
    // the other hosts' addresses; host 3 also the VDisks of nodes 1 and 2.
    std::map<std::string, std::string> want;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            want[std::to_string(i + 1) + " Node/" + std::to_string(j + 1) + "/ipaddr"] =
                i == j ? "127.0.0.1\n" : addr[j] + "\n";
    const std::string v = "3 VDisk/" + kPlain + "/";
    want[v + "membership"] = "1\n2\n";
    want[v + "memberinfo/1/frontend"] = want[v + "memberinfo/2/frontend"] = "127.0.0.1\n";
    want[v + "snapshots/" + kSnap] = "-> ../../../VDisk/" + kSnap;
    auto now = [&] {
        std::map<std::string, std::string> got;
        for (const auto& [k, _] : want) got[k] = look(store[k[0] - '1']->db() + "/" + k.substr(2));
        return got;
    };
    // Reading the logs is what lets the daemons go on writing them.
    auto settle = [&] {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (now() != want && std::chrono::steady_clock::now() < deadline)
            for (auto& d : daemon) d->wait_for("\n", std::chrono::milliseconds(20));
        EXPECT_EQ(now(), want);
    };
    settle();
    for (auto& d : daemon) EXPECT_EQ(d->matching("error:"), std::vector<std::string>{});

    // Host 1's control port listens on the loopback of its namespace.
    std::optional<ControlClient> ctrl;
    ASSERT_TRUE(in_netns(host[0].pid, [&] { ctrl.emplace(store[0]->cfg.ctrl_port()); }));
    for (const auto& [cmd, text] : {std::pair{"store_json|1|apps/|cfg.json|[1,2,3]\n", "[1,2,3]"},
                                    std::pair{"delete_json|1|apps/|cfg.json|x\n", "<missing>"}}) {
        ASSERT_TRUE(ctrl->send(cmd));
        for (const char* h : {"1 ", "2 ", "3 "}) want[h + std::string("v2/apps/cfg.json")] = text;
        settle();
    }
}

}  // namespace
}  // namespace corvald::test
