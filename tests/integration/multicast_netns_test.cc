// Two hosts, each a network namespace of its own with one veth leg on a
// bridge in a third namespace (198.18.0.0/15). The test makes each host's
// socket inside its namespace exactly as the daemon sets its own up, joined
// to the same group; a datagram one sends to the group must reach the other
// and never come back to the sender.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <string>

#include "net/socket.h"
#include "support/netns.h"
#include "util/unique_fd.h"

namespace corvald::test {
namespace {

constexpr int kPort = 47123;  // any port: the namespaces are new and private
constexpr int kWaitMs = 20000;

// A socket made in the namespace of process `in` the way the daemon makes
// its own on "eth1", joined to group; -1 on failure.
int host_socket(pid_t in, const Host& group) {
    UniqueFd so;
    in_netns(in, [&] {
        struct sockaddr_in if_addr = {}, bind_addr = {};
        bind_addr.sin_family = AF_INET;
        bind_addr.sin_port = htons(kPort);
        if (get_interface_addr("eth1", &if_addr) == 0)
            so.reset(open_socket(&bind_addr));
        if (so && join_mcast_groups(so.get(), &if_addr, HostList{group}) < 0)
            so.reset();
    });
    return so.release();
}

// The next datagram queued on so within wait_ms; "" when none came.
std::string next_datagram(const UniqueFd& so, int wait_ms) {
    struct pollfd p = {so.get(), POLLIN, 0};
    char buf[256];
    ssize_t n = ::poll(&p, 1, wait_ms) == 1 ? ::recv(so.get(), buf, sizeof buf, 0) : -1;
    return n < 0 ? "" : std::string(buf, static_cast<size_t>(n));
}

TEST(MulticastHosts, GroupDatagramReachesTheOtherHostNotTheSender) {
    Box bridge, a, b;
    if (bridge.answer != "netns") {
        GTEST_SKIP() << "no network namespace for the test: " << bridge.answer;
    }
    ASSERT_EQ(a.answer, "netns");
    ASSERT_EQ(b.answer, "netns");
    if (run_ip(bridge.pid, "-V") != 0)
        GTEST_SKIP() << "the ip tool (iproute2) is not installed";

    ASSERT_TRUE(make_bridge(bridge));
    ASSERT_TRUE(plug(bridge, a, "198.18.0.1/15"));
    ASSERT_TRUE(plug(bridge, b, "198.18.0.2/15"));

    Host group;
    ASSERT_EQ(HostInit(&group, "239.18.0.77", kPort), 0);
    UniqueFd sa(host_socket(a.pid, group)), sb(host_socket(b.pid, group));
    ASSERT_TRUE(sa && sb);
    const auto* to = reinterpret_cast<const struct sockaddr*>(&group.sa);
    ASSERT_EQ(::sendto(sa.get(), "from-a", 6, 0, to, sizeof group.sa), 6);
    EXPECT_EQ(next_datagram(sb, kWaitMs), "from-a");
    ASSERT_EQ(::sendto(sb.get(), "from-b", 6, 0, to, sizeof group.sa), 6);
    // With loopback on, A's own datagram would be first in its queue.
    EXPECT_EQ(next_datagram(sa, kWaitMs), "from-b");
    EXPECT_EQ(next_datagram(sa, 0), "");
    EXPECT_EQ(next_datagram(sb, 0), "");
}

}  // namespace
}  // namespace corvald::test
