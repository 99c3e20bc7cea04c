// Datagrams from the test to a daemon under test, over the loopback range.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace corvald::test {

// Sends bytes as one datagram from a fresh socket bound to from (any port)
// to 127.0.0.1:port; false if it could not be sent whole.
bool send_datagram(const std::string& bytes, int port, const char* from = "127.0.0.3");

// len zero bytes (len >= 3) but for the header's type byte at offset 2.
std::string datagram_of_type(uint8_t type, size_t len = 207);

}  // namespace corvald::test
