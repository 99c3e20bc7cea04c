// The receive step of the main loop: one datagram per turn, checked, counted
// and handed to the handler of its type. Its messages carry the loop's name.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "controller/controller_internal.h"
#include "controller/stats.h"
#include "net/datagram.h"
#include "net/netlib.h"

namespace corvald {

namespace {

constexpr const char* kLoop = "controller_thread_loop";

// The datagram as a handler gets it: the header copied out, the whole
// received length behind a bounded reader and the sender's dotted address
// (what NodeCreate records as the node's ipaddr).
struct Received {
    Hdr hdr;
    DatagramReader rd;
    const char* ipaddr;
};

// Counts the datagram under its type and runs that type's handler. Every
// known type is counted here, before its payload is looked at, so a
// datagram its handler later refuses is still in the statistics.
void dispatch_datagram(const Received& rx) {
    switch (rx.hdr.type) {
        case msg::SINGLE_VDISK_PING:
            stats_rx_raise(counter::SV_PING);
            // The single VDisk handler goes here.
            return;
        case msg::VDISK_DELETED:
            stats_rx_raise(counter::VDISK_DEL);
            // The VDisk deletion handler goes here.
            return;
        case msg::AUX_PING:
            stats_rx_raise(counter::AUX_PING);
            // The capacity handler goes here.
            return;
        case msg::STORE_JSON:
        case msg::DELETE_JSON:
            stats_rx_raise(counter::ST_JSON);
            // The JSON ping handler goes here.
            return;
        case msg::DS_PING:
            stats_rx_raise(counter::DS_PING);
            // The data store handler goes here.
            return;
        case msg::HEARTBEAT:
            stats_rx_raise(counter::HEARTBEAT);
            // The heartbeat handler goes here.
            return;
        case msg::PING:
            stats_rx_raise(counter::PING);
            // The VDisk announcement handler goes here.
            return;
        default:
            stats_rx_raise(counter::UNKNOWN);
            CV_ERROR_AS(kLoop, "Received unknown header type %u", unsigned{rx.hdr.type});
            hdr_dump(&rx.hdr);
            return;
    }
}

}  // namespace

int receive_datagram(char* buf, size_t buflen, int so) {
    struct sockaddr_in from;
    ssize_t len;
    for (;;) {
        std::memset(&from, 0, sizeof from);
        socklen_t fromlen = sizeof from;
        // Not blocking: select may report a datagram that the kernel then
        // drops (a bad checksum), and a blocked receive would hold the loop,
        // stop signals included, until the next one arrives. Finding nothing
        // is not a failure of the socket, so it only ends the turn.
        len = ::recvfrom(so, buf, buflen, MSG_DONTWAIT, reinterpret_cast<struct sockaddr*>(&from),
                         &fromlen);
        if (len >= 0) break;
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) return 1;
        CV_ERROR_AS(kLoop, "recvfrom(): %s", std::strerror(errno));
        return -1;
    }

    // Only the received length counts: the buffer still holds the bytes of
    // earlier, longer datagrams behind it.
    const DatagramReader rd(buf, static_cast<size_t>(len));
    Hdr hdr;
    if (!rd.read_at(0, &hdr)) {
        CV_ERROR_AS(kLoop, "Malformed packet? #1");
        return 1;
    }
    char ipaddr[INET_ADDRSTRLEN];
    if (::inet_ntop(AF_INET, &from.sin_addr, ipaddr, sizeof ipaddr) == nullptr) {
        CV_ERROR_AS(kLoop, "inet_ntop(): %s", std::strerror(errno));
        return 1;
    }
    CV_DEBUG_AS(kLoop, "recvfrom(%s:%d): %zd", ipaddr, int{ntohs(from.sin_port)}, len);
    stats_rx_raise(counter::ALL);
    dispatch_datagram(Received{hdr, rd, ipaddr});
    return 0;
}

}  // namespace corvald
