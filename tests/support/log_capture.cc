#include "support/log_capture.h"

#include <syslog.h>

#include <algorithm>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace corvald::test {

// The live captures; every line logged while one is alive goes to all.
struct LogSink {
    std::mutex mu;
    std::condition_variable cv;
    std::vector<LogCapture*> live;

    static LogSink& get() {
        static LogSink sink;
        return sink;
    }

    // Takes the line if a capture is alive; false lets it pass to syslog.
    bool take(int pri, const char* fmt, va_list ap) {
        std::lock_guard<std::mutex> lock(mu);
        if (live.empty()) return false;
        char* formatted = nullptr;
        std::string text = ::vasprintf(&formatted, fmt, ap) >= 0 ? formatted : "";
        std::free(formatted);
        for (LogCapture* c : live) c->lines_.push_back({LOG_PRI(pri), text});
        cv.notify_all();
        return true;
    }
};

LogCapture::LogCapture() {
    std::lock_guard<std::mutex> lock(LogSink::get().mu);
    LogSink::get().live.push_back(this);
}

LogCapture::~LogCapture() {
    std::lock_guard<std::mutex> lock(LogSink::get().mu);
    std::erase(LogSink::get().live, this);
}

std::vector<LogLine> LogCapture::entries() const {
    std::lock_guard<std::mutex> lock(LogSink::get().mu);
    return lines_;
}

std::vector<std::string> LogCapture::lines_containing(const std::string& part) const {
    std::vector<std::string> out;
    for (const LogLine& l : entries())
        if (l.text.find(part) != std::string::npos) out.push_back(l.text);
    return out;
}

size_t LogCapture::count(const std::string& line) const {
    return static_cast<size_t>(std::ranges::count(lines(), line));
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(LogSink::get().mu);
    lines_.clear();
}

bool LogCapture::wait_for(const std::string& part, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(LogSink::get().mu);
    return LogSink::get().cv.wait_for(lock, timeout, [&] {
        return std::any_of(lines_.begin(), lines_.end(),
                           [&](const LogLine& l) { return l.text.find(part) != std::string::npos; });
    });
}

std::string LogCapture::dump() const {
    std::string out;
    for (const std::string& l : lines()) out += l + "\n";
    return out;
}

}  // namespace corvald::test

// The test binaries' syslog, and its twin for code built with
// _FORTIFY_SOURCE. Without a live capture the line goes to the C library's
// vsyslog, so the daemon's own logging set-up (openlog, LOG_PERROR) still
// works in tests that want it.
#define CORVALD_TEST_SYSLOG(pri, fmt)                                        \
    va_list ap;                                                              \
    va_start(ap, fmt);                                                       \
    if (!corvald::test::LogSink::get().take(pri, fmt, ap)) ::vsyslog(pri, fmt, ap); \
    va_end(ap)

extern "C" void syslog(int pri, const char* fmt, ...) { CORVALD_TEST_SYSLOG(pri, fmt); }
extern "C" void __syslog_chk(int pri, int, const char* fmt, ...) { CORVALD_TEST_SYSLOG(pri, fmt); }
