// Datagrams from the test to a daemon under test, over the loopback range.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "util/unique_fd.h"

namespace corvald::test {

// Sends bytes as one datagram from a fresh socket bound to from (any port)
// to 127.0.0.1:port; false if it could not be sent whole.
bool send_datagram(const std::string& bytes, int port, const char* from = "127.0.0.3");

// A socket that receives what a daemon sends to addr:port. Bound with
// SO_REUSEADDR beside the daemon's own socket on the same port (any
// address): the kernel hands a datagram to the most specific binding.
class UdpSink {
public:
    UdpSink(const char* addr, int port);
    // The next datagram, or nullopt when none came within timeout.
    std::optional<std::string> next(std::chrono::milliseconds timeout = std::chrono::seconds(20));

private:
    UniqueFd so_;
};

}  // namespace corvald::test
