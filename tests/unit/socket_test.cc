// The datagram socket on the loopback interface: the interface address, the
// bound socket and its notice, the multicast group list and joining it.
#include "net/socket.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "daemon/config.h"
#include "support/log_capture.h"
#include "util/unique_fd.h"

namespace corvald {
namespace {

// A UDP socket on a free port chosen by the system; with reuse set the test
// can bind the same port again without a window for another process.
UniqueFd udp_on_free_port(bool reuse, int* port) {
    UniqueFd so(::socket(AF_INET, SOCK_DGRAM, 0));
    int on = reuse ? 1 : 0;
    ::setsockopt(so.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    struct sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    ::bind(so.get(), reinterpret_cast<struct sockaddr*>(&sa), sizeof sa);
    socklen_t len = sizeof sa;
    ::getsockname(so.get(), reinterpret_cast<struct sockaddr*>(&sa), &len);
    *port = ntohs(sa.sin_port);
    return so;
}

struct sockaddr_in wildcard(int port) {
    struct sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_ANY);
    sa.sin_port = htons(static_cast<uint16_t>(port));
    return sa;
}

// The groups /proc lists for the device: hex in network byte order.
std::vector<std::string> igmp_groups(const std::string& dev) {
    std::ifstream in("/proc/net/igmp");
    std::vector<std::string> groups;
    std::string line;
    bool in_dev = false;
    while (std::getline(in, line)) {
        if (!line.empty() && line[0] != '\t') {
            in_dev = line.find(dev + " ") != std::string::npos;
        } else if (in_dev && line.size() > 12) {
            groups.push_back(line.substr(4, 8));
        }
    }
    return groups;
}

std::string igmp_hex(const char* dotted) {
    char hex[9];
    std::snprintf(hex, sizeof hex, "%08X", inet_addr(dotted));
    return hex;
}

TEST(InterfaceAddr, LoopbackAndMissingInterface) {
    test::LogCapture log;
    struct sockaddr_in a = {};
    ASSERT_EQ(get_interface_addr("lo", &a), 0);
    EXPECT_EQ(a.sin_family, AF_INET);
    EXPECT_EQ(a.sin_port, 0);
    EXPECT_EQ(a.sin_addr.s_addr, htonl(INADDR_LOOPBACK));

    EXPECT_EQ(get_interface_addr("nosuchif0", &a), -1);
    // A name longer than an interface name is cut, never overrun.
    EXPECT_EQ(get_interface_addr("a-very-long-interface-name", &a), -1);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "error: get_interface_addr(): ioctl(SIOCGIFADDR): No such device",
                  "error: get_interface_addr(): ioctl(SIOCGIFADDR): No such device"}));
}

TEST(OpenSocket, BindsTheWildcardAndReportsBuffers) {
    test::LogCapture log;
    int port = 0;
    UniqueFd holder = udp_on_free_port(true, &port);
    struct sockaddr_in sa = wildcard(port);
    UniqueFd so(open_socket(&sa));
    ASSERT_TRUE(so.valid());

    int rcv = 0, snd = 0, reuse = 0;
    socklen_t l = sizeof rcv;
    ::getsockopt(so.get(), SOL_SOCKET, SO_RCVBUF, &rcv, &l);
    l = sizeof snd;
    ::getsockopt(so.get(), SOL_SOCKET, SO_SNDBUF, &snd, &l);
    l = sizeof reuse;
    ::getsockopt(so.get(), SOL_SOCKET, SO_REUSEADDR, &reuse, &l);
    EXPECT_EQ(reuse, 1);
    EXPECT_EQ(log.lines(), std::vector<std::string>{
                               "notice: open_socket(): BIND UDP 0.0.0.0:" + std::to_string(port) +
                               " RCVBUF=" + std::to_string(rcv) + " SNDBUF=" + std::to_string(snd)});

    // It is the socket the peers reach: a datagram to the port arrives.
    holder.reset();
    UniqueFd tx(::socket(AF_INET, SOCK_DGRAM, 0));
    struct sockaddr_in to = wildcard(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::sendto(tx.get(), "hi", 2, 0, reinterpret_cast<struct sockaddr*>(&to), sizeof to),
              2);
    char buf[8];
    EXPECT_EQ(::recv(so.get(), buf, sizeof buf, 0), 2);
}

TEST(OpenSocket, PortTakenWithoutReuse) {
    test::LogCapture log;
    int port = 0;
    UniqueFd holder = udp_on_free_port(false, &port);
    struct sockaddr_in sa = wildcard(port);
    EXPECT_EQ(open_socket(&sa), -1);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"error: open_socket(): bind(0.0.0.0:" +
                                                    std::to_string(port) +
                                                    "): Address already in use"});
}

class McastConfig : public ::testing::Test {
protected:
    void SetUp() override {
        saved_address_ = cfg_multicast_address;
        saved_port_ = cfg_bind_port;
        saved_mode_ = cfg_unicast_mode;
    }
    void TearDown() override {
        cfg_multicast_address = saved_address_;
        cfg_bind_port = saved_port_;
        cfg_unicast_mode = saved_mode_;
    }
    std::string saved_address_;
    int saved_port_ = 0;
    int saved_mode_ = 0;
};

TEST_F(McastConfig, GroupListFromTheSetting) {
    test::LogCapture log;
    cfg_bind_port = 8123;
    cfg_multicast_address = " ,239.255.18.1, 239.255.18.2\t,,224.1 ";
    HostList groups;
    ASSERT_EQ(parse_mcast_groups(&groups), 0);
    ASSERT_EQ(groups.size(), 3u);
    EXPECT_STREQ(groups[0].ipaddr, "239.255.18.1");
    EXPECT_STREQ(groups[1].ipaddr, "239.255.18.2");
    EXPECT_STREQ(groups[2].ipaddr, "224.1");
    EXPECT_EQ(groups[2].sa.sin_addr.s_addr, inet_addr("224.0.0.1"));
    for (const Host& g : groups) {
        EXPECT_EQ(g.sa.sin_family, AF_INET);
        EXPECT_EQ(g.sa.sin_port, htons(8123));
    }
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "debug: parse_mcast_groups(): MULTICAST_GROUP: 239.255.18.1:8123 (239.255.18.1)",
                  "debug: parse_mcast_groups(): MULTICAST_GROUP: 239.255.18.2:8123 (239.255.18.2)",
                  "debug: parse_mcast_groups(): MULTICAST_GROUP: 224.0.0.1:8123 (224.1)"}));

    // Only separators: no group and no failure (the loop reports it missing).
    cfg_multicast_address = ", ,,  ";
    HostList none;
    EXPECT_EQ(parse_mcast_groups(&none), 0);
    EXPECT_TRUE(none.empty());

    // A malformed group stops the parse there; those before it stay.
    for (const char* bad : {"239.255.18.1:9000", "239.255.018.0001", "groups.example"}) {
        log.clear();
        cfg_multicast_address = std::string("239.255.18.3 ") + bad + " 239.255.18.4";
        HostList some;
        EXPECT_EQ(parse_mcast_groups(&some), -1) << bad;
        ASSERT_EQ(some.size(), 1u);
        EXPECT_STREQ(some[0].ipaddr, "239.255.18.3");
        EXPECT_EQ(log.lines_containing("error:"),
                  std::vector<std::string>{
                      std::string("error: parse_mcast_groups(): Malformed multicast address: ") +
                      bad});
    }

    // The destinations of a datagram follow the mode in force.
    HostList unicast(1);
    cfg_unicast_mode = 1;
    EXPECT_EQ(&destination_list(unicast, groups), &unicast);
    cfg_unicast_mode = 0;
    EXPECT_EQ(&destination_list(unicast, groups), &groups);
}

TEST_F(McastConfig, JoinTwoGroupsOnLoopback) {
    // lo carries no MULTICAST flag, yet the kernel accepts memberships on it:
    // the joins, the options and the memberships are all real here.
    test::LogCapture log;
    struct sockaddr_in if_addr = {};
    ASSERT_EQ(get_interface_addr("lo", &if_addr), 0);
    int port = 0;
    UniqueFd holder = udp_on_free_port(true, &port);
    struct sockaddr_in sa = wildcard(port);
    UniqueFd so(open_socket(&sa));
    ASSERT_TRUE(so.valid());

    // Groups of this process's own, so parallel runs cannot meet in /proc.
    const unsigned pid = static_cast<unsigned>(::getpid());
    const std::string g1 = "239.18." + std::to_string(pid / 256 % 256) + "." +
                           std::to_string(pid % 256);
    const std::string g2 = "239.19." + std::to_string(pid / 256 % 256) + "." +
                           std::to_string(pid % 256);
    cfg_bind_port = port;
    cfg_multicast_address = g1 + ", " + g2;
    HostList groups;
    ASSERT_EQ(parse_mcast_groups(&groups), 0);
    log.clear();
    ASSERT_EQ(join_mcast_groups(so.get(), &if_addr, groups), 0);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "notice: add_mcast_membership(): JOIN MULTICAST " + g1 + "@127.0.0.1",
                  "notice: add_mcast_membership(): JOIN MULTICAST " + g2 + "@127.0.0.1"}));

    unsigned char loop = 1;
    socklen_t l = sizeof loop;
    ASSERT_EQ(::getsockopt(so.get(), IPPROTO_IP, IP_MULTICAST_LOOP, &loop, &l), 0);
    EXPECT_EQ(loop, 0);
    struct in_addr mif = {};
    l = sizeof mif;
    ASSERT_EQ(::getsockopt(so.get(), IPPROTO_IP, IP_MULTICAST_IF, &mif, &l), 0);
    EXPECT_EQ(mif.s_addr, htonl(INADDR_LOOPBACK));
    std::vector<std::string> joined = igmp_groups("lo");
    for (const std::string& g : {g1, g2}) {
        EXPECT_NE(std::find(joined.begin(), joined.end(), igmp_hex(g.c_str())), joined.end()) << g;
    }

    // Closing the socket is what ends the memberships.
    so.reset();
    joined = igmp_groups("lo");
    EXPECT_EQ(std::find(joined.begin(), joined.end(), igmp_hex(g1.c_str())), joined.end());

    // Joining a unicast address fails with the system's reason.
    log.clear();
    UniqueFd other(::socket(AF_INET, SOCK_DGRAM, 0));
    EXPECT_EQ(add_mcast_membership(other.get(), "127.0.0.2", &if_addr), -1);
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{
                  "error: add_mcast_membership(): setsockopt(IP_ADD_MEMBERSHIP): Invalid argument"});
    EXPECT_EQ(set_mcast_socket(-1, &if_addr), -1);
    EXPECT_EQ(log.lines_containing("set_mcast_socket(): setsockopt(IP_MULTICAST_LOOP): Bad file")
                  .size(),
              1u);
}

}  // namespace
}  // namespace corvald
