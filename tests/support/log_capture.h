// Collects the daemon's log lines for one test: while an instance lives,
// syslog also writes every line (debug included) to standard error, which
// is redirected into a private file.
#pragma once

#include <string>
#include <vector>

namespace corvald::test {

class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Every line logged since construction or the last clear(), without
    // the ident prefix: "debug: hdr_dump(): major=1".
    std::vector<std::string> lines() const;
    // Lines that contain `part`.
    std::vector<std::string> matching(const std::string& part) const;
    // Forgets what was logged so far.
    void clear();

private:
    int saved_stderr_ = -1;
    int fd_ = -1;
    int saved_mask_ = 0;
};

}  // namespace corvald::test
