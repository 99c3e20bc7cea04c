// Three hosts in network namespaces (as in cluster_netns_test) moved from
// unsigned to signed-only traffic and through a key rotation host by host,
// every peer's heartbeat record moving on after each step; then a fourth
// namespace replays, alters and forges datagrams naming their nodes, and no
// store changes.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "support/daemon.h"
#include "support/netns.h"
#include "support/seed_store.h"
#include "support/wire.h"
#include "util/unique_fd.h"

namespace corvald::test {
namespace {

const std::string K1 = "1 " + std::string(64, '1') + "\n", K2 = "2 " + std::string(64, '2') + "\n";

TEST(AuthCluster, RolloutAndRotationLoseNoHeartbeatAndForgeriesChangeNothing) {
    Box bridge, host[4];
    if (bridge.answer != "netns" || run_ip(bridge.pid, "-V") != 0)
        GTEST_SKIP() << "no network namespace or ip tool here: " << bridge.answer;
    ASSERT_TRUE(make_bridge(bridge));
    const std::string addr[4] = {"198.18.0.1", "198.18.0.2", "198.18.0.3", "198.18.0.4"};
    const int port = free_port();
    std::vector<std::unique_ptr<SeedStore>> store;
    std::unique_ptr<Daemon> daemon[3];
    for (int i = 0; i < 4; ++i) ASSERT_TRUE(plug(bridge, host[i], addr[i] + "/15"));
    auto start = [&](int i, const std::string& mode, const char* pings = "1") {
        if (daemon[i]) {
            daemon[i]->signal(SIGTERM);
            EXPECT_EQ(daemon[i]->wait_exit(), 0);
        }
        auto& c = store[i]->cfg.values;
        c["auth_mode"] = mode, c["ping_interval"] = pings;
        ASSERT_TRUE(in_netns(host[i].pid, [&] {
            daemon[i] = std::make_unique<Daemon>(std::vector<std::string>{"-d", "-C", store[i]->conf()},
                                                 store[i]->dir);
        }));
    };
    for (int i = 0; i < 3; ++i) {
        auto& s = *store.emplace_back(std::make_unique<SeedStore>(std::to_string(i + 1) + "\n", ""));
        auto& c = s.cfg.values;
        c["bind_interface"] = "eth1", c["bind_port"] = std::to_string(port);
        c["heartbeat_interval"] = c["stats_interval"] = "1";
        c["unicast_mode"] = "0", c["multicast_address"] = "239.18.0.77";
        c["auth_key_file"] = s.dir.write("keys", K1);
        ::chmod(c["auth_key_file"].c_str(), 0600);
        if (i < 2) {
            s.clone_node(2);
            s.sh("for v in VDisk/*; do printf '1\\n2\\n' > $v/membership; done");
        } else {
            s.sh("rm -r VDisk/* Datastore/* Node/1/vdisks/* Node/1/datastoremember && mv Node/1 Node/3");
        }
        start(i, "off");
    }
    // Every host's record of every other node's lastping changes.
    auto beat = [&] {
        auto lastpings = [&] {
            std::vector<std::string> v;
            for (int i = 0; i < 3; ++i)
                for (int j = 1; j <= 3; ++j)
                    if (j != i + 1) v.push_back(look(store[i]->db() + "/Node/" + std::to_string(j) + "/lastping"));
            return v;
        };
        const std::vector<std::string> before = lastpings();
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        auto moved = [&] {
            std::vector<std::string> now = lastpings();
            for (size_t k = 0; k < now.size(); ++k)
                if (now[k] == before[k] || now[k] == "<missing>") return false;
            return true;
        };
        while (!moved() && std::chrono::steady_clock::now() < deadline)
            for (auto& d : daemon) d->wait_for("\n", std::chrono::milliseconds(20));
        EXPECT_TRUE(moved());
    };
    beat();
    for (const char* mode : {"accept", "sign", "require"})
        for (int i = 0; i < 3; ++i) start(i, mode), beat();
    for (const std::string& keys : {K1 + K2, K2 + K1, K2}) {
        for (int i = 0; i < 3; ++i) {
            const size_t mark = daemon[i]->mark();
            ::chmod(store[i]->dir.write("keys", keys).c_str(), 0600);
            daemon[i]->signal(SIGHUP);
            EXPECT_TRUE(daemon[i]->wait_for_after(mark, "auth_reload_keys(): Loaded"));
            beat();
        }
    }
    for (auto& d : daemon) EXPECT_EQ(d->matching("Dropped datagram"), std::vector<std::string>{});

    // Announced once at the start and then only heartbeats: a forged change
    // would stay. The forger hears a signed datagram of node 1 and sends it
    // back unchanged and with one bit flipped, then an unsigned PING and
    // VDISK_DELETED naming node 1, to every host. Host 1 never hears its
    // own datagrams, so there the replay passes the sequence check and is
    // refused as a claim of its node from another address.
    for (int i = 0; i < 3; ++i) start(i, "require", "3600");
    beat(), beat();  // a PING's node record is written before its VDisks
    auto tree = [&](int i) {
        Tree t = snapshot(store[i]->db());
        std::erase_if(t, [](const auto& e) { return e.first.starts_with("locks/"); });
        return t;
    };
    std::vector<Tree> before;
    for (int i = 0; i < 3; ++i) before.push_back(tree(i));
    ASSERT_TRUE(in_netns(host[3].pid, [&] {
        UniqueFd so(::socket(AF_INET, SOCK_DGRAM, 0));
        sockaddr_in sa = {AF_INET, htons(port), {INADDR_ANY}, {}};
        ip_mreq mr = {{inet_addr("239.18.0.77")}, {inet_addr(addr[3].c_str())}};
        ASSERT_EQ(::bind(so.get(), (sockaddr*)&sa, sizeof sa), 0);
        ASSERT_EQ(::setsockopt(so.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &mr, sizeof mr), 0);
        std::string heard;
        while (heard.size() < 8 || heard[4] != 1) {
            heard.resize(65536);
            heard.resize(std::max<ssize_t>(::recv(so.get(), heard.data(), 65536, 0), 0));
        }
        std::string flipped = heard;
        flipped[20] ^= 4;
        for (int i = 0; i < 3; ++i) {
            sa.sin_addr.s_addr = inet_addr(addr[i].c_str());
            for (const std::string& d : {heard, flipped, header(4, 1).demo_node().b,
                                         header(34, 1).demo_node().vdisk_deleted(1, kPlain).b})
                ASSERT_EQ(::sendto(so.get(), d.data(), d.size(), 0, (sockaddr*)&sa, sizeof sa),
                          ssize_t(d.size()));
        }
    }));
    for (int i = 0; i < 3; ++i) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        long long n[5] = {};
        auto counted = [&] {
            std::vector<std::string> l = daemon[i]->matching("DROP: ");
            return !l.empty() && std::sscanf(l.back().c_str(), "%*[^=]=%*d/%lld %*[^=]=%*d/%lld %*[^=]=%*d/%lld %*[^=]=%*d/%lld %*[^=]=%*d/%lld",
                                             &n[0], &n[1], &n[2], &n[3], &n[4]) == 5 &&
                   n[0] == 2 && n[1] == 0 && n[2] == 1 && n[3] == (i > 0) && n[4] == (i == 0);
        };
        while (!counted() && std::chrono::steady_clock::now() < deadline)
            daemon[i]->wait_for("\n", std::chrono::milliseconds(20));
        EXPECT_TRUE(counted()) << i << ": " << n[0] << n[1] << n[2] << n[3] << n[4];
        EXPECT_EQ(show(changes(before[i], tree(i))), "") << i;
        // One warning a minute per source: the first drop's.
        EXPECT_EQ(daemon[i]->matching("Dropped datagram"),
                  std::vector<std::string>{"warn: controller_thread_loop(): Dropped datagram from "
                                           "198.18.0.4: " + std::string(i ? "replayed (replay)" :
                                           "claims local node 1 (foreign_claim)")});
    }
}

}  // namespace
}  // namespace corvald::test
