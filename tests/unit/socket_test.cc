// The datagram socket's own lines and the multicast group list. That the
// socket reaches peers and joins groups with loopback off on the chosen
// interface is checked end to end: the announcement and statistics tests
// receive on it, the multicast host test sends between two namespaces.
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

TEST(Socket, InterfaceAddressAndBoundSocket) {
    test::LogCapture log;
    struct sockaddr_in a = {};
    ASSERT_EQ(get_interface_addr("lo", &a), 0);
    EXPECT_EQ(a.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    // A name longer than an interface name is cut, never overrun.
    EXPECT_EQ(get_interface_addr("a-very-long-interface-name", &a), -1);

    UniqueFd so(open_socket(&a));  // port 0: the system's choice
    ASSERT_TRUE(so.valid());
    int rcv = 0, snd = 0;
    socklen_t len = sizeof(int);
    ::getsockopt(so.get(), SOL_SOCKET, SO_RCVBUF, &rcv, &len);
    ::getsockopt(so.get(), SOL_SOCKET, SO_SNDBUF, &snd, &len);
    EXPECT_EQ(log.lines(), (Lines{"error: get_interface_addr(): ioctl(SIOCGIFADDR): No such device",
                                  "notice: open_socket(): BIND UDP 127.0.0.1:0 RCVBUF=" +
                                      std::to_string(rcv) + " SNDBUF=" + std::to_string(snd)}));
}

TEST(Socket, MulticastGroupsFromTheSettingJoinedOnLoopback) {
    test::ScopedSettings settings;
    test::LogCapture log;
    cfg_bind_port = 8123;
    cfg_multicast_address = " ,239.255.18.1, 239.255.18.2\t,,224.1 ";
    HostList groups;
    ASSERT_EQ(parse_mcast_groups(&groups), 0);
    ASSERT_EQ(groups.size(), 3u);
    EXPECT_STREQ(groups[2].ipaddr, "224.1");
    // The lines show each group's address and port as converted.
    const std::string group = "debug: parse_mcast_groups(): MULTICAST_GROUP: ";
    EXPECT_EQ(log.lines(), (Lines{group + "239.255.18.1:8123 (239.255.18.1)",
                                  group + "239.255.18.2:8123 (239.255.18.2)",
                                  group + "224.0.0.1:8123 (224.1)"}));
    // (Only separators are no failure here: the loop reports the groups missing.)
    // A malformed group stops the parse there; those before it stay.
    for (const std::string bad : {"239.255.18.1:9000", "239.255.018.0001"}) {
        log.clear();
        cfg_multicast_address = "239.255.18.3 " + bad + " 239.255.18.4";
        HostList some;
        EXPECT_EQ(parse_mcast_groups(&some), -1) << bad;
        ASSERT_EQ(some.size(), 1u);
        EXPECT_STREQ(some[0].ipaddr, "239.255.18.3");
        EXPECT_EQ(log.lines_containing("error:"),
                  Lines{"error: parse_mcast_groups(): Malformed multicast address: " + bad});
    }
    // The destinations of a datagram follow the mode in force.
    HostList unicast(1);
    cfg_unicast_mode = 1;
    EXPECT_EQ(&destination_list(unicast, groups), &unicast);
    cfg_unicast_mode = 0;
    EXPECT_EQ(&destination_list(unicast, groups), &groups);

    // lo carries no MULTICAST flag, yet the kernel accepts memberships on
    // it. The groups are this process's own, so parallel runs cannot meet.
    struct sockaddr_in if_addr = {}, any = {};
    any.sin_family = AF_INET;
    ASSERT_EQ(get_interface_addr("lo", &if_addr), 0);
    UniqueFd so(open_socket(&any));
    ASSERT_TRUE(so.valid());
    const unsigned pid = static_cast<unsigned>(::getpid());
    const std::string low = "." + std::to_string(pid / 256 % 256) + "." + std::to_string(pid % 256);
    const std::string g1 = "239.18" + low, g2 = "239.19" + low;
    cfg_multicast_address = g1 + ", " + g2;
    HostList mine;
    ASSERT_EQ(parse_mcast_groups(&mine), 0);
    log.clear();
    ASSERT_EQ(join_mcast_groups(so.get(), &if_addr, mine), 0);
    // Joining a unicast address fails with the system's reason.
    EXPECT_EQ(add_mcast_membership(so.get(), "127.0.0.2", &if_addr), -1);
    EXPECT_EQ(set_mcast_socket(-1, &if_addr), -1);
    EXPECT_EQ(
        log.lines(),
        (Lines{"notice: add_mcast_membership(): JOIN MULTICAST " + g1 + "@127.0.0.1",
               "notice: add_mcast_membership(): JOIN MULTICAST " + g2 + "@127.0.0.1",
               "error: add_mcast_membership(): setsockopt(IP_ADD_MEMBERSHIP): Invalid argument",
               "error: set_mcast_socket(): setsockopt(IP_MULTICAST_LOOP): Bad file descriptor"}));
}

}  // namespace
}  // namespace corvald
