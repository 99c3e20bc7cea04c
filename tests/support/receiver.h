// The receive step in-process: datagram bytes handed to handle_datagram on
// a real store in a temporary directory, with every setting put back and
// the log captured afterwards.
#pragma once

#include <syslog.h>

#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/settings.h"
#include "support/store_builder.h"
#include "support/temp_dir.h"

namespace corvald::test {

// The store is dir/s; beside it lie the fence-check program dir/fence,
// which appends "<argc> <argv> <open descriptors> <environment>" per call
// to dir/fence.log and exits with 3 (or sleeps while dir/hang exists), and
// an empty directory dir/keep. No lock is waited for.
class Receiver {
public:
    explicit Receiver(const StoreBuilder& store);
    ~Receiver();
    // Hands bytes to handle_datagram from 127.0.0.<the header's node id>;
    // what it changed in the store (see changes()).
    Tree feed(const std::string& bytes);
    // The lines of the last feed at level upto and above, with "@" for the
    // temporary directory; no lock's lines.
    std::vector<std::string> lines(int upto = LOG_NOTICE) const;
    // look() of a path in the store.
    std::string at(const std::string& rel) const { return look(root + "/" + rel); }

    TempDir dir;
    const std::string root = dir / "s";
    ScopedSettings settings;
    LogCapture log;

private:
    int saved_timeout_;
};

}  // namespace corvald::test
