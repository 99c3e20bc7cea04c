// Three hosts, each a network namespace on one bridge (198.18.0.0/15) with a
// real daemon in multicast mode on a store of its own, all in one group.
// Hosts 1 and 2 each announce their node of the seed (nodes 1 and 2, members
// of the seed's VDisks and data store); host 3 holds only node 3. Each host
// must learn the other hosts' nodes, and host 3 the VDisks with both member
// records, but never hear itself (its own node would take the sender's
// address); then a JSON document handed in on host 1 must reach every host,
// and its withdrawal leave none. A watch of host 3's store reports all of
// that, and host 1 going away and coming back. The same hosts then move to
// signed traffic.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <ranges>
#include <string>
#include <vector>

#include "net/auth.h"
#include "support/control_client.h"
#include "support/daemon.h"
#include "support/netns.h"
#include "support/seed_store.h"
#include "support/wire.h"
#include "util/unique_fd.h"

namespace corvald::test {
namespace {

// Three hosts on one bridge, each with a store of the seed and a daemon in
// multicast mode, and a fourth namespace (198.18.0.4) with none. A round
// sent before a peer is up is lost: the next one, a second later, repeats
// it. skip says why the hosts cannot be made here, or is empty.
struct Cluster {
    Box bridge, host[4];
    const std::string addr[4] = {"198.18.0.1", "198.18.0.2", "198.18.0.3", "198.18.0.4"};
    const std::string port = std::to_string(free_port());
    std::unique_ptr<SeedStore> store[3];
    std::unique_ptr<Daemon> daemon[3];
    std::string skip;
    // Settings beyond the common ones go in cfg.
    explicit Cluster(const std::map<std::string, std::string>& cfg = {}) {
        if (bridge.answer != "netns" || run_ip(bridge.pid, "-V") != 0) {
            skip = "no network namespace or no ip tool (iproute2): " + bridge.answer;
            return;
        }
        EXPECT_TRUE(make_bridge(bridge));
        for (int i = 0; i < 4; ++i) EXPECT_TRUE(plug(bridge, host[i], addr[i] + "/15"));
        for (int i = 0; i < 3; ++i) {
            auto& s = *(store[i] = std::make_unique<SeedStore>(std::to_string(i + 1) + "\n", ""));
            auto& c = s.cfg.values;
            c["bind_interface"] = "eth1", c["bind_port"] = port, c["ping_interval"] = "1";
            c["unicast_mode"] = "0", c["multicast_address"] = "239.18.0.77";
            for (const auto& [k, v] : cfg) c[k] = v;
            if (i < 2)
                s.clone_node(2), s.sh("for v in VDisk/*; do printf '1\\n2\\n' > $v/membership; done");
            else
                s.sh("rm -r VDisk/* Datastore/* Node/1/vdisks/* Node/1/datastoremember && mv Node/1 Node/3");
        }
    }
    // (Re)starts host i's daemon on its configuration as it is now. The old
    // runner goes first: it kills whatever runs in the work directory.
    void start(int i) {
        if (daemon[i]) daemon[i]->signal(SIGTERM), daemon[i]->wait_exit(), daemon[i].reset();
        ASSERT_TRUE(in_netns(host[i].pid, [&] {
            daemon[i] = std::make_unique<Daemon>(
                std::vector<std::string>{"-d", "-C", store[i]->conf()}, store[i]->dir);
        }));
    }
};

TEST(ClusterHosts, EachLearnsTheOthersAndTheSharedVDiskAndJsonDocumentsReachAll) {
    using J = nlohmann::json;
    Cluster c(std::map<std::string, std::string>{{"heartbeat_interval", "1"}});
    if (!c.skip.empty())
        GTEST_SKIP() << c.skip;
    // The watch only reads files: it runs outside the namespaces, armed
    // before the hosts come up. Its shell's pid comes first, as events[0]:
    // the watch is killed by it whatever way the test ends.
    std::vector<J> events;
    std::string part;
    const std::string shell = "echo $$; exec " CORVALCTL_BIN " -C " + c.store[2]->conf() + " --json watch";
    std::shared_ptr<FILE> watch(::popen(shell.c_str(), "re"), [&](FILE* f) {
        if (!events.empty() && events[0].is_number()) ::kill(events[0].get<pid_t>(), SIGKILL);
        if (f) ::pclose(f);
    });
    // The index of the first event from `from` on that has want's fields,
    // reading the watch (and the daemons' logs) up to a minute for it; -1 if
    // it did not come.
    auto seen = [&](long from, const J& want) {
        const auto end = std::chrono::steady_clock::now() + 60s;
        while (std::chrono::steady_clock::now() < end) {
            for (size_t i = std::max(from, 1L); i < events.size(); ++i)
                if (J e = events[i]; e.update(want), e == events[i])
                    return long(i);
            for (auto& d : c.daemon) if (d) d->lines();
            pollfd pf = {::fileno(watch.get()), POLLIN, 0};
            char b[4096];
            const ssize_t n = ::poll(&pf, 1, 100) == 1 ? ::read(pf.fd, b, sizeof b) : 0;
            for (part.append(b, std::max<ssize_t>(n, 0)); part.find('\n') != std::string::npos;
                 part.erase(0, part.find('\n') + 1))
                events.push_back(J::parse(part.substr(0, part.find('\n'))));
        }
        return -1L;
    };
    ASSERT_EQ(seen(0, {{"kind", "watch"}, {"store", c.store[2]->db()}, {"event", "started"}}), 1);
    for (int i = 0; i < 3; ++i) c.start(i);
    auto& store = c.store;
    auto& daemon = c.daemon;
    const auto& addr = c.addr;
    const auto& host = c.host;

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
    for (int id : {1, 2}) EXPECT_GT(seen(0, {{"kind", "node"}, {"id", id}, {"event", "joined"}}), 0) << id;
    for (const std::string& u : {kPlain, kSnap})
        EXPECT_GT(seen(0, {{"kind", "vdisk"}, {"uuid", u}, {"event", "created"}}), 0) << u;

    // Host 1's control port listens on the loopback of its namespace.
    std::optional<ControlClient> ctrl;
    ASSERT_TRUE(in_netns(host[0].pid, [&] { ctrl.emplace(store[0]->cfg.ctrl_port()); }));
    for (const auto& [cmd, text] : {std::pair{"store_json|1|apps/|cfg.json|[1,2,3]\n", "[1,2,3]"},
                                    std::pair{"delete_json|1|apps/|cfg.json|x\n", "<missing>"}}) {
        ASSERT_TRUE(ctrl->send(cmd));
        for (const char* h : {"1 ", "2 ", "3 "}) want[h + std::string("v2/apps/cfg.json")] = text;
        settle();
        // Seen before the next change: one batch with both would show neither.
        const char* event = text[0] == '<' ? "deleted" : "stored";
        EXPECT_GT(seen(0, {{"kind", "doc"}, {"document", "apps/cfg.json"}, {"event", event}, {"node", 1}}), 0);
    }

    // Host 1 stops: host 3's record of node 1 goes late after two heartbeats
    // and silent after five, and is back once host 1 runs again.
    daemon[0]->signal(SIGTERM), daemon[0]->wait_exit(), daemon[0].reset();
    auto node1 = [](const char* event) { return J{{"kind", "node"}, {"id", 1}, {"event", event}}; };
    const long late = seen(long(events.size()), node1("late"));
    const long silent = seen(late + 1, node1("silent"));
    EXPECT_TRUE(late > 0 && silent > late) << late << " " << silent;
    c.start(0);
    EXPECT_GT(seen(silent + 1, node1("back")), silent);
}


const std::string K1 = "1 " + std::string(64, '1') + "\n", K2 = "2 " + std::string(64, '2') + "\n";

// The hosts moved from unsigned to signed-only traffic and through a key
// rotation host by host, every peer's heartbeat record moving on after each
// step; then the fourth namespace replays, alters and forges datagrams naming
// their nodes, and no store changes.
TEST(ClusterHosts, RolloutAndRotationLoseNoHeartbeatAndForgeriesChangeNothing) {
    if (!kAuthBuilt) GTEST_SKIP() << "built without libsodium (CORVALD_AUTH)";
    Cluster c({{"heartbeat_interval", "1"}, {"stats_interval", "1"}, {"auth_key_file", "../keys"}});
    if (!c.skip.empty())
        GTEST_SKIP() << c.skip;
    auto keys = [&](int i, const std::string& text) { ::chmod(c.store[i]->dir.write("keys", text).c_str(), 0600); };
    auto start = [&](int i, const char* mode, const char* pings = "1") {
        c.store[i]->cfg.values["auth_mode"] = mode, c.store[i]->cfg.values["ping_interval"] = pings;
        c.start(i);
    };
    for (int i = 0; i < 3; ++i) keys(i, K1), start(i, "off");
    // Waits until every host's record of each other node's lastping has changed.
    auto beat = [&] {
        auto lastpings = [&] {
            std::vector<std::string> v;
            for (int i = 0; i < 9; ++i)
                if (i / 3 != i % 3) v.push_back(look(c.store[i / 3]->db() + "/Node/" + std::to_string(i % 3 + 1) + "/lastping"));
            return v;
        };
        const std::vector<std::string> before = lastpings();
        auto moved = [&] {
            auto now = lastpings();
            return std::ranges::none_of(std::views::iota(0, 6), [&](int k) { return now[k] == before[k]; });
        };
        for (auto end = std::chrono::steady_clock::now() + 30s; !moved() && std::chrono::steady_clock::now() < end;)
            for (auto& d : c.daemon) d->wait_for("\n", 20ms);
        EXPECT_TRUE(moved());
    };
    beat();
    for (const char* mode : {"accept", "sign", "require"})
        for (int i = 0; i < 3; ++i) start(i, mode), beat();
    for (const std::string& text : {K1 + K2, K2 + K1, K2}) {
        for (int i = 0; i < 3; ++i) {
            const size_t mark = c.daemon[i]->mark();
            keys(i, text), c.daemon[i]->signal(SIGHUP);
            EXPECT_TRUE(c.daemon[i]->wait_for_after(mark, std::string("key ") + text[0] + " signs"));
            beat();
        }
    }
    for (auto& d : c.daemon) EXPECT_EQ(d->matching("Dropped datagram"), std::vector<std::string>{});

    // Announced once at the start, then only heartbeats: a forged change
    // would stay. The forger hears a signed datagram of node 1, sends it back
    // unchanged, with one bit flipped and under the retired key's id, then an
    // unsigned PING, VDISK_DELETED, STORE_JSON and DELETE_JSON naming node 1,
    // to every host. Host 1 never hears its own datagrams: there the replay
    // passes the sequence check and is refused as a claim of its node from
    // another address.
    for (int i = 0; i < 3; ++i) start(i, "require", "3600");
    beat(), beat();  // a PING's node record is written before its VDisks
    auto tree = [&](int i) {  // no lock files: they come and go with the heartbeats
        Tree t = snapshot(c.store[i]->db());
        return std::erase_if(t, [](const auto& e) { return e.first.starts_with("locks/"); }), t;
    };
    const Tree before[3] = {tree(0), tree(1), tree(2)};
    ASSERT_TRUE(in_netns(c.host[3].pid, [&] {
        UniqueFd so(::socket(AF_INET, SOCK_DGRAM, 0));
        sockaddr_in sa = {AF_INET, htons(std::stoi(c.port)), {INADDR_ANY}, {}};
        ip_mreq mr = {{inet_addr("239.18.0.77")}, {inet_addr(c.addr[3].c_str())}};
        ASSERT_EQ(::bind(so.get(), (sockaddr*)&sa, sizeof sa), 0);
        ASSERT_EQ(::setsockopt(so.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &mr, sizeof mr), 0);
        std::string heard;
        while (heard.size() < 8 || heard[4] != 1)
            heard.resize(65536), heard.resize(std::max<ssize_t>(::recv(so.get(), heard.data(), 65536, 0), 0));
        std::string flipped = heard, retired = heard;
        flipped[20] ^= 4;
        retired[heard.size() - 49] = 1;  // the trailer's key id: the retired key
        for (int i = 0; i < 3; ++i) {
            sa.sin_addr.s_addr = inet_addr(c.addr[i].c_str());
            for (const std::string& d : {heard, flipped, retired, header(4, 1).demo_node().b,
                                         header(34, 1).demo_node().vdisk_deleted(1, kPlain).b,
                                         header(36, 1).b + json_entry("1", "", "f.json", "{}"),
                                         header(37, 1).b + json_entry("1", "", "f.json", "")})
                ASSERT_EQ(::sendto(so.get(), d.data(), d.size(), 0, (sockaddr*)&sa, sizeof sa), ssize_t(d.size()));
        }
    }));
    for (int i = 0; i < 3; ++i) {
        // The first report after all of them: nothing new since the last one.
        EXPECT_TRUE(c.daemon[i]->wait_for(std::string("DROP: no_trailer=0/4 unknown_key=0/1 bad_tag=0/1 ") +
                                          (i ? "replay=0/1 foreign_claim=0/0" : "replay=0/0 foreign_claim=0/1")));
        EXPECT_EQ(show(changes(before[i], tree(i))), "") << i;
        // One warning a minute per source: the first drop's.
        EXPECT_EQ(c.daemon[i]->matching("Dropped datagram"),
                  std::vector<std::string>{"warn: controller_thread_loop(): Dropped datagram from 198.18.0.4: " +
                                           std::string(i ? "replayed (replay)" : "claims local node 1 (foreign_claim)")});
    }
}

}  // namespace
}  // namespace corvald::test
