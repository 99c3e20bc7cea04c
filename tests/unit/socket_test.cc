// The multicast group list and joins. The socket's own lines and that it
// reaches peers and joins groups with loopback off on the chosen interface
// are checked end to end: the start-up failure, announcement and statistics
// tests, and the multicast host test between two namespaces.
#include "net/socket.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "base/config.h"
#include "support/log_capture.h"
#include "support/settings.h"
#include "util/unique_fd.h"

namespace corvald {
namespace {

using Lines = std::vector<std::string>;

// A malformed group stops the parse there; those before it stay. The lines
// show each group's address and port as converted.
TEST(Socket, MulticastGroupsFromTheSetting) {
    test::ScopedSettings settings;
    test::LogCapture log;
    cfg_bind_port = 8123;
    cfg_multicast_address = " ,239.255.18.1\t,,224.1 239.255.018.0001 239.255.18.4";
    HostList groups;
    EXPECT_EQ(parse_mcast_groups(&groups), -1);
    ASSERT_EQ(groups.size(), 2u);
    EXPECT_STREQ(groups[1].ipaddr, "224.1");
    const std::string group = "debug: parse_mcast_groups(): MULTICAST_GROUP: ";
    EXPECT_EQ(log.lines(), (Lines{group + "239.255.18.1:8123 (239.255.18.1)",
                                  group + "224.0.0.1:8123 (224.1)",
                                  "error: parse_mcast_groups(): Malformed multicast address: "
                                  "239.255.018.0001"}));
    // The destinations of a datagram follow the mode in force.
    HostList unicast(1);
    cfg_unicast_mode = 1;
    EXPECT_EQ(&destination_list(unicast, groups), &unicast);
    cfg_unicast_mode = 0;
    EXPECT_EQ(&destination_list(unicast, groups), &groups);
}

// lo carries no MULTICAST flag, yet the kernel accepts memberships on it.
// The group is this process's own, so parallel runs cannot meet.
TEST(Socket, BindsAndJoinsOnLoopbackOrReportsTheSystemsReason) {
    test::LogCapture log;
    struct sockaddr_in if_addr = {}, any = {};
    any.sin_family = AF_INET;
    ASSERT_EQ(get_interface_addr("lo", &if_addr), 0);
    UniqueFd so(open_socket(&any));
    ASSERT_TRUE(so.valid());
    const unsigned pid = static_cast<unsigned>(::getpid());
    const std::string g = "239.18." + std::to_string(pid / 256 % 256) + "." + std::to_string(pid % 256);
    int rcv = 0, snd = 0;
    socklen_t len = sizeof(int);
    ::getsockopt(so.get(), SOL_SOCKET, SO_RCVBUF, &rcv, &len);
    ::getsockopt(so.get(), SOL_SOCKET, SO_SNDBUF, &snd, &len);
    ASSERT_EQ(add_mcast_membership(so.get(), g.c_str(), &if_addr), 0);
    EXPECT_EQ(add_mcast_membership(so.get(), "127.0.0.2", &if_addr), -1);  // unicast
    EXPECT_EQ(log.lines(),
              (Lines{"notice: open_socket(): BIND UDP 0.0.0.0:0 RCVBUF=" + std::to_string(rcv) +
                         " SNDBUF=" + std::to_string(snd),
                     "notice: add_mcast_membership(): JOIN MULTICAST " + g + "@127.0.0.1",
                     "error: add_mcast_membership(): setsockopt(IP_ADD_MEMBERSHIP): Invalid argument"}));
}

}  // namespace
}  // namespace corvald
