// Owners for descriptors and heap buffers, so that every early return
// releases what was taken (stdio streams: base/unique_file.h).
#pragma once

#include <cstdlib>
#include <memory>
#include <utility>

#include "util/io.h"

namespace corvald {

// Owns one descriptor; closes it with fd_close (so a failed close is logged).
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& o) noexcept : fd_(o.release()) {}
    UniqueFd& operator=(UniqueFd&& o) noexcept {
        if (this != &o) reset(o.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    explicit operator bool() const { return valid(); }
    int release() { return std::exchange(fd_, -1); }
    // Closes the held descriptor (if any) and takes fd; returns fd_close's
    // result for the old one, 0 if there was none.
    int reset(int fd = -1) {
        int old = std::exchange(fd_, fd);
        return old >= 0 ? fd_close(old) : 0;
    }

private:
    int fd_ = -1;
};

// Owns a buffer from malloc, vasprintf or FileLoad; frees it with free().
struct FreeDeleter {
    void operator()(void* p) const { std::free(p); }
};
using UniqueChars = std::unique_ptr<char, FreeDeleter>;

}  // namespace corvald
