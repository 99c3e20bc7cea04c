#include "store/attr.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/log.h"
#include "store/beneath.h"
#include "util/io.h"
#include "util/unique_fd.h"

namespace corvald {

namespace {


// read_value's result for a file of size 0, which only StringLoad accepts.
constexpr int kEmptyFile = -2;

// The steps StringLoad and AttrLoad share: open key, size it, read it whole
// into buf (kAttrFileMax + 1 bytes) and strip the one final line feed. The
// value's length with buf NUL-terminated behind it, kEmptyFile, or -1. The
// lines carry op, the primitive the caller is.
int read_value(const char* op, int dirfd, const char* key, char* buf) {
    UniqueFd fd(store_fd_openat(dirfd, key, O_RDONLY));
    if (!fd) return -1;

    off_t size = ::lseek(fd.get(), 0, SEEK_END);
    if (size < 0) {
        CV_ERROR_AS(op, "lseek(%s): %s", key, std::strerror(errno));
        return -1;
    }
    if (size == 0) return kEmptyFile;
    if (static_cast<size_t>(size) > kAttrFileMax) {
        CV_ERROR_AS(op, "Oversized file %s", key);
        return -1;
    }
    if (::lseek(fd.get(), 0, SEEK_SET) < 0) {
        CV_ERROR_AS(op, "lseek(%s): %s", key, std::strerror(errno));
        return -1;
    }
    auto len = static_cast<size_t>(size);
    // A file that shrank under us ends the read early; buf_rx reports that.
    if (buf_rx(fd.get(), buf, len, 1) != static_cast<ssize_t>(len)) return -1;
    buf[len] = '\0';

    if (buf[len - 1] != '\n') {
        CV_ERROR_AS(op, "Malformed file %s", key);
        return -1;
    }
    buf[len - 1] = '\0';
    return static_cast<int>(len - 1);
}

// Creates key if missing and writes text whole over it; len or -1. The
// value is written over the old one and the file then cut to its length,
// not truncated first: on a whole record that spares a look at each file
// before its write, since the open's own check tells an empty or new file
// (*was_empty) from one that held a value. A crash between the two steps
// of a shorter value leaves the new value with the old one's tail behind
// its line feed (a number reads as the new value); the next announcement
// rewrites every attribute, as it does after a crash that left a file
// empty. The lines of the descriptor helpers carry their own names.
int write_value(int dirfd, const char* key, const char* text, size_t len,
                bool* was_empty = nullptr) {
    struct stat st;
    UniqueFd fd(store_fd_openat(dirfd, key, O_RDWR | O_CREAT, 0666, &st));
    if (!fd) return -1;
    if (was_empty != nullptr) *was_empty = st.st_size == 0;
    if (len > 0 && buf_tx(fd.get(), text, len, 1) != static_cast<ssize_t>(len)) return -1;
    if (st.st_size > static_cast<off_t>(len) && ::ftruncate(fd.get(), static_cast<off_t>(len)) < 0) {
        CV_ERROR_AS("ftruncate", "ftruncate(%s): %s", key, std::strerror(errno));
        return -1;
    }
    // The text is in the file once write returned; a failing close changes
    // nothing in it.
    fd.reset();
    return static_cast<int>(len);
}

// vasprintf with room for one more byte; the text, or null after a message
// under AttrStore's name (the one operation that formats attribute text).
char* format_text(const char* key, int* len, size_t spare, const char* fmt, va_list ap)
    __attribute__((format(printf, 4, 0)));
char* format_text(const char* key, int* len, size_t spare, const char* fmt, va_list ap) {
    char* text = nullptr;
    int n = ::vasprintf(&text, fmt, ap);
    if (n >= 0 && spare > 0) {
        char* grown = static_cast<char*>(std::realloc(text, static_cast<size_t>(n) + 1 + spare));
        if (grown == nullptr) {
            std::free(text);
            n = -1;
        }
        text = grown;
    }
    if (n < 0) {
        CV_ERROR_AS("AttrStore", "vasprintf(%s): %s", key, std::strerror(errno));
        return nullptr;
    }
    *len = n;
    return text;
}

}  // namespace

int StringLoad(int dirfd, const char* key, char* dst, size_t dst_len) {
    assert(dst_len < 256);
    char buf[kAttrFileMax + 1];
    int len = read_value(__func__, dirfd, key, buf);
    if (len == kEmptyFile) return 0;
    if (len < 0) return -1;
    if (static_cast<size_t>(len) > dst_len) {
        CV_ERROR("String too long in %s: %s", key, buf);
        return -1;
    }
    std::memset(dst, 0, dst_len);
    std::memcpy(dst, buf, static_cast<size_t>(len));
    return len;
}

int AttrLoad(int dirfd, const char* key, const char* fmt, ...) {
    char buf[kAttrFileMax + 1];
    int len = read_value(__func__, dirfd, key, buf);
    if (len == kEmptyFile) {
        CV_ERROR("Empty file %s", key);
        return -1;
    }
    if (len < 0) return -1;
    va_list ap;
    va_start(ap, fmt);
    int rc = ::vsscanf(buf, fmt, ap);
    va_end(ap);
    return rc;
}

int AttrStore(int dirfd, const char* key, const char* fmt, ...) {
    int len;
    va_list ap;
    va_start(ap, fmt);
    UniqueChars text(format_text(key, &len, 0, fmt, ap));
    va_end(ap);
    if (!text) return -1;
    return write_value(dirfd, key, text.get(), static_cast<size_t>(len));
}

ssize_t FileLoad(int fd, char** r_buf) {
    off_t size = ::lseek(fd, 0, SEEK_END);
    if (size < 0 || ::lseek(fd, 0, SEEK_SET) < 0) {
        CV_ERROR("lseek(%d): %s", fd, std::strerror(errno));
        return -1;
    }
    if (size == 0) return 0;
    size_t want = static_cast<size_t>(size) + 1;
    UniqueChars buf(static_cast<char*>(std::malloc(want)));
    if (!buf) {
        CV_ERROR("malloc(%zu): %s", want, std::strerror(errno));
        return -1;
    }
    if (buf_rx(fd, buf.get(), want - 1, 1) != static_cast<ssize_t>(want - 1)) return -1;
    buf.get()[want - 1] = '\0';
    *r_buf = buf.release();
    return static_cast<ssize_t>(want - 1);
}

void RecordFlush(const char* op, int dirfd) {
    if (::fsync(dirfd) < 0) CV_WARN_AS(op, "fsync(%d): %s", dirfd, std::strerror(errno));
}

void TraceMkdir(const char* op, const char* path) { CV_DEBUG_AS(op, "%s [MKDIR]", path); }

void TraceSymlink(const char* op, const char* dirpath, const char* name, const char* target) {
    CV_DEBUG_AS(op, "%s/%s [SYMLINK %s]", dirpath, name, target);
}

void TraceUnlink(const char* op, const char* path) { CV_DEBUG_AS(op, "%s [UNLINK]", path); }

void TraceStat(const char* op, const char* path) { CV_DEBUG_AS(op, "%s [STAT]", path); }

void TraceOpen(const char* op, const char* path) { CV_DEBUG_AS(op, "%s [OPEN]", path); }

void ReportLoadFailure(const char* op, const char* dirpath, const char* key, int rc) {
    CV_ERROR_AS(op, "Failed to load %s/%s: %d", dirpath, key, rc);
}

void ReportCompleted(const char* op, const char* kind, const char* id, const char* nodeuuid) {
    CV_INFO_AS(op, "Completed %s %s from Node %s", kind, id, nodeuuid);
}

int StoreMkdir(const char* op, const char* path) {
    TraceMkdir(op, path);
    if (store_mkdir(path, 0777) == 0) return 0;
    if (errno == EEXIST) return 1;
    CV_ERROR_AS(op, "mkdir(%s): %s", path, std::strerror(errno));
    return -1;
}

int RemoveEmptyDir(const char* op, const char* path) {
    if (store_rmdir(path) == 0 || errno == ENOENT) return 0;
    if (errno == ENOTEMPTY || errno == EEXIST) return 1;
    CV_ERROR_AS(op, "rmdir(%s): %s", path, std::strerror(errno));
    return -1;
}

bool store_vpath(StorePath& path, const char* fmt, va_list ap) {
    int n = std::vsnprintf(path, sizeof path, fmt, ap);
    return n >= 0 && static_cast<size_t>(n) <= kStorePathMax;
}

bool store_path(StorePath& path, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    bool fits = store_vpath(path, fmt, ap);
    va_end(ap);
    return fits;
}

int RecordDir::set_path(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    bool fits = store_vpath(path_, fmt, ap);
    va_end(ap);
    if (!fits) {
        path_[0] = '\0';
        return -1;
    }
    return 0;
}

int RecordDir::create() {
    // The top directory is a prefix of the record's path, so it fits too.
    StorePath top;
    const char* last = std::strrchr(path_, '/');
    assert(last != nullptr);
    if (!store_path(top, "%.*s", static_cast<int>(last - path_), path_)) return -1;
    if (StoreMkdir(op_, top) < 0) return -1;
    int there = StoreMkdir(op_, path_);
    if (there < 0 || open() < 0) return -1;
    begin_batch();
    return there;
}

int RecordDir::open() {
    assert(fd_ < 0);
    fd_ = store_fd_open(path_, O_RDONLY | O_DIRECTORY);
    return fd_ < 0 ? -1 : 0;
}

int RecordDir::open_at(const RecordDir& parent, const char* name) {
    assert(fd_ < 0 && parent.fd_ >= 0);
    if (set_path("%s/%s", parent.path_, name) < 0) return -1;
    fd_ = store_fd_openat(parent.fd_, name, O_RDONLY | O_DIRECTORY);
    return fd_ < 0 ? -1 : 0;
}

void RecordDir::close() {
    if (fd_ < 0) return;
    if (batch_) RecordFlush(op_, fd_);
    batch_ = false;
    fd_close(fd_);
    fd_ = -1;
}

int RecordDir::store(const char* key, const char* fmt, ...) {
    assert(fd_ >= 0);
    int len;
    va_list ap;
    va_start(ap, fmt);
    // Formatted once, so the trace shows exactly the bytes that go into the
    // file, less the line feed that is added behind them.
    UniqueChars text(format_text(key, &len, 1, fmt, ap));
    va_end(ap);
    if (!text) return -1;
    CV_DEBUG_AS(op_, "%s/%s=%s", path_, key, text.get());
    text.get()[len] = '\n';
    text.get()[len + 1] = '\0';
    bool was_empty = false;
    const int rc = write_value(fd_, key, text.get(), static_cast<size_t>(len) + 1, &was_empty);
    gaps_ = gaps_ || (watch_ && rc >= 0 && was_empty);
    return rc;
}

int RecordDir::load_u32(const char* key, uint32_t* out) {
    unsigned int v = 0;
    int rc = AttrLoad(fd_, key, "%u", &v);
    if (rc != 1) {
        ReportLoadFailure(op_, path_, key, rc);
        return -1;
    }
    CV_DEBUG_AS(op_, "%s/%s=%u", path_, key, v);
    *out = v;
    return 0;
}

int RecordDir::load_u64(const char* key, unsigned long long* out) {
    unsigned long long v = 0;
    int rc = AttrLoad(fd_, key, "%llu", &v);
    if (rc != 1) {
        ReportLoadFailure(op_, path_, key, rc);
        return -1;
    }
    CV_DEBUG_AS(op_, "%s/%s=%llu", path_, key, v);
    *out = v;
    return 0;
}

int RecordDir::load_text(const char* key, char* dst, size_t dst_len, TextTrace trace) {
    int rc = StringLoad(fd_, key, dst, dst_len);
    if (rc < 0) {
        ReportLoadFailure(op_, path_, key, rc);
        return -1;
    }
    // The field may be full and unterminated: never print past its width.
    int width = static_cast<int>(dst_len);
    if (trace == TextTrace::kWithLength) {
        CV_DEBUG_AS(op_, "%s/%s=%.*s (%d)", path_, key, width, dst, rc);
    } else if (trace == TextTrace::kPlain) {
        CV_DEBUG_AS(op_, "%s/%s=%.*s", path_, key, width, dst);
    }
    return rc;
}

int RecordDir::store_fields(std::span<const AttrField> table, const void* rec) {
    const auto* base = static_cast<const char*>(rec);
    for (const AttrField& f : table) {
        const char* field = base + f.offset;
        int rc;
        if (f.kind == AttrKind::kText) {
            rc = store(f.key, "%.*s", static_cast<int>(f.width), field);
        } else {
            // Little-endian wire fields: the low bytes of a zeroed 64-bit
            // number take the field as it is.
            unsigned long long v = 0;
            std::memcpy(&v, field, f.width);
            rc = f.width == 8 ? store(f.key, "%llu", v) : store(f.key, "%u", static_cast<unsigned>(v));
        }
        if (rc < 0) return -1;
    }
    return 0;
}

int RecordDir::load_fields(std::span<const AttrField> table, void* rec) {
    auto* base = static_cast<char*>(rec);
    for (const AttrField& f : table) {
        char* field = base + f.offset;
        if (f.kind == AttrKind::kText) {
            if (load_text(f.key, field, f.width) < 0) return -1;
        } else if (f.width == 8) {
            unsigned long long v;
            if (load_u64(f.key, &v) < 0) return -1;
            std::memcpy(field, &v, sizeof v);
        } else {
            // Read as 32 bits and narrowed to the field: its low bytes.
            uint32_t v;
            if (load_u32(f.key, &v) < 0) return -1;
            std::memcpy(field, &v, f.width);
        }
    }
    return 0;
}

int RecordDir::mkdir(const char* name) {
    assert(fd_ >= 0);
    CV_DEBUG_AS(op_, "%s/%s [MKDIR]", path_, name);
    if (::mkdirat(fd_, name, 0777) < 0 && errno != EEXIST) {
        CV_ERROR_AS(op_, "mkdir(%s/%s): %s", path_, name, std::strerror(errno));
        return -1;
    }
    return 0;
}

}  // namespace corvald
