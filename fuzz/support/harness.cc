// The seeded store of the fuzz targets, their checks and their log.
#include "support/harness.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/config.h"
#include "support/store_builder.h"

// The harness's own code is left out of the coverage map: its seeding and
// checks run a varying number of times per input and would make inputs look
// new that only triggered a wipe.
#pragma clang attribute push(__attribute__((no_sanitize("coverage"))), apply_to = function)

namespace {

char g_name[64];
char g_top[256];
char g_store[300];
char g_sentinel[300];
bool g_log_to_stderr = false;

// The seeded store. Uuids are 14 characters, as the daemon's peers send them.
#define PLAIN "5f3a9c0e1b2d47"
#define SNAP "0c71e2aa9f3b10"
#define LONE "9e8d7c6b5a4f30"
#define DS "ds01"

// Nodes 1 and 2 belong to the data store and hold members of the plain
// VDisk and its snapshot; node 3 belongs to no data store and is the only
// member of a third VDisk. Every generation count is 4.
const corvald::test::StoreBuilder& seed_store() {
    static const corvald::test::StoreBuilder store = [] {
        corvald::test::StoreBuilder b;
        b.node(1, "v1.8").node(2, "v1.7").node(3, "v2.0").datastore(DS, {1, 2});
        b.vdisk(PLAIN, {1, 2}, "", DS, 4).vdisk(SNAP, {1, 2}, PLAIN, DS, 4);
        return b.vdisk(LONE, {3}, "", "", 4);
    }();
    return store;
}

// Seeded entries whose absence means an input removed a seeded member or
// membership: the store is seeded again before the next input.
const char* const kMarkers[] = {
    "VDisk/" PLAIN "/memberinfo/1", "VDisk/" PLAIN "/memberinfo/2", "VDisk/" SNAP "/memberinfo/1",
    "VDisk/" SNAP "/memberinfo/2",  "VDisk/" LONE "/memberinfo/3",  "Datastore/" DS "/members/1",
    "Datastore/" DS "/members/2",   "Node/1/datastoremember",       "Node/2/datastoremember",
};

// The store root's own entries: anything else there was written by a path
// that missed its record directory.
const char* const kStoreTop[] = {"Node", "Datastore", "VDisk", "locks", "v2"};

[[noreturn]] void die(const char* what, const char* detail) {
    std::fprintf(stderr, "%s_fuzz: %s: %s (store left in %s)\n", g_name, what, detail, g_top);
    std::abort();
}

[[noreturn]] void die_errno(const char* what, const char* path) {
    char detail[600];
    std::snprintf(detail, sizeof detail, "%s: %s", path, std::strerror(errno));
    die(what, detail);
}

void path_in(char* out, size_t size, const char* dir, const char* rel) {
    if (static_cast<size_t>(std::snprintf(out, size, "%s/%s", dir, rel)) >= size)
        die("path too long", rel);
}

int remove_one(const char* path, const struct stat*, int type, struct FTW*) {
    return type == FTW_DP ? ::rmdir(path) : ::unlink(path);
}

void remove_tree(const char* path) {
    if (::nftw(path, remove_one, 16, FTW_DEPTH | FTW_PHYS) != 0 && errno != ENOENT)
        die_errno("cannot remove", path);
}

// Writes every seed entry (the store is wiped before, so none is there).
void seed() {
    if (!seed_store().write(g_store))
        die("cannot seed", g_store);
}

// Removes every record (everything in the store root but "locks", which the
// checks keep empty) and seeds the store again.
void wipe_and_seed() {
    char path[512];
    for (const char* top : kStoreTop) {
        if (std::strcmp(top, "locks") == 0)
            continue;
        path_in(path, sizeof path, g_store, top);
        remove_tree(path);
    }
    seed();
}

bool markers_present() {
    char path[512];
    struct stat st;
    for (const char* m : kMarkers) {
        path_in(path, sizeof path, g_store, m);
        if (::lstat(path, &st) != 0)
            return false;
    }
    return true;
}

// Calls fn for every entry of dir but "." and ".."; dies when dir cannot be
// read (a removed sentinel, store root or locks directory).
template <class Fn>
void for_each_entry(const char* dir, Fn fn) {
    DIR* d = ::opendir(dir);
    if (d == nullptr)
        die_errno("cannot read", dir);
    while (const struct dirent* e = ::readdir(d)) {
        if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0)
            continue;
        fn(e->d_name);
    }
    ::closedir(d);
}

template <size_t N>
bool one_of(const char* name, const char* const (&names)[N]) {
    for (const char* n : names)
        if (std::strcmp(name, n) == 0)
            return true;
    return false;
}

// The invariants of the store after any datagram.
void check_store() {
    for_each_entry(g_sentinel,
                   [](const char* name) { die("entry in the sentinel directory", name); });
    const char* const beside[] = {"store", "sentinel"};
    for_each_entry(g_top, [&](const char* name) {
        if (!one_of(name, beside))
            die("entry beside the store", name);
    });
    for_each_entry(g_store, [](const char* name) {
        if (!one_of(name, kStoreTop))
            die("unexpected entry in the store root", name);
    });
    char locks[512];
    path_in(locks, sizeof locks, g_store, "locks");
    for_each_entry(locks, [](const char* name) { die("lock file left behind", name); });
}

void remove_top() {
    remove_tree(g_top);
}

void setup_top() {
    // tmpfs keeps the many small writes and flushes of the store cheap.
    struct stat st;
    const char* base = "/dev/shm";
    if (::stat(base, &st) != 0 || !S_ISDIR(st.st_mode) || ::access(base, W_OK | X_OK) != 0) {
        base = std::getenv("TMPDIR");
        if (base == nullptr || *base == '\0')
            base = "/tmp";
    }
    std::snprintf(g_top, sizeof g_top, "%s/corvald-%s-fuzz-XXXXXX", base, g_name);
    if (::mkdtemp(g_top) == nullptr)
        die_errno("mkdtemp", g_top);
    path_in(g_store, sizeof g_store, g_top, "store");
    path_in(g_sentinel, sizeof g_sentinel, g_top, "sentinel");
    char locks[512];
    path_in(locks, sizeof locks, g_store, "locks");
    const char* const dirs[] = {g_store, g_sentinel, locks};
    for (const char* dir : dirs)
        if (::mkdir(dir, 0777) != 0)
            die_errno("mkdir", dir);
    std::atexit(remove_top);

    // As the daemon runs: its umask, settings from the defaults with the
    // store here, no lock waits (nothing else holds a lock, and a lock left
    // behind is reported, not waited for) and a fence check that returns at
    // once. The daemon also enters its work directory; the target does not,
    // since libFuzzer reads and writes its corpus and artifact paths relative
    // to the directory it was started in (store paths never rely on it).
    ::umask(022);
    corvald::config_module_setup();
    corvald::cfg_work_directory = g_store;
    corvald::cfg_node_lock_timeout_ms = 0;
    corvald::cfg_datastore_lock_timeout_ms = 0;
    corvald::cfg_vdisk_lock_timeout_ms = 0;
    corvald::cfg_path_lock_timeout_ms = 0;
    corvald::cfg_fence_check = "/bin/true";
    const char* log = std::getenv("CORVALD_FUZZ_LOG");
    g_log_to_stderr = log != nullptr && *log != '\0' && std::strcmp(log, "0") != 0;
    const bool debug = g_log_to_stderr && std::strcmp(log, "debug") == 0;
    ::setlogmask(LOG_UPTO(debug ? LOG_DEBUG : LOG_ERR));

    seed();
    check_store();
}

// Every line the daemon logs is formatted, as the system logger would, so
// that a text field printed beyond its width or a placeholder without its
// argument shows up here; it reaches standard error only when asked for.
__attribute__((format(printf, 2, 0))) void log_line(int pri, const char* fmt, va_list ap) {
    if ((LOG_MASK(LOG_PRI(pri)) & ::setlogmask(0)) == 0)
        return;
    char line[2048];
    std::vsnprintf(line, sizeof line, fmt, ap);
    if (g_log_to_stderr)
        std::fprintf(stderr, "%s\n", line);
}

}  // namespace

// The log of this program: formatted and dropped (see log_line), never sent
// to the machine's system logger at the rate of a fuzzer.
extern "C" void syslog(int pri, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    log_line(pri, fmt, ap);
    va_end(ap);
}

// The same for code built with _FORTIFY_SOURCE, whose syslog() calls become
// __syslog_chk().
extern "C" __attribute__((format(printf, 3, 4))) void __syslog_chk(int pri, int, const char* fmt,
                                                                   ...) {
    va_list ap;
    va_start(ap, fmt);
    log_line(pri, fmt, ap);
    va_end(ap);
}


namespace harness {

void setup(const char* name) {
    std::snprintf(g_name, sizeof g_name, "%s", name);
    setup_top();
}

void wipe_and_seed() { ::wipe_and_seed(); }

bool markers_present() { return ::markers_present(); }

void check_store() { ::check_store(); }

const char* store_root() { return g_store; }

}  // namespace harness

#pragma clang attribute pop
