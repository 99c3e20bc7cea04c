// Attribute files of the store: one value and a line feed per file, read and
// rewritten in place through a descriptor of the record directory that holds
// them. Also the pieces every record operation shares: the record directory
// owner with its traced writes and reported loads, the one flush per batch,
// the debug trace lines of the other store steps and the load-failure report.
#pragma once

#include <sys/types.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <span>
#include <type_traits>
#include <utility>

namespace corvald {

// Longest store path.
constexpr size_t kStorePathMax = 255;
// A store path, built by store_path only.
using StorePath = char[kStorePathMax + 1];
// Formats a store path (the root, then its components) into path. False
// when it would be longer than kStorePathMax: the path is refused, and the
// step that wanted it fails (path then holds its first 255 bytes, for that
// step's message only). Nothing is logged here.
[[nodiscard]] bool store_path(StorePath& path, const char* fmt, ...)
    __attribute__((format(printf, 2, 3)));
[[nodiscard]] bool store_vpath(StorePath& path, const char* fmt, va_list ap)
    __attribute__((format(printf, 2, 0)));
// Longest attribute file content a reader accepts (value and line feed).
constexpr size_t kAttrFileMax = 255;

// Reads the text of key (dst_len < 256) into dst, zero-filled to dst_len and
// not terminated when the text fills it; the text length, or -1. An empty
// file returns 0 and leaves dst untouched.
int StringLoad(int dirfd, const char* key, char* dst, size_t dst_len);
// Reads key and converts it with vsscanf(fmt); the conversion's result, or
// -1 when the file could not be read.
int AttrLoad(int dirfd, const char* key, const char* fmt, ...) __attribute__((format(scanf, 3, 4)));
// Rewrites key (created 0666, truncated) with the formatted text; the bytes
// written, or -1 (the file may then be left truncated or partial). No flush.
int AttrStore(int dirfd, const char* key, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
// Reads the whole open file fd into a new NUL-terminated buffer stored in
// *r_buf (the caller frees it); the byte count, 0 for an empty file (nothing
// stored), or -1.
ssize_t FileLoad(int fd, char** r_buf);

// fsync of a record directory after a batch of writes; a failure is only a
// warning under op's name.
void RecordFlush(const char* op, int dirfd);

// Debug trace lines of the store steps, each logged under op's name before
// the step is taken. Paths are shown whole ("<root>/Node" for a top
// directory, "<record>/vdisks" for a subdirectory).
void TraceMkdir(const char* op, const char* path);
void TraceSymlink(const char* op, const char* dirpath, const char* name, const char* target);
void TraceUnlink(const char* op, const char* path);
void TraceStat(const char* op, const char* path);
void TraceOpen(const char* op, const char* path);

// "Failed to load <dirpath>/<key>: <rc>" under op's name.
void ReportLoadFailure(const char* op, const char* dirpath, const char* key, int rc);
// "Completed <kind> <id> from Node <nodeuuid>" under op's name: a record
// found incomplete was completed from that node's announcement.
void ReportCompleted(const char* op, const char* kind, const char* id, const char* nodeuuid);

// Makes a store directory (0777) after its trace line; one that exists
// already counts as made. 0 when made, 1 when it was there, or -1 after
// "mkdir(<path>): <error>".
int StoreMkdir(const char* op, const char* path);

// Removes the directory path if it is empty: how a record learns whether any
// member is left without reading the directory, and with nothing to race
// with. 0 when removed (or already gone), 1 when entries remain, -1 after
// "rmdir(<path>): <error>" under op's name.
int RemoveEmptyDir(const char* op, const char* path);

// How RecordDir::load_text traces the value it read.
enum class TextTrace {
    kWithLength,  // "<dir>/<key>=<text> (<length>)"
    kPlain,       // "<dir>/<key>=<text>"
    kNone,        // the caller parses the text and traces it itself
};

// One attribute of a record table: the attribute file's key and the wire
// record field it holds, by offset and width. A table lists a record's
// attributes in the order an operation writes or reads them, so one table
// serves the writer, the loader and both their traces.
enum class AttrKind : uint8_t {
    kNumber,  // unsigned field of 1, 2, 4 ("%u") or 8 ("%llu") bytes
    kText,    // fixed-width text ("%.*s" with the width; loaded with StringLoad)
};
struct AttrField {
    const char* key;
    AttrKind kind;
    size_t offset;  // of the field in its wire record
    size_t width;   // the field's size in bytes
};

template <class T>
constexpr AttrKind attr_kind_of() {
    if constexpr (std::is_array_v<T>) {
        static_assert(std::is_same_v<std::remove_extent_t<T>, char>, "text fields are char arrays");
        return AttrKind::kText;
    } else {
        static_assert(std::is_unsigned_v<T> && sizeof(T) <= 8, "numbers are unsigned wire fields");
        return AttrKind::kNumber;
    }
}

}  // namespace corvald

// The table entry of field (a member designator such as revision.freespace)
// of the wire record Rec, stored under key.
#define CV_ATTR(key, Rec, field)                                                              \
    ::corvald::AttrField {                                                                    \
        key,                                                                                  \
            ::corvald::attr_kind_of<std::remove_cvref_t<decltype(std::declval<Rec&>().field)>>(), \
            offsetof(Rec, field), sizeof(std::declval<Rec&>().field)                          \
    }

namespace corvald {

// One record directory opened for one operation: its descriptor, the path
// shown in trace and failure lines, and the operation whose name those lines
// carry. Closed when the owner goes away; when a batch was begun it is first
// flushed once, whichever way the batch ended.
class RecordDir {
public:
    explicit RecordDir(const char* op) : op_(op) {}
    ~RecordDir() { close(); }
    RecordDir(const RecordDir&) = delete;
    RecordDir& operator=(const RecordDir&) = delete;

    // Builds the path with store_path; 0, or -1 without a message (and the
    // path empty) when it is over 255 bytes.
    int set_path(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    // Makes the top directory (path() without its last component) and the
    // record directory, each after its "[MKDIR]" trace (existing ones count
    // as made), opens the record and begins a batch; 0 when the record
    // directory was made, 1 when it was there already, or -1 (logged).
    int create();
    // Opens path() read-only as a directory; 0 or -1 (the open is logged).
    int open();
    // Opens name inside parent, shown as "<parent>/<name>"; 0, or -1 (path
    // over 255 bytes: no message; open failure: logged by the open).
    int open_at(const RecordDir& parent, const char* name);
    // Takes an already open directory descriptor of path().
    void adopt(int fd) { fd_ = fd; }
    // From now on the directory is flushed once before it is closed.
    void begin_batch() { batch_ = true; }
    // Flushes (if a batch was begun) and closes now; nothing if not open.
    void close();
    // From now on store() first looks whether the file it rewrites is
    // missing or empty (one fstatat per write, until one is found);
    // had_gaps() tells whether one was.
    void watch_gaps() { watch_ = true; }
    bool had_gaps() const { return gaps_; }

    int fd() const { return fd_; }
    const char* path() const { return path_; }
    const char* op() const { return op_; }

    // Traces "<path>/<key>=<value>" and rewrites key with the value and a
    // line feed (AttrStore's rules); bytes written or -1.
    int store(const char* key, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
    // Load key as "%u" / "%llu" into *out and trace it; 0, or -1 after the
    // load-failure report (any conversion result other than 1 fails).
    int load_u32(const char* key, uint32_t* out);
    int load_u64(const char* key, unsigned long long* out);
    // StringLoad of key into dst (dst_len), traced as asked; the length, or
    // -1 after the load-failure report.
    int load_text(const char* key, char* dst, size_t dst_len, TextTrace trace = TextTrace::kWithLength);
    // Writes every field of table from the wire record rec, in table order,
    // each with store()'s trace; 0, or -1 at the first failed write.
    int store_fields(std::span<const AttrField> table, const void* rec);
    // Loads every field of table into the wire record rec, in table order:
    // numbers with load_u32 (narrowed to the field's width) or load_u64,
    // texts with load_text traced with their length. 0, or -1 after the
    // load-failure report of the first key that fails (fields before it
    // stay filled).
    int load_fields(std::span<const AttrField> table, void* rec);
    // Makes the subdirectory name (0777) after "<path>/<name> [MKDIR]"; an
    // existing one counts as made. 0, or -1 after "mkdir(<path>/<name>): ...".
    int mkdir(const char* name);

private:
    const char* op_;
    int fd_ = -1;
    bool batch_ = false;
    bool watch_ = false;
    bool gaps_ = false;
    StorePath path_ = {};
};

}  // namespace corvald
