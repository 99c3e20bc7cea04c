#include "support/control_client.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace corvald::test {

ControlClient::ControlClient(int port) : so_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in sa = {AF_INET, htons(uint16_t(port)), {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof sa;
    EXPECT_EQ(::connect(so_.get(), reinterpret_cast<sockaddr*>(&sa), len), 0) << "port " << port;
    ::getsockname(so_.get(), reinterpret_cast<sockaddr*>(&sa), &len);
    id_ = "127.0.0.1:" + std::to_string(ntohs(sa.sin_port));
}

}  // namespace corvald::test
