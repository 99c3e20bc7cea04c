// Cost of the store primitives next to a bare loop of the very system calls
// each one has to make, in the same run:
//   AttrStore            openat(O_CREAT|O_TRUNC), write, close
//   StringLoad/AttrLoad  openat, lseek(END), lseek(SET), read, close
//   PathLock+PathUnlock  getpid, open(O_CREAT|O_EXCL), write, fsync, close, unlink
//
//   bench_store_ops                 all four pairs, printed as ns/op and ratio
//   bench_store_ops <case> [iters]  one case only (for strace -c -f), where
//                                   case is attrstore, stringload, attrload,
//                                   lock, or bare-<one of those>
//
// Log lines are masked to notice and above, as they would be at the default
// priority for every line but the lock's info lines; the run measures the
// file work, not the system logger.
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "base/config.h"
#include "store/attr.h"
#include "store/lock.h"

using namespace corvald;

namespace {

int g_dirfd = -1;
std::string g_root;

void attrstore(int n) {
    for (int i = 0; i < n; ++i) AttrStore(g_dirfd, "freespace", "%u\n", 123456u);
}

void bare_attrstore(int n) {
    for (int i = 0; i < n; ++i) {
        int fd = ::openat(g_dirfd, "freespace", O_RDWR | O_CREAT | O_TRUNC, 0666);
        if (::write(fd, "123456\n", 7) != 7) std::abort();
        ::close(fd);
    }
}

void stringload(int n) {
    char dst[32];
    for (int i = 0; i < n; ++i) StringLoad(g_dirfd, "name", dst, sizeof(dst));
}

void attrload(int n) {
    unsigned int v;
    for (int i = 0; i < n; ++i) AttrLoad(g_dirfd, "freespace", "%u", &v);
}

void bare_load(const char* key, int n) {
    char buf[256];
    for (int i = 0; i < n; ++i) {
        int fd = ::openat(g_dirfd, key, O_RDONLY);
        off_t size = ::lseek(fd, 0, SEEK_END);
        ::lseek(fd, 0, SEEK_SET);
        if (::read(fd, buf, static_cast<size_t>(size)) != size) std::abort();
        ::close(fd);
    }
}

void bare_stringload(int n) { bare_load("name", n); }
void bare_attrload(int n) { bare_load("freespace", n); }

void lock_pair(int n) {
    for (int i = 0; i < n; ++i) {
        if (PathLock("NODE-7", 750) != 0) std::abort();
        PathUnlock("NODE-7");
    }
}

void bare_lock_pair(int n) {
    std::string path = g_root + "/locks/NODE-7";
    for (int i = 0; i < n; ++i) {
        char pid[16];
        int len = std::snprintf(pid, sizeof(pid), "%d\n", static_cast<int>(::getpid()));
        int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_TRUNC, 0666);
        if (fd < 0 || ::write(fd, pid, static_cast<size_t>(len)) != len) std::abort();
        ::fsync(fd);
        ::close(fd);
        ::unlink(path.c_str());
    }
}

struct Case {
    const char* name;
    void (*run)(int);
    void (*bare)(int);
    int iters;
};

const Case kCases[] = {
    {"attrstore", attrstore, bare_attrstore, 20000},
    {"stringload", stringload, bare_stringload, 20000},
    {"attrload", attrload, bare_attrload, 20000},
    {"lock", lock_pair, bare_lock_pair, 300},
};

double ns_per_op(void (*fn)(int), int n) {
    auto t0 = std::chrono::steady_clock::now();
    fn(n);
    auto t1 = std::chrono::steady_clock::now();
    return std::chrono::duration<double, std::nano>(t1 - t0).count() / n;
}

void setup() {
    const char* base = std::getenv("TMPDIR");
    std::string templ = std::string(base && *base ? base : "/tmp") + "/corvald-bench-XXXXXX";
    if (::mkdtemp(templ.data()) == nullptr) std::abort();
    g_root = templ;
    cfg_work_directory = g_root;
    if (::mkdir((g_root + "/locks").c_str(), 0755) < 0) std::abort();
    g_dirfd = ::open(g_root.c_str(), O_RDONLY | O_DIRECTORY);
    if (g_dirfd < 0) std::abort();
    if (AttrStore(g_dirfd, "name", "%s\n", "datastore-one") < 0) std::abort();
    if (AttrStore(g_dirfd, "freespace", "%u\n", 123456u) < 0) std::abort();
    ::setlogmask(LOG_UPTO(LOG_NOTICE));
}

void teardown() {
    ::close(g_dirfd);
    for (const char* f : {"/name", "/freespace"}) ::unlink((g_root + f).c_str());
    ::rmdir((g_root + "/locks").c_str());
    ::rmdir(g_root.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    setup();
    if (argc >= 2) {
        std::string want = argv[1];
        for (const Case& c : kCases) {
            int n = argc >= 3 ? std::atoi(argv[2]) : c.iters;
            if (want == c.name) c.run(n);
            if (want == std::string("bare-") + c.name) c.bare(n);
        }
        teardown();
        return 0;
    }

    // Rounds alternate the two loops so that drift of the machine hits both;
    // the fastest round of each stands for it.
    const int rounds = 7;
    std::printf("%-12s %12s %12s %7s\n", "operation", "ns/op", "bare ns/op", "ratio");
    for (const Case& c : kCases) {
        c.run(c.iters / 10);  // warm the caches and the file system
        std::vector<double> prim, bare;
        for (int r = 0; r < rounds; ++r) {
            prim.push_back(ns_per_op(c.run, c.iters));
            bare.push_back(ns_per_op(c.bare, c.iters));
        }
        double p = *std::min_element(prim.begin(), prim.end());
        double b = *std::min_element(bare.begin(), bare.end());
        std::printf("%-12s %12.0f %12.0f %7.3f\n", c.name, p, b, p / b);
    }
    teardown();
    return 0;
}
