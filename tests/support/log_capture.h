// Collects the log lines that the code under test writes with syslog(3), so
// that a unit test can assert exact lines.
//
// The test binaries define syslog() themselves (log_capture.cc): while at
// least one LogCapture is alive every line goes to the live captures and not
// to the system log; with none alive lines pass on to the C library as usual.
// Lines are kept as formatted, without priority prefix or ident, for instance
// "info: PathLock(): Lock /tmp/x/locks/NODE-7". Lines logged in a forked
// child stay in the child.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace corvald::test {

struct LogLine {
    int priority;  // LOG_ERR .. LOG_DEBUG
    std::string text;
};

class LogCapture {
public:
    // Takes every priority, whatever setlogmask says.
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Every line so far, in order.
    std::vector<std::string> lines() const { return lines_containing(""); }
    std::vector<LogLine> entries() const;
    // The lines that contain part, in order.
    std::vector<std::string> lines_containing(const std::string& part) const;
    // Whether this exact line was logged; how often.
    bool contains(const std::string& line) const { return count(line) > 0; }
    size_t count(const std::string& line) const;
    // Forgets the lines so far.
    void clear();
    // Waits (for lines logged by another thread) until a line contains part;
    // false when the time runs out first.
    bool wait_for(const std::string& part, std::chrono::milliseconds timeout) const;
    // All lines, one per line, for failure messages.
    std::string dump() const;

private:
    friend struct LogSink;
    std::vector<LogLine> lines_;
};

}  // namespace corvald::test
