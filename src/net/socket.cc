#include "net/socket.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cassert>
#include <cerrno>
#include <cstring>
#include <string>

#include "base/config.h"
#include "base/log.h"
#include "net/netlib.h"
#include "util/unique_fd.h"

namespace corvald {

int get_interface_addr(const char* interface, struct sockaddr_in* if_addr) {
    UniqueFd so(::socket(AF_INET, SOCK_DGRAM, 0));
    if (!so) {
        CV_ERROR("socket(): %s", std::strerror(errno));
        return -1;
    }
    struct ifreq ifr;
    std::memset(&ifr, 0, sizeof ifr);
    // At most IFNAMSIZ - 1 characters; a longer name is cut, not overrun.
    std::strncpy(ifr.ifr_name, interface, IFNAMSIZ - 1);
    ifr.ifr_name[IFNAMSIZ - 1] = '\0';
    ifr.ifr_addr.sa_family = AF_INET;
    if (::ioctl(so.get(), SIOCGIFADDR, &ifr) < 0) {
        CV_ERROR("ioctl(SIOCGIFADDR): %s", std::strerror(errno));
        return -1;
    }
    so.reset();
    std::memcpy(if_addr, &ifr.ifr_addr, sizeof *if_addr);
    return 0;
}

int open_socket(const struct sockaddr_in* bind_addr) {
    assert(bind_addr->sin_family == AF_INET);
    UniqueFd so(::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP));
    if (!so) {
        CV_ERROR("socket(): %s", std::strerror(errno));
        return -1;
    }
    int on = 1;
    if (::setsockopt(so.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) < 0) {
        CV_ERROR("setsockopt(SO_REUSEADDR): %s", std::strerror(errno));
        return -1;
    }
    // The buffer sizes only feed the notice: a failed read is shown as -1.
    int rcvbuf = -1, sndbuf = -1;
    socklen_t optlen = sizeof rcvbuf;
    if (::getsockopt(so.get(), SOL_SOCKET, SO_RCVBUF, &rcvbuf, &optlen) < 0) {
        CV_ERROR("getsockopt(SO_RCVBUF): %s", std::strerror(errno));
        rcvbuf = -1;
    }
    optlen = sizeof sndbuf;
    if (::getsockopt(so.get(), SOL_SOCKET, SO_SNDBUF, &sndbuf, &optlen) < 0) {
        CV_ERROR("getsockopt(SO_SNDBUF): %s", std::strerror(errno));
        sndbuf = -1;
    }
    char text[INET_ADDRSTRLEN];
    if (::inet_ntop(AF_INET, &bind_addr->sin_addr, text, sizeof text) == nullptr) {
        CV_ERROR("inet_ntop(): %s", std::strerror(errno));
        return -1;
    }
    const int port = ntohs(bind_addr->sin_port);
    if (::bind(so.get(), reinterpret_cast<const struct sockaddr*>(bind_addr), sizeof *bind_addr) <
        0) {
        CV_ERROR("bind(%s:%d): %s", text, port, std::strerror(errno));
        return -1;
    }
    CV_NOTICE("BIND UDP %s:%d RCVBUF=%d SNDBUF=%d", text, port, rcvbuf, sndbuf);
    return so.release();
}

int set_mcast_socket(int so, const struct sockaddr_in* if_addr) {
    // Off, so a host never receives its own announcements back.
    unsigned char loop = 0;
    if (::setsockopt(so, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof loop) < 0) {
        CV_ERROR("setsockopt(IP_MULTICAST_LOOP): %s", std::strerror(errno));
        return -1;
    }
    if (::setsockopt(so, IPPROTO_IP, IP_MULTICAST_IF, &if_addr->sin_addr,
                     sizeof if_addr->sin_addr) < 0) {
        CV_ERROR("setsockopt(IP_MULTICAST_IF): %s", std::strerror(errno));
        return -1;
    }
    return 0;
}

int add_mcast_membership(int so, const char* mcast_addr, const struct sockaddr_in* if_addr) {
    struct ip_mreq mreq;
    std::memset(&mreq, 0, sizeof mreq);
    mreq.imr_multiaddr.s_addr = ::inet_addr(mcast_addr);
    mreq.imr_interface = if_addr->sin_addr;
    if (::setsockopt(so, IPPROTO_IP, IP_ADD_MEMBERSHIP, &mreq, sizeof mreq) < 0) {
        CV_ERROR("setsockopt(IP_ADD_MEMBERSHIP): %s", std::strerror(errno));
        return -1;
    }
    char group[INET_ADDRSTRLEN], iface[INET_ADDRSTRLEN];
    if (::inet_ntop(AF_INET, &mreq.imr_multiaddr, group, sizeof group) == nullptr ||
        ::inet_ntop(AF_INET, &mreq.imr_interface, iface, sizeof iface) == nullptr) {
        // The membership stays: closing the socket ends it.
        CV_ERROR("inet_ntop(): %s", std::strerror(errno));
        return -1;
    }
    CV_NOTICE("JOIN MULTICAST %s@%s", group, iface);
    return 0;
}

int parse_mcast_groups(HostList* groups) {
    // Tokens are separated by any run of commas and blanks (space or tab);
    // there is no port syntax, every group is used at bind_port.
    static constexpr const char* kSeparators = ", \t";
    const std::string& text = cfg_multicast_address;
    size_t pos = text.find_first_not_of(kSeparators);
    while (pos != std::string::npos) {
        size_t end = text.find_first_of(kSeparators, pos);
        std::string token = text.substr(pos, end == std::string::npos ? end : end - pos);
        pos = text.find_first_not_of(kSeparators, end);

        Host host;
        // Both a token too long for ipaddr and one inet_aton refuses are
        // reported with the whole token.
        if (HostInit(&host, token.c_str(), cfg_bind_port) < 0) {
            CV_ERROR("Malformed multicast address: %s", token.c_str());
            return -1;
        }
        // The address as converted, beside the token it came from (a short
        // form such as 224.1 shows as 224.0.0.1).
        char text[INET_ADDRSTRLEN];
        addr_number_to_text(ntohl(host.sa.sin_addr.s_addr), text);
        CV_DEBUG("MULTICAST_GROUP: %s:%u (%s)", text, unsigned{ntohs(host.sa.sin_port)},
                 token.c_str());
        groups->push_back(host);
    }
    return 0;
}

int join_mcast_groups(int so, const struct sockaddr_in* if_addr, const HostList& groups) {
    if (set_mcast_socket(so, if_addr) < 0) return -1;
    for (const Host& group : groups) {
        if (add_mcast_membership(so, group.ipaddr, if_addr) < 0) return -1;
    }
    return 0;
}

const HostList& destination_list(const HostList& unicast_hosts, const HostList& multicast_groups) {
    return cfg_unicast_mode != 0 ? unicast_hosts : multicast_groups;
}

int HostInit(Host* host, const char* text, int port) {
    *host = Host{};
    size_t len = ::strnlen(text, sizeof host->ipaddr);
    if (len >= sizeof host->ipaddr) return -1;
    Host h;
    std::memcpy(h.ipaddr, text, len);
    h.sa.sin_family = AF_INET;
    if (::inet_aton(h.ipaddr, &h.sa.sin_addr) == 0) return -2;
    h.sa.sin_port = htons(static_cast<uint16_t>(port));
    *host = h;
    return 0;
}

}  // namespace corvald
