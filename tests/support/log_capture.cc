#include "support/log_capture.h"

#include <syslog.h>

#include <algorithm>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
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
        va_list copy;
        va_copy(copy, ap);
        int n = std::vsnprintf(nullptr, 0, fmt, copy);
        va_end(copy);
        std::string text(n > 0 ? static_cast<size_t>(n) : 0, '\0');
        if (n > 0) std::vsnprintf(text.data(), text.size() + 1, fmt, ap);
        int mask = ::setlogmask(0);
        for (LogCapture* c : live) {
            if (c->mask_ == LogCapture::Mask::kKeep && (LOG_MASK(LOG_PRI(pri)) & mask) == 0) continue;
            c->lines_.push_back({LOG_PRI(pri), text});
        }
        cv.notify_all();
        return true;
    }
};

LogCapture::LogCapture(Mask mask) : mask_(mask) {
    LogSink& s = LogSink::get();
    std::lock_guard<std::mutex> lock(s.mu);
    s.live.push_back(this);
}

LogCapture::~LogCapture() {
    LogSink& s = LogSink::get();
    std::lock_guard<std::mutex> lock(s.mu);
    s.live.erase(std::remove(s.live.begin(), s.live.end(), this), s.live.end());
}

std::vector<LogLine> LogCapture::entries() const {
    std::lock_guard<std::mutex> lock(LogSink::get().mu);
    return lines_;
}

std::vector<std::string> LogCapture::lines() const {
    std::vector<std::string> out;
    for (const LogLine& l : entries()) out.push_back(l.text);
    return out;
}

std::vector<std::string> LogCapture::lines_containing(const std::string& part) const {
    std::vector<std::string> out;
    for (const LogLine& l : entries()) {
        if (l.text.find(part) != std::string::npos) out.push_back(l.text);
    }
    return out;
}

bool LogCapture::contains(const std::string& line) const { return count(line) > 0; }

size_t LogCapture::count(const std::string& line) const {
    size_t n = 0;
    for (const LogLine& l : entries()) n += l.text == line ? 1 : 0;
    return n;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(LogSink::get().mu);
    lines_.clear();
}

bool LogCapture::wait_for(const std::string& part, std::chrono::milliseconds timeout) const {
    LogSink& s = LogSink::get();
    std::unique_lock<std::mutex> lock(s.mu);
    return s.cv.wait_for(lock, timeout, [&] {
        return std::any_of(lines_.begin(), lines_.end(),
                           [&](const LogLine& l) { return l.text.find(part) != std::string::npos; });
    });
}

std::string LogCapture::dump() const {
    std::string out;
    for (const LogLine& l : entries()) out += l.text + "\n";
    return out;
}

}  // namespace corvald::test

// The test binaries' syslog: the captures' entry point. Without a live
// capture the line goes to the C library's vsyslog, so the daemon's own
// logging set-up (openlog, LOG_PERROR) still works in tests that want it.
extern "C" void syslog(int pri, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    if (!corvald::test::LogSink::get().take(pri, fmt, ap)) ::vsyslog(pri, fmt, ap);
    va_end(ap);
}

// The same for code built with _FORTIFY_SOURCE, where syslog() calls become
// __syslog_chk().
extern "C" void __syslog_chk(int pri, int, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    if (!corvald::test::LogSink::get().take(pri, fmt, ap)) ::vsyslog(pri, fmt, ap);
    va_end(ap);
}
