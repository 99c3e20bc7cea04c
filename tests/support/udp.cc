#include "support/udp.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace corvald::test {

namespace {

// addr (dotted text) and port as a socket address.
sockaddr_in inet(const char* addr, int port) {
    sockaddr_in sa = {AF_INET, htons(uint16_t(port)), {}, {}};
    ::inet_pton(AF_INET, addr, &sa.sin_addr);
    return sa;
}

}  // namespace

bool send_datagram(const std::string& bytes, int port, const char* from) {
    UniqueFd so(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in sa = inet(from, 0), to = inet("127.0.0.1", port);
    return ::bind(so.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0 &&
           ::sendto(so.get(), bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to),
                    sizeof to) == ssize_t(bytes.size());
}

UdpSink::UdpSink(const char* addr, int port) : so_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    int one = 1;
    sockaddr_in sa = inet(addr, port);
    if (::setsockopt(so_.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) < 0 ||
        ::bind(so_.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) < 0)
        so_.reset();
}

std::optional<std::string> UdpSink::next(std::chrono::milliseconds timeout) {
    struct pollfd p = {so_.get(), POLLIN, 0};
    if (!so_ || ::poll(&p, 1, static_cast<int>(timeout.count())) != 1)
        return std::nullopt;
    std::string d(65536, '\0');
    ssize_t n = ::recv(so_.get(), d.data(), d.size(), 0);
    if (n < 0)
        return std::nullopt;
    d.resize(static_cast<size_t>(n));
    return d;
}

}  // namespace corvald::test
