#include "support/log_capture.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace corvald::test {

namespace {
constexpr char kIdent[] = "T";
constexpr char kPrefix[] = "T: ";
}  // namespace

LogCapture::LogCapture() {
    char path[] = "/tmp/corvald-log-XXXXXX";
    fd_ = ::mkstemp(path);
    if (fd_ < 0) std::abort();
    ::unlink(path);
    std::fflush(stderr);
    saved_stderr_ = ::dup(STDERR_FILENO);
    ::dup2(fd_, STDERR_FILENO);
    ::openlog(kIdent, LOG_PERROR, LOG_USER);
    saved_mask_ = ::setlogmask(LOG_UPTO(LOG_DEBUG));
}

LogCapture::~LogCapture() {
    ::closelog();
    ::setlogmask(saved_mask_);
    std::fflush(stderr);
    ::dup2(saved_stderr_, STDERR_FILENO);
    ::close(saved_stderr_);
    ::close(fd_);
}

std::vector<std::string> LogCapture::lines() const {
    std::string all;
    char buf[4096];
    off_t off = 0;
    for (;;) {
        ssize_t n = ::pread(fd_, buf, sizeof buf, off);
        if (n <= 0) break;
        all.append(buf, static_cast<size_t>(n));
        off += n;
    }
    std::vector<std::string> out;
    size_t pos = 0;
    while (pos < all.size()) {
        size_t nl = all.find('\n', pos);
        if (nl == std::string::npos) nl = all.size();
        std::string line = all.substr(pos, nl - pos);
        if (line.rfind(kPrefix, 0) == 0) line.erase(0, sizeof kPrefix - 1);
        out.push_back(line);
        pos = nl + 1;
    }
    return out;
}

std::vector<std::string> LogCapture::matching(const std::string& part) const {
    std::vector<std::string> out;
    for (const std::string& l : lines()) {
        if (l.find(part) != std::string::npos) out.push_back(l);
    }
    return out;
}

void LogCapture::clear() {
    // The file offset is shared with standard error: rewind it too, or the
    // next line would land after a hole.
    if (::ftruncate(fd_, 0) != 0 || ::lseek(fd_, 0, SEEK_SET) != 0) std::abort();
}

}  // namespace corvald::test
