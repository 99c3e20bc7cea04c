#include "support/udp.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace corvald::test {

bool send_datagram(const std::string& bytes, int port, const char* from) {
    int so = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (so < 0) return false;
    struct sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    bool ok = ::inet_pton(AF_INET, from, &sa.sin_addr) == 1 &&
              ::bind(so, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0;
    if (ok) {
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        sa.sin_port = htons(static_cast<uint16_t>(port));
        ssize_t n = ::sendto(so, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&sa),
                             sizeof sa);
        ok = n == static_cast<ssize_t>(bytes.size());
    }
    ::close(so);
    return ok;
}

UdpSink::UdpSink(const char* addr, int port) {
    so_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int one = 1;
    struct sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    if (so_ < 0 || ::setsockopt(so_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) < 0 ||
        ::inet_pton(AF_INET, addr, &sa.sin_addr) != 1 ||
        ::bind(so_, reinterpret_cast<sockaddr*>(&sa), sizeof sa) < 0) {
        if (so_ >= 0) ::close(so_);
        so_ = -1;
    }
}

UdpSink::~UdpSink() {
    if (so_ >= 0) ::close(so_);
}

std::optional<std::string> UdpSink::next(std::chrono::milliseconds timeout) {
    struct pollfd p = {so_, POLLIN, 0};
    if (so_ < 0 || ::poll(&p, 1, static_cast<int>(timeout.count())) != 1) return std::nullopt;
    std::string d(65536, '\0');
    ssize_t n = ::recv(so_, d.data(), d.size(), 0);
    if (n < 0) return std::nullopt;
    d.resize(static_cast<size_t>(n));
    return d;
}

}  // namespace corvald::test
