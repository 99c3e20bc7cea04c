// Cost of one ping cycle (send_pings: load, build, send) of a local node with
// 400 VDisks, next to a bare program that makes only the file, lock and send
// calls such a cycle has to make, on the work disk and on tmpfs:
//   node        lock; open Node/1, 19 attribute loads, close; open Node/1
//               again, fstatat and load of datastoremember, close; opendir of
//               Node/1/vdisks, lstat of every entry, closedir; unlock
//   data store  lock; open, 7 attribute loads, close; unlock
//   sends       DS_PING and AUX_PING
//   per VDisk   lock; open the record, fstatat transaction_id, 9 loads; open
//               memberinfo and memberinfo/1, 6 loads; membership and frontend
//               read whole; three closes; unlock
//   send        PING
// where a lock is getpid, open(O_CREAT|O_EXCL), write, fsync, close and its
// release an unlink, and an attribute load openat, lseek(END), lseek(SET),
// read, close (a list file is read the same way).
//
//   bench_announce              both media: calls per cycle, time per cycle
//   bench_announce cycles <real|bare> <store root> <port> <n>
//                               n cycles on a made store, sending to
//                               127.0.0.1:port (what strace -c -f watches)
//
// The calls of one cycle are those of two cycles less those of one, each
// run counted by strace -c -f: that leaves out the start-up of the process
// and the first cycle's growth of the heap, and keeps a cycle as the daemon
// repeats it.
//
// The message buffer is the daemon's default of 65536 bytes. A VDisk block
// here is 137 bytes (entry 125, two members, one frontend), so the PING is
// 207 + 400 x 137 = 55007 bytes: it is built, and it is also below the
// 65507 bytes a UDP datagram can carry, so sendto takes it whole.
//
// Log lines are masked to notice and above, as in bench_store_ops: the run
// measures the store and the socket, not the system logger.
#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/config.h"
#include "controller/controller_internal.h"
#include "store/attr.h"
#include "store/object.h"
#include "util/misc.h"

using namespace corvald;

namespace {

constexpr int kVDisks = 400;
constexpr size_t kBuffer = 65536;  // the daemon's default msg_buffer_size
constexpr size_t kBlock = 125 + 2 * 4 + 4;
constexpr size_t kPing = 207 + kVDisks * kBlock;
constexpr int kRounds = 20;

constexpr const char* kNodeKeys[] = {
    "version",          "nodestatus",       "vendor",   "model",          "freespace",
    "utilization",      "revision",         "serial",   "hbtl",           "size",
    "backupchannel",    "performance",      "hostid",   "allocatedspace", "curvdisks",
    "curvdisksforctrl", "maxvdisksforctrl", "memtotal", "memavail"};
constexpr const char* kDatastoreKeys[] = {"uuid",     "name",    "description", "sector_size",
                                          "replicas", "stripes", "overcommit"};
constexpr const char* kVDiskKeys[] = {"uuid",    "name",    "sector_size", "sectors",    "replicas",
                                      "st_mems", "st_size", "snapshot",    "description"};
constexpr const char* kMemberKeys[] = {"numkeys", "seqno",  "status",
                                       "port",    "st_mem", "membership_gen_count"};

[[noreturn]] void die(const char* what, const std::string& arg = "") {
    std::fprintf(stderr, "bench_announce: %s %s: %s\n", what, arg.c_str(), std::strerror(errno));
    std::exit(1);
}

// --- The store ------------------------------------------------------------

// Makes name in dirfd (an existing one will do) and opens it.
int subdir(int dirfd, const char* name) {
    if (::mkdirat(dirfd, name, 0777) < 0 && errno != EEXIST) die("mkdir", name);
    int fd = ::openat(dirfd, name, O_RDONLY | O_DIRECTORY);
    if (fd < 0) die("open", name);
    return fd;
}

void put(int dirfd, const char* key, const std::string& value) {
    if (AttrStore(dirfd, key, "%s\n", value.c_str()) < 0) die("write", key);
}

void link(int dirfd, const char* name, const std::string& target) {
    if (::symlinkat(target.c_str(), dirfd, name) < 0) die("symlink", name);
}

// A uuid of 14 characters; the order of creation is not the uuid order.
std::string vdisk_uuid(int i) {
    char u[15];
    unsigned long long x = (static_cast<unsigned long long>(i) + 1) * 0x9e3779b97f4a7c15ULL;
    std::snprintf(u, sizeof u, "%014llx", x >> 8);
    return u;
}

// Node 1 (version 1.8) in data store ds01 with kVDisks plain VDisks, each
// with members 1 and 2, a complete member record of each and one frontend:
// the layout the receive path writes and VDiskLoad reads.
void build_store(const std::string& root) {
    int r = ::open(root.c_str(), O_RDONLY | O_DIRECTORY);
    if (r < 0) die("open", root);
    ::close(subdir(r, "locks"));
    int nodes = subdir(r, "Node"), node = subdir(nodes, "1"), node_vd = subdir(node, "vdisks");
    const std::pair<const char*, const char*> node_attrs[] = {
        {"version", "v1.8"},         {"uuid", "1"},
        {"status", "1"},             {"nodestatus", "2"},
        {"vendor", "CORVAL"},        {"model", "Bench Node"},
        {"freespace", "81920"},      {"utilization", "37"},
        {"revision", "1.8.0"},       {"serial", "BENCH-0001"},
        {"hbtl", "0:0:1:0"},         {"performance", "3"},
        {"hostid", "1"},             {"size", "102400"},
        {"backupchannel", "0.0.0.0"}, {"ipaddr", "127.0.0.1"},
        {"lastping", "1795000000"},  {"allocatedspace", "20480"},
        {"curvdisks", "400"},        {"curvdisksforctrl", "400"},
        {"maxvdisksforctrl", "512"}, {"memtotal", "16384"},
        {"memavail", "9216"},        {"datastoremember", "ds01"}};
    for (const auto& [k, v] : node_attrs) put(node, k, v);

    int dss = subdir(r, "Datastore"), ds = subdir(dss, "ds01");
    const std::pair<const char*, const char*> ds_attrs[] = {
        {"uuid", "ds01"},       {"name", "bench store"}, {"description", "one-node bench"},
        {"sector_size", "512"}, {"replicas", "2"},       {"stripes", "1"},
        {"overcommit", "0"}};
    for (const auto& [k, v] : ds_attrs) put(ds, k, v);
    int ds_vd = subdir(ds, "vdisks"), ds_members = subdir(ds, "members");
    link(ds_members, "1", "../../../Node/1");

    int vdisks = subdir(r, "VDisk");
    for (int i = 0; i < kVDisks; ++i) {
        std::string u = vdisk_uuid(i);
        int v = subdir(vdisks, u.c_str());
        const std::pair<const char*, std::string> vd_attrs[] = {
            {"uuid", u},
            {"name", "bench disk " + std::to_string(i)},
            {"sector_size", "512"},
            {"sectors", "2097152"},
            {"replicas", "2"},
            {"st_mems", "2"},
            {"st_size", "64"},
            {"snapshot", "0"},
            {"description", "bench plain disk"},
            {"highest_gen_count", "3"},
            {"membership", "1\n2"}};
        for (const auto& [k, val] : vd_attrs) put(v, k, val);
        link(v, "datastore", "../../Datastore/ds01");
        int mi = subdir(v, "memberinfo");
        for (const char* n : {"1", "2"}) {
            int m = subdir(mi, n);
            const std::pair<const char*, const char*> mb_attrs[] = {
                {"membership_gen_count", "3"}, {"numkeys", "1024"}, {"seqno", "77"},
                {"status", "1"}, {"port", "3260"}, {"st_mem", "0"}, {"snap_limit", "10"},
                {"frontend", n[0] == '1' ? "127.0.0.1" : "127.0.0.2"}};
            for (const auto& [k, val] : mb_attrs) put(m, k, val);
            link(m, "nodestatus", std::string("../../../../Node/") + n + "/status");
            ::close(m);
        }
        ::close(subdir(v, "snapshots"));
        ::close(mi);
        ::close(v);
        link(node_vd, u.c_str(), "../../../VDisk/" + u);
        link(ds_vd, u.c_str(), "../../../VDisk/" + u);
    }
    for (int fd : {vdisks, ds_members, ds_vd, ds, dss, node_vd, node, nodes, r}) ::close(fd);
}

// --- One cycle, real and bare ---------------------------------------------

std::string g_root;
int g_so = -1;
struct sockaddr_in g_to;
std::vector<char> g_buf(kBuffer);

// What the daemon's loop holds when it runs the pings: the settings, node 1
// as the one local node, 127.0.0.1:port as the one unicast host, a socket.
void setup_cycle(const std::string& root, int port) {
    g_root = root;
    cfg_work_directory = root;
    cfg_unicast_mode = 1;
    cfg_node_lock_timeout_ms = cfg_datastore_lock_timeout_ms = cfg_vdisk_lock_timeout_ms = 750;
    cfg_msg_buffer_size = static_cast<int>(kBuffer);
    auto node = std::make_unique<Node>();
    NodeInit(node.get(), 1);
    local_nodes.clear();
    local_nodes.push_back(std::move(node));
    Host host;
    if (HostInit(&host, "127.0.0.1", port) < 0) die("HostInit");
    unicast_hosts.assign(1, host);
    g_to = host.sa;
    g_so = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (g_so < 0) die("socket");
    ::setlogmask(LOG_UPTO(LOG_NOTICE));
}

void real_cycle() { send_pings(g_buf.data(), g_buf.size(), g_so); }

void bare_lock(const char* kind, const char* name) {
    char path[kStorePathMax + 1], pid[16];
    std::snprintf(path, sizeof path, "%s/locks/%s%s", g_root.c_str(), kind, name);
    int len = std::snprintf(pid, sizeof pid, "%d\n", static_cast<int>(::getpid()));
    int fd = ::open(path, O_RDWR | O_CREAT | O_EXCL | O_TRUNC, 0666);
    if (fd < 0 || ::write(fd, pid, static_cast<size_t>(len)) != len) die("lock", path);
    ::fsync(fd);
    ::close(fd);
}

void bare_unlock(const char* kind, const char* name) {
    char path[kStorePathMax + 1];
    std::snprintf(path, sizeof path, "%s/locks/%s%s", g_root.c_str(), kind, name);
    ::unlink(path);
}

// Opens the record <root>/<top>/<name>.
int bare_open(const char* top, const char* name) {
    char path[kStorePathMax + 1];
    std::snprintf(path, sizeof path, "%s/%s/%s", g_root.c_str(), top, name);
    return ::open(path, O_RDONLY | O_DIRECTORY);
}

void bare_load(int dirfd, const char* key) {
    char buf[kAttrFileMax + 1];
    int fd = ::openat(dirfd, key, O_RDONLY);
    off_t size = ::lseek(fd, 0, SEEK_END);
    ::lseek(fd, 0, SEEK_SET);
    if (size <= 0 || size > static_cast<off_t>(kAttrFileMax) || ::read(fd, buf, size) != size)
        die("load", key);
    ::close(fd);
}

void bare_send(size_t len) {
    if (::sendto(g_so, g_buf.data(), len, 0, reinterpret_cast<const sockaddr*>(&g_to),
                 sizeof g_to) != static_cast<ssize_t>(len))
        die("sendto");
}

void bare_cycle() {
    struct stat st;
    char path[kStorePathMax + 1];
    static std::vector<std::string> names;  // 14 characters: no heap per name
    names.clear();

    bare_lock("NODE-", "1");
    int fd = bare_open("Node", "1");
    for (const char* k : kNodeKeys) bare_load(fd, k);
    ::close(fd);
    fd = bare_open("Node", "1");
    ::fstatat(fd, "datastoremember", &st, AT_SYMLINK_NOFOLLOW);
    bare_load(fd, "datastoremember");
    ::close(fd);
    std::snprintf(path, sizeof path, "%s/Node/1/vdisks", g_root.c_str());
    DIR* dir = ::opendir(path);
    while (struct dirent* e = ::readdir(dir)) {
        char entry[2 * (kStorePathMax + 1)];
        std::snprintf(entry, sizeof entry, "%s/%s", path, e->d_name);
        if (::lstat(entry, &st) == 0 && S_ISLNK(st.st_mode)) names.emplace_back(e->d_name);
    }
    ::closedir(dir);
    bare_unlock("NODE-", "1");

    bare_lock("DS-", "ds01");
    fd = bare_open("Datastore", "ds01");
    for (const char* k : kDatastoreKeys) bare_load(fd, k);
    ::close(fd);
    bare_unlock("DS-", "ds01");
    bare_send(207 + 87);
    bare_send(208 + 28);

    std::sort(names.begin(), names.end());
    for (const std::string& u : names) {
        bare_lock("VDISK-", u.c_str());
        int vd = bare_open("VDisk", u.c_str());
        ::fstatat(vd, "transaction_id", &st, AT_SYMLINK_NOFOLLOW);
        for (const char* k : kVDiskKeys) bare_load(vd, k);
        int mi = ::openat(vd, "memberinfo", O_RDONLY | O_DIRECTORY);
        int mb = ::openat(mi, "1", O_RDONLY | O_DIRECTORY);
        for (const char* k : kMemberKeys) bare_load(mb, k);
        bare_load(vd, "membership");
        bare_load(mb, "frontend");
        ::close(mb);
        ::close(mi);
        ::close(vd);
        bare_unlock("VDISK-", u.c_str());
    }
    bare_send(207 + names.size() * kBlock);
}

// --- Measuring --------------------------------------------------------------

// The sink the cycles send to; drained between cycles.
int sink_socket(int* port) {
    int so = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    if (so < 0 || ::bind(so, reinterpret_cast<sockaddr*>(&sa), sizeof sa) < 0 ||
        ::getsockname(so, reinterpret_cast<sockaddr*>(&sa), &len) < 0)
        die("sink");
    *port = ntohs(sa.sin_port);
    return so;
}

// The lengths of the datagrams waiting in the sink.
std::vector<size_t> drain(int so) {
    std::vector<size_t> got;
    ssize_t n;
    while ((n = ::recv(so, g_buf.data(), g_buf.size(), MSG_DONTWAIT)) >= 0)
        got.push_back(static_cast<size_t>(n));
    return got;
}

struct Count {
    long calls = 0;
    long errors = 0;
};
using Counts = std::map<std::string, Count>;

// The calls of `cycles` cycles of mode as strace -c -f counts them, start-up
// included; empty when strace could not run.
Counts strace_counts(const char* mode, int port, int cycles) {
    std::string out = g_root + ".strace", n = std::to_string(cycles), p = std::to_string(port);
    char self[4096];
    ssize_t len = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (len < 0) die("readlink");
    self[len] = '\0';
    pid_t pid = ::fork();
    if (pid < 0) die("fork");
    if (pid == 0) {
        int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, 1);
        ::dup2(null, 2);
        ::execlp("strace", "strace", "-f", "-c", "-o", out.c_str(), self, "cycles", mode,
                 g_root.c_str(), p.c_str(), n.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    Counts counts;
    bool ran = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    // A sanitizer build's leak check cannot run under ptrace and fails the
    // run: ASAN_OPTIONS=detect_leaks=0 lets it through.
    if (!ran) {
        int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        std::fprintf(stderr, "bench_announce: strace of %s cycles: exit %d\n", mode, code);
    }
    std::FILE* f = std::fopen(out.c_str(), "r");
    if (ran && f != nullptr) {
        // Rows: % time, seconds, usecs/call, calls, [errors,] name.
        char line[256];
        int rules = 0;
        while (std::fgets(line, sizeof line, f) != nullptr && rules < 2) {
            if (std::strncmp(line, "------", 6) == 0) {
                ++rules;
                continue;
            }
            if (rules != 1) continue;
            char tok[6][64];
            int k = std::sscanf(line, "%63s %63s %63s %63s %63s %63s", tok[0], tok[1], tok[2],
                                tok[3], tok[4], tok[5]);
            if (k < 5) continue;
            Count& c = counts[tok[k - 1]];
            c.calls = std::atol(tok[3]);
            c.errors = k == 6 ? std::atol(tok[4]) : 0;
        }
    }
    if (f != nullptr) std::fclose(f);
    ::unlink(out.c_str());
    return counts;
}

// The calls of one cycle: those of two cycles less those of one.
Counts cycle_counts(const char* mode, int sink, int port) {
    Counts one = strace_counts(mode, port, 1);
    drain(sink);
    Counts two = strace_counts(mode, port, 2);
    drain(sink);
    Counts d;
    for (const auto& [name, c] : two) {
        Count x{c.calls - one[name].calls, c.errors - one[name].errors};
        if (x.calls != 0 || x.errors != 0) d[name] = x;
    }
    return d;
}

void print_counts(const Counts& real, const Counts& bare) {
    Counts all = real;
    for (const auto& [name, c] : bare) all[name];
    std::printf("  %-12s %8s %8s  %s\n", "system call", "real", "bare", "(failed real/bare)");
    long tr = 0, tb = 0;
    for (const auto& [name, c] : all) {
        Count r = real.count(name) ? real.at(name) : Count{};
        Count b = bare.count(name) ? bare.at(name) : Count{};
        tr += r.calls;
        tb += b.calls;
        std::printf("  %-12s %8ld %8ld", name.c_str(), r.calls, b.calls);
        if (r.errors != 0 || b.errors != 0) std::printf("  (%ld/%ld)", r.errors, b.errors);
        if (r.calls != b.calls || r.errors != b.errors) std::printf("  <- differs");
        std::printf("\n");
    }
    std::printf("  %-12s %8ld %8ld\n", "total", tr, tb);
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

double us_of(void (*fn)()) {
    auto t0 = std::chrono::steady_clock::now();
    fn();
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count();
}

void run_medium(const char* label, const std::string& parent) {
    std::string templ = parent + "/bench-announce-XXXXXX";
    if (::mkdtemp(templ.data()) == nullptr) die("mkdtemp", templ);
    struct statfs fs;
    bool tmpfs = ::statfs(templ.c_str(), &fs) == 0 && fs.f_type == TMPFS_MAGIC;
    std::printf("== %s: %s (%s)\n", label, templ.c_str(), tmpfs ? "tmpfs" : "not tmpfs");
    build_store(templ);
    int port;
    int sink = sink_socket(&port);
    setup_cycle(templ, port);

    real_cycle();  // warm the caches, and check what one cycle sends
    std::vector<size_t> sent = drain(sink);
    std::printf("  one real cycle sent %zu datagrams:", sent.size());
    for (size_t n : sent) std::printf(" %zuB", n);
    std::printf(" (PING expected %zuB)\n", kPing);
    bare_cycle();
    drain(sink);

    Counts real = cycle_counts("real", sink, port), bare = cycle_counts("bare", sink, port);
    if (real.empty() || bare.empty()) {
        std::printf("  strace -c -f could not run: no system call counts\n");
    } else {
        std::printf("  system calls of one cycle (strace -c -f, 2 cycles less 1):\n");
        print_counts(real, bare);
    }

    // Rounds alternate the two so that drift of the machine hits both.
    std::vector<double> tr, tb;
    for (int i = 0; i < kRounds; ++i) {
        tr.push_back(us_of(real_cycle));
        drain(sink);
        tb.push_back(us_of(bare_cycle));
        drain(sink);
    }
    double r = median(tr), b = median(tb);
    std::printf("  time per cycle, median of %d: real %.0f us, bare %.0f us, ratio %.3f\n\n",
                kRounds, r, b, r / b);

    ::close(g_so);
    ::close(sink);
    local_nodes.clear();
    unicast_hosts.clear();
    if (rm_fr(templ.c_str()) < 0) std::fprintf(stderr, "bench_announce: %s left\n", templ.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 6 && std::strcmp(argv[1], "cycles") == 0) {
        setup_cycle(argv[3], std::atoi(argv[4]));
        void (*cycle)() = std::strcmp(argv[2], "bare") == 0 ? bare_cycle : real_cycle;
        for (int i = std::atoi(argv[5]); i > 0; --i) cycle();
        return 0;
    }
    if (argc != 1) {
        std::fprintf(stderr, "usage: bench_announce [cycles real|bare ROOT PORT N]\n");
        return 2;
    }
    std::printf("one local node, data store ds01, %d VDisks (2 members, 1 frontend each),\n"
                "buffer %zu bytes, one unicast host 127.0.0.1\n\n",
                kVDisks, kBuffer);
    char cwd[4096];
    if (::getcwd(cwd, sizeof cwd) == nullptr) die("getcwd");
    run_medium("work disk", cwd);
    struct statfs fs;
    if (::statfs("/dev/shm", &fs) == 0 && fs.f_type == TMPFS_MAGIC) {
        run_medium("tmpfs", "/dev/shm");
    } else {
        std::printf("== tmpfs: no tmpfs at /dev/shm, skipped\n");
    }
    return 0;
}
