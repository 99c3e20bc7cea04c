#include "support/udp.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cassert>

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

std::string datagram_of_type(uint8_t type, size_t len) {
    assert(len >= 3);
    std::string d(len, '\0');
    d[2] = static_cast<char>(type);
    return d;
}

}  // namespace corvald::test
