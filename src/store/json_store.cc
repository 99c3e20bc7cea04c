// The local JSON file store: documents under <root>/v2/ with their metadata
// files, the local-files index, the JSON path locks, and the expiry sweep.
//
// Every path here is built with store_path and refused when it does not
// fit. At most one JSON path lock is held at a time, and each is released
// before the next is taken.
#include "store/json_store.h"

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "base/config.h"
#include "base/counters.h"
#include "base/list_file.h"
#include "base/log.h"
#include "base/unique_file.h"
#include "store/attr.h"
#include "store/lock.h"
#include "store/beneath.h"
#include "util/unique_fd.h"

namespace corvald {

namespace {

constexpr size_t kJsonPathBuf = sizeof(StorePath);  // 256

// The time passed to the sweep that is running; json_file_check ages every
// metadata file against it.
time_t json_timeout_now;

int JsonPathToFilename(const char* src_path, char* dst_path, size_t dst_len) {
    assert(dst_len >= kJsonPathBuf);
    size_t len = ::strnlen(src_path, kJsonPathBuf);
    if (len == 0 || len >= kJsonPathBuf) {
        CV_ERROR("Failed to lock path too long %zu max %zu", len, kJsonPathBuf);
        return -1;
    }
    std::memset(dst_path, 0, dst_len);
    std::memcpy(dst_path, src_path, len);
    // The lock directory is flat: the whole path becomes one file name.
    for (char* p = dst_path; *p != '\0'; ++p) {
        if (*p == '/')
            *p = '|';
    }
    return 0;
}

// store_open(2) with the given flags and permissions (no link followed, a
// regular file only), retried when a signal cuts it short, as a stdio stream
// of mode; nullptr with errno set on failure.
FILE* open_stream(const char* path, int flags, mode_t perm, const char* mode) {
    int fd;
    do {
        fd = store_open(path, flags, perm);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0)
        return nullptr;
    FILE* fp = ::fdopen(fd, mode);
    if (fp == nullptr)
        ::close(fd);
    return fp;
}

// True, after an error line under op, when the index at path (open as fp)
// is larger than a list file is allowed to be: it is then neither read nor
// grown, rather than read whole on every document and every announcement.
bool index_oversized(const char* op, FILE* fp, const char* path) {
    struct stat st;
    if (::fstat(::fileno(fp), &st) < 0 || st.st_size <= static_cast<off_t>(kListFileMax))
        return false;
    CV_ERROR_AS(op, "Oversized file %s: %lld bytes", path, static_cast<long long>(st.st_size));
    return true;
}

// Documents and metadata files are named by peers: like every store file
// they are reached through no link and must be regular files (store_open).
FILE* open_document(const char* path, bool write) {
    if (write)
        return open_stream(path, O_WRONLY | O_CREAT | O_TRUNC, 0666, "wb");
    return open_stream(path, O_RDONLY, 0, "rb");
}

// Closes fp; false when the data still buffered could not be written.
bool close_stream(UniqueFile& fp) {
    return std::fclose(fp.release()) == 0;
}

// Whether a "/"-separated text has a component that is exactly "..".
bool has_dotdot(const char* s) {
    for (const char* c = s;; ++c) {
        const char* end = std::strchr(c, '/');
        size_t len = end == nullptr ? std::strlen(c) : static_cast<size_t>(end - c);
        if (len == 2 && c[0] == '.' && c[1] == '.')
            return true;
        if (end == nullptr)
            return false;
        c = end;
    }
}

// A path without its empty and "." components, so that "v2/./x" and "v2//x"
// compare equal to "v2/x".
std::string lexical(const std::string& path) {
    std::string out;
    for (size_t at = 0; at <= path.size();) {
        size_t end = path.find('/', at);
        if (end == std::string::npos)
            end = path.size();
        std::string part = path.substr(at, end - at);
        if (!part.empty() && part != ".")
            out += "/" + part;
        at = end + 1;
    }
    return out;
}

// Why an entry must not be stored or deleted, or nullptr when it may.
const char* entry_fault(const jsonEntry* e) {
    if (std::memchr(e->nodeuuid, '\0', sizeof e->nodeuuid) == nullptr ||
        std::memchr(e->path, '\0', sizeof e->path) == nullptr ||
        std::memchr(e->filename, '\0', sizeof e->filename) == nullptr) {
        return "unterminated text";
    }
    // The index has one document per line: a line feed in a name would add a
    // line of the sender's choosing, naming any file for re-announcement.
    if (std::strchr(e->path, '\n') != nullptr || std::strchr(e->filename, '\n') != nullptr)
        return "line feed";
    // The document is path and filename joined as they come; the directory
    // is path alone ("a/." and "." join to "a/..", ".." and "x" to "..x").
    // Both are put behind "<root>/v2/", so a leading "/" stays in the tree
    // ("/etc/" is <root>/v2//etc/): only a ".." component leaves it.
    std::string joined = std::string(e->path) + e->filename;
    if (has_dotdot(joined.c_str()) || has_dotdot(e->path))
        return "outside the JSON tree";
    // A document (or its metadata) at the index's place would let a peer
    // rewrite the list of what this host re-announces.
    const std::string root = cfg_work_directory;
    const std::string doc = lexical(root + "/v2/" + joined);
    const std::string index = lexical(root + cfg_local_files);
    for (const std::string& f : {doc, doc + ".mtd"}) {
        if (f == index || f == index + ".tmp")
            return "the local files index";
    }
    return nullptr;
}


// 1 when the index file_path holds the line search_line (search_line_len
// bytes, its line feed included), else 0. A missing index is created empty.
int json_store_is_line_in_file(const char* file_path, const char* search_line,
                               size_t search_line_len) {
    UniqueFile fp(open_stream(file_path, O_RDONLY, 0, "r"));
    if (!fp) {
        UniqueFd fd(store_open(file_path, O_RDWR | O_CREAT, 0777));
        return 0;
    }
    // An index too large to read counts as listing the document: it must
    // not grow further.
    if (index_oversized(__func__, fp.get(), file_path))
        return 1;
    int found = 0;
    for_each_line(fp.get(), [&](const char* line, size_t len) {
        found = len >= search_line_len && std::memcmp(line, search_line, search_line_len) == 0;
        return !found;
    });
    return found;
}

// Drops every line equal to line (line_len bytes, line feed included) from
// the index into the temporary index, then puts the copy in the index's
// place. The caller holds the index lock. 0 or -4 .. -7.
int json_index_drop_line(const char* index, const char* tmp, const char* line, size_t line_len,
                         const char* file) {
    int rc = 0;
    UniqueFile in(open_stream(index, O_RDONLY, 0, "r"));
    // An oversized index is left as it is, not replaced by a partial copy.
    if (in && index_oversized("json_delete_local_files", in.get(), index))
        return -5;
    UniqueFile out(open_stream(tmp, O_WRONLY | O_CREAT | O_APPEND, 0777, "a"));
    if (!in || !out) {
        CV_ERROR_AS("json_delete_local_files", "Failed to open local_files %s", index);
        rc = -5;
        // Without a copy there is nothing to put in the index's place.
        if (!out)
            return rc;
        in.reset();
    } else {
        for_each_line(in.get(), [&](const char* b, size_t len) {
            if (len >= line_len && std::memcmp(b, line, line_len) == 0)
                return true;
            if (std::fwrite(b, len, 1, out.get()) != 1) {
                CV_ERROR_AS("json_delete_local_files", "Failed to write %s in file %s", file,
                            index);
                rc = -4;
            }
            return true;
        });
        in.reset();
    }
    if (!close_stream(out)) {
        CV_ERROR_AS("json_delete_local_files", "Failed to write %s in file %s", file, index);
        rc = -4;
    }
    // The rename makes a leftover copy of an interrupted run the index, and
    // an index that never existed an empty one.
    if (store_unlink(index) < 0) {
        CV_WARN_AS("json_delete_local_files", "failed unlink(%s): %s", index, std::strerror(errno));
        rc = -6;
    }
    if (store_rename(tmp, index) < 0) {
        CV_WARN_AS("json_delete_local_files", "failed rename(%s): %s", tmp, std::strerror(errno));
        rc = -7;
    }
    return rc;
}

// The sweep's walk; FTW_PHYS reports a link as a link, so it is passed over
// and the walk never leaves the tree through one.
int json_walk_entry(const char* path, const struct stat* info, int typeflag, struct FTW*) {
    return json_file_check(path, info, typeflag);
}

}  // namespace

int mkdir_p(const char* dir, mode_t mode) {
    size_t len = ::strnlen(dir, kJsonPathBuf);
    if (len == 0 || len >= kJsonPathBuf) {
        CV_ERROR("Failed to make directory too long path max %d", static_cast<int>(kJsonPathBuf));
        return -1;
    }
    StorePath path = {};
    std::memcpy(path, dir, len);
    if (path[len - 1] == '/')
        path[len - 1] = '\0';
    struct stat st;
    if (store_lstat(path, &st) == 0 && S_ISDIR(st.st_mode))
        return 0;
    // Every prefix below the store root in turn, then the whole path (p at
    // its end); the root and what is above it are not the store's to make.
    const size_t root_len = cfg_work_directory.size();
    const bool below = std::strncmp(path, cfg_work_directory.c_str(), root_len) == 0 &&
                       path[root_len] == '/';
    for (char* p = path + (below ? root_len + 1 : 1);; ++p) {
        if (*p != '/' && *p != '\0')
            continue;
        const char keep = *p;
        *p = '\0';
        if (store_lstat(path, &st) < 0) {
            if (store_mkdir(path, mode) < 0) {
                CV_ERROR("Failed to make directory %s with mode %3o", path,
                         static_cast<unsigned>(mode));
                return -1;
            }
        } else if (!S_ISDIR(st.st_mode)) {
            CV_ERROR("Failed to make directory %s where are file in path", path);
            return -1;
        }
        if (keep == '\0')
            return 0;
        *p = keep;
    }
}

int json_store_handle_ping(jsonEntry* jsonobj, const char* json) {
    // Refused before the trace too: it prints the texts whole.
    if (json_entry_refused(__func__, jsonobj))
        return -1;
    CV_DEBUG("json_store_handle_ping from node %s path %s filename %s", jsonobj->nodeuuid,
             jsonobj->path, jsonobj->filename);
    const char* root = cfg_work_directory.c_str();
    StorePath dir;
    if (!store_path(dir, "%s%s/%s", root, "/v2", jsonobj->path)) {
        CV_ERROR("too big directory path %s", jsonobj->path);
        return -1;
    }
    HeldLock lock;
    if (lock.take(JsonLockName(dir)) < 0)
        return -1;
    // A failure here is reported and the store goes on: the open below then
    // fails in the usual case, with its own line.
    if (mkdir_p(dir, 0777) < 0)
        CV_ERROR("Failed to make directory %s where are file in path", jsonobj->path);
    lock.release();

    StorePath file;
    if (!store_path(file, "%s%s", dir, jsonobj->filename)) {
        CV_ERROR("too big file path %s", jsonobj->filename);
        return -1;
    }
    if (lock.take(JsonLockName(file)) < 0)
        return -1;
    UniqueFile fp(open_document(file, true));
    if (!fp) {
        CV_ERROR("Failed to open for write file path %s", file);
        return -1;
    }
    // An empty text writes no item and counts as a failure too.
    if (std::fwrite(json, jsonobj->jsonlen, 1, fp.get()) != 1) {
        CV_ERROR("Failed to store file %s", jsonobj->filename);
        return -1;
    }
    StorePath mtd;
    if (!store_path(mtd, "%s%s", file, ".mtd")) {
        CV_ERROR("too big metadata path %s", mtd);
        return -1;
    }
    jsonobj->lastping = std::time(nullptr);
    // The json field would publish an address of this daemon's memory to
    // every reader of the store; readers ignore it.
    jsonEntry rec = *jsonobj;
    rec.json = 0;
    if (json_interact_metadata(mtd, &rec, SAVE) < 0) {
        CV_ERROR("Failed to store metadata");
        return -1;
    }
    // Closed only now, after the metadata: the lock covers both files. A
    // close that fails could not write the text out after all.
    if (!close_stream(fp)) {
        CV_ERROR("Failed to store file %s", jsonobj->filename);
        return -1;
    }
    ++store_counters.documents_stored;
    return 0;
}

int json_write_local_files(jsonEntry* jsonobj, const char* json) {
    if (json_entry_refused(__func__, jsonobj))
        return -1;
    if (json_store_handle_ping(jsonobj, json) < 0) {
        CV_ERROR("STORE JSON Failed to write local files to DB");
        return -1;
    }
    const char* root = cfg_work_directory.c_str();
    StorePath line;
    if (!store_path(line, "%s%s/%s%s\n", root, "/v2", jsonobj->path, jsonobj->filename)) {
        CV_ERROR("too big file path %s", jsonobj->path);
        return -1;
    }
    const size_t n = std::strlen(line);
    StorePath index;
    if (json_index_path(__func__, index) < 0)
        return -1;
    HeldLock lock;
    if (lock.take(JsonLockName(index)) < 0)
        return 0;  // stored, not listed
    if (json_store_is_line_in_file(index, line, n) == 1) {
        CV_DEBUG("file %s alredy present in %s", line, index);
        return 0;
    }
    UniqueFile fp(open_stream(index, O_WRONLY | O_CREAT | O_APPEND, 0777, "a"));
    if (!fp) {
        CV_ERROR("Failed to open for write file %s", index);
        return -1;
    }
    if (std::fwrite(line, n, 1, fp.get()) != 1 || !close_stream(fp)) {
        CV_ERROR("Failed to write %s in file %s", line, index);
        return -1;
    }
    return 0;
}

int json_delete_local_files(const jsonEntry* jsonobj) {
    if (json_entry_refused(__func__, jsonobj))
        return -1;
    const char* root = cfg_work_directory.c_str();
    StorePath file, index, tmp;
    if (!store_path(file, "%s%s/%s%s", root, "/v2", jsonobj->path, jsonobj->filename)) {
        CV_ERROR("too big file path %s", jsonobj->path);
        return -1;
    }
    if (json_index_path(__func__, index) < 0)
        return -2;
    if (!store_path(tmp, "%s.tmp", index)) {
        CV_ERROR("too long path %s.tmp for tmp local_files", cfg_local_files.c_str());
        return -3;
    }
    // The line of a 255-byte path needs one byte more than a path.
    char line[kJsonPathBuf + 1];
    const size_t n = std::strlen(file) + 1;
    std::memcpy(line, file, n - 1);
    line[n - 1] = '\n';
    line[n] = '\0';

    int rc = 0;
    HeldLock lock;
    // Without the index lock the index stays as it is; the files still go.
    if (lock.take(JsonLockName(index)) == 0) {
        rc = json_index_drop_line(index, tmp, line, n, file);
        lock.release();
    }
    if (lock.take(JsonLockName(file)) < 0)
        return rc;
    if (store_unlink(file) < 0) {
        CV_WARN("failed unlink(%s): %s", file, std::strerror(errno));
        rc = -8;
    }
    StorePath mtd;
    if (!store_path(mtd, "%s%s", file, ".mtd")) {
        CV_ERROR("too big metadata path %s", mtd);
        return -9;
    }
    if (store_unlink(mtd) < 0) {
        CV_WARN("failed unlink(%s): %s", mtd, std::strerror(errno));
        rc = -10;
    }
    return rc;
}

int json_interact_metadata(const char* path, jsonEntry* jsonobj, interactMetadata type) {
    if (path == nullptr || jsonobj == nullptr)
        return -1;
    const bool save = type == SAVE;
    const char* verb = save ? "save" : "load";
    UniqueFile fp(open_document(path, save));
    if (!fp) {
        CV_ERROR("Failed to %s metadata with path %s", verb, path);
        return -1;
    }
    size_t moved = save ? std::fwrite(jsonobj, sizeof *jsonobj, 1, fp.get())
                        : std::fread(jsonobj, sizeof *jsonobj, 1, fp.get());
    if (moved != 1 || !close_stream(fp)) {
        CV_ERROR("Failed to %s metadata with file %s", verb, path);
        return -1;
    }
    return 0;
}

int json_timeout_check(time_t now) {
    json_timeout_now = now;
    const char* root = cfg_work_directory.c_str();
    StorePath tree;
    if (!store_path(tree, "%s%s/", root, "/v2")) {
        CV_ERROR("too big DB path %s", root);
        return -1;
    }
    // The walk starts at the tree's path: it must not lead through a link.
    struct stat st;
    if (store_lstat(tree, &st) < 0) {
        if (errno == ENOENT)
            return 0;
        CV_ERROR("lstat(%s): %s", tree, std::strerror(errno));
        return -1;
    }
    return ::nftw(tree, json_walk_entry, 10, FTW_PHYS);
}

int json_file_check(const char* filepath, const struct stat* /*info*/, int typeflag) {
    if (typeflag != FTW_F)
        return 0;
    const char* slash = std::strrchr(filepath, '/');
    const char* base = slash == nullptr ? filepath : slash + 1;
    const char* dot = std::strrchr(base, '.');
    // No metadata file: a document named without a "." after its first
    // character, or the index itself. Passed over like any other document,
    // so that the files the walk reaches after it are still checked.
    if (dot == nullptr || dot == base)
        return 0;
    if (std::strcmp(dot, ".mtd") != 0)
        return 0;
    jsonEntry rec = {};
    if (json_interact_metadata(filepath, &rec, LOAD) < 0)
        return 0;
    double age = std::difftime(json_timeout_now, static_cast<time_t>(rec.lastping));
    if (age > 0 && age > cfg_json_ping_interval * 5.0) {
        // The record comes from a file; its name is printed within its width
        // (the delete refuses it if it is unterminated).
        CV_NOTICE("Delete local files %.*s due to timeout %gs",
                  static_cast<int>(::strnlen(rec.filename, sizeof rec.filename)), rec.filename,
                  age);
        ++store_counters.documents_expired;
        json_delete_local_files(&rec);
    }
    return 0;
}

LockName JsonLockName(const char* path) {
    LockName ln = {};
    ln.timeout_ms = cfg_path_lock_timeout_ms;
    ln.fits = JsonPathToFilename(path, ln.text, sizeof ln.text) == 0;
    return ln;
}

bool json_entry_refused(const char* op, const jsonEntry* jsonobj) {
    const char* fault = entry_fault(jsonobj);
    if (fault == nullptr)
        return false;
    CV_ERROR_AS(op, "Refused JSON path %.63s filename %.31s: %s", jsonobj->path, jsonobj->filename,
                fault);
    return true;
}

bool json_file_in_tree(const char* filepath) {
    const std::string prefix = cfg_work_directory + "/v2/";
    return std::strncmp(filepath, prefix.c_str(), prefix.size()) == 0 && !has_dotdot(filepath) &&
           std::strchr(filepath, '\n') == nullptr;
}

int json_index_path(const char* op, StorePath& index) {
    if (store_path(index, "%s%s", cfg_work_directory.c_str(), cfg_local_files.c_str()))
        return 0;
    CV_ERROR_AS(op, "too long path %s for local_files", cfg_local_files.c_str());
    return -1;
}

void json_index_lines(const char* index, const std::function<bool(char* file)>& each) {
    UniqueFile fp(open_stream(index, O_RDONLY, 0, "r"));
    if (!fp || index_oversized(__func__, fp.get(), index))
        return;
    for_each_line(fp.get(), [&](char* line, size_t len) {
        if (len > 0 && line[len - 1] == '\n')
            line[len - 1] = '\0';
        return each(line);
    });
}

int json_load_metadata(const char* file, jsonEntry* jsonobj) {
    StorePath mtd;
    if (!store_path(mtd, "%s.mtd", file))
        return -2;
    return json_interact_metadata(mtd, jsonobj, LOAD);
}

ssize_t json_read_document(const char* file, char* text, size_t cap) {
    UniqueFd fd(store_open(file, O_RDONLY));
    if (!fd)
        return -1;
    size_t got = 0;
    while (got < cap) {
        ssize_t n = ::read(fd.get(), text + got, cap - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        got += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(got);
}

}  // namespace corvald
