// A client of a daemon's control port: a TCP connection to 127.0.0.1 made
// in the caller's network namespace.
#pragma once

#include <unistd.h>

#include <string>

#include "util/unique_fd.h"

namespace corvald::test {

class ControlClient {
public:
    explicit ControlClient(int port);
    // "127.0.0.1:<port>", the client as the daemon names it in its log.
    const std::string& id() const { return id_; }
    // Writes bytes in one write (one read for the daemon); false unless whole.
    bool send(const std::string& b) {
        return ::write(so_.get(), b.data(), b.size()) == ssize_t(b.size());
    }
    // Hangs up.
    void close() { so_.reset(); }

private:
    UniqueFd so_;
    std::string id_;
};

}  // namespace corvald::test
