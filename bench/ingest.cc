// Cost of storing the PINGs a host receives, next to a bare program that
// makes the same system calls in the same order for the same work, on tmpfs
// and on the work disk. Ten peers (nodes 11..20) announce 40 plain VDisks
// each, every one with two members (the sender and the next peer), one
// frontend, transaction 0, version 1.8 and generation 3; they already have
// their Node records and data store ds01 (fed in as DS_PINGs first). The
// PINGs go through handle_datagram, the receive step without the socket.
//
//   creation      (no VDisk records yet) per PING:
//     node        lock; mkdir Node and Node/<id> (there), open it, mkdirat
//                 vdisks (there), 17 attribute writes, fsync, close; unlock
//     per VDisk   lock; mkdir VDisk (there), lstat the record (missing),
//                 mkdir and open it, mkdirat and open memberinfo; 8 shared
//                 attributes, mkdirat snapshots, 3 more writes; mkdirat
//                 and open memberinfo/<id>, 8 writes, fstatat nodestatus,
//                 symlinkat, fstatat datastore; node lock: open
//                 Node/<id>/vdisks, fstatat, symlinkat, close, open Node/<id>,
//                 fstatat and load datastoremember, close; unlock; symlinkat
//                 datastore; data store lock: open Datastore/ds01/vdisks,
//                 fstatat, symlinkat, close; unlock; fsync and close the
//                 member record, close memberinfo, fsync and close the
//                 record; unlock
//     stale check lock; opendir Node/<id>/vdisks, lstat of every entry,
//                 closedir; unlock (nothing is stale)
//   steady state  (the same PINGs again: the announced generation equals the
//                 stored highest one, so no fence check):
//     node        as above
//     per VDisk   lock; mkdir VDisk (there), lstat the record, open it and
//                 memberinfo, fstatat and open memberinfo/<id>; write seqno,
//                 load highest_gen_count, 8 member writes, fstatat nodestatus
//                 and datastore (both there); node lock: open
//                 Node/<id>/vdisks, fstatat, close; unlock; fsync and close
//                 the member record; write sectors, load and write
//                 membership; close memberinfo, fsync and close the record;
//                 unlock
//     stale check as above
// where a write is openat(O_CREAT|O_TRUNC), write, close; a load openat,
// lseek(END), lseek(SET), read, close; a lock getpid, open(O_CREAT|O_EXCL),
// write, fsync, close, and its release an unlink.
//
// The store's work needs all of these but two: getpid is called for every lock
// although the pid never changes (store/lock.cc, PathLock), and FileLoad
// finds the size of "membership" with lseek(END) and then rewinds with
// lseek(SET) where one fstat, or a pread from 0, would do (store/attr.cc,
// FileLoad, through MembershipLoad in VDiskUpdate). The bare program makes
// them too: it is the floor for this sequence of calls, not a better one.
//
//   bench_ingest                       both media, both phases
//   bench_ingest time                  the real path on tmpfs only, both
//                                      phases (to compare two builds)
//   bench_ingest feed <create|steady> <real|bare> <store root> <n>
//                                      n feeds of the ten PINGs on a made
//                                      store (what strace -c -f watches)
//
// Before the timing the benchmark makes sure that the bare program does the
// real path's work: the store it leaves after a creation and after a steady
// feed must equal the real path's entry by entry, and strace -f of one feed
// of each must show the same calls with the same results in the same order.
//
// The calls of one feed are those of two feeds less those of one, each run
// counted by strace -c -f: that leaves out the start-up of the process and
// the first feed's growth of the heap. A second creation feed needs VDisks
// that are not there yet: feed k of a creation run is sent by a second set
// of ten peers (nodes 21..30, Node records made alike) with VDisks of their
// own, so it does what the first feed did, on records of the same size.
//
// Log lines are masked to notice and above, as in bench_store_ops: the run
// measures the store, not the system logger.
#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "base/config.h"
#include "controller/controller_internal.h"
#include "net/datagram.h"
#include "net/netlib.h"
#include "store/attr.h"
#include "util/misc.h"

using namespace corvald;

namespace {

constexpr int kPeers = 10;
constexpr uint32_t kFirstPeer = 11;
constexpr int kPeerSets = 2;  // the second only for counting a creation
constexpr int kPerPeer = 40;
constexpr int kVDisks = kPeers * kPerPeer;
constexpr unsigned kGeneration = 3;
constexpr size_t kBlock = sizeof(VDiskEntry) + 2 * sizeof(MemberEntry) + sizeof(FrontendEntry);
constexpr size_t kPing = HDR_SIZE + kPerPeer * kBlock;
constexpr int kRounds = 9;
constexpr int kPingInterval = 90;  // the default ping_interval, seconds
constexpr int kNodeVDisks = 100;   // VDisks of the node the capacity is given for
constexpr const char* kDatastore = "ds01";
constexpr const char* kSenderAddr = "127.0.0.3";
constexpr const char* kFrontend = "127.0.0.9";

[[noreturn]] void die(const char* what, const std::string& arg = "") {
    std::fprintf(stderr, "bench_ingest: %s %s: %s\n", what, arg.c_str(), std::strerror(errno));
    std::exit(1);
}

void check(bool ok, const char* what, const std::string& arg = "") {
    if (!ok)
        die(what, arg);
}

// --- The datagrams ------------------------------------------------------------

uint32_t peer_id(int set, int peer) {
    return kFirstPeer + 10 * set + peer;
}

// A uuid of 14 characters; the order of the PING is not the uuid order.
std::string vdisk_uuid(int set, int peer, int i) {
    char u[15];
    auto n = static_cast<unsigned long long>(set * 10000 + peer * 100 + i) + 1;
    std::snprintf(u, sizeof u, "%014llx", (n * 0x9e3779b97f4a7c15ULL) >> 8);
    return u;
}

Hdr peer_header(uint32_t uid, uint8_t type) {
    Hdr h = {};
    h.major = 1;
    h.minor = 8;
    h.type = type;
    h.nodestatus = 2;
    h.uid = uid;
    std::snprintf(h.vendor, sizeof h.vendor, "CORVAL");
    std::snprintf(h.model, sizeof h.model, "Bench Node");
    h.revision.freespace = 81920;
    h.revision.utilization = 37;
    std::snprintf(h.revision.rev, sizeof h.revision.rev, "1.8.0");
    std::snprintf(h.serial, sizeof h.serial, "BENCH-%04u", uid);
    std::snprintf(h.hbtl, sizeof h.hbtl, "0:0:%u:0", uid);
    h.size = 102400;
    h.performance = 3;
    h.hostid = static_cast<uint16_t>(uid);
    return h;
}

// Formats exactly width characters into a text field of that width.
void fill(char* field, size_t width, const char* fmt, unsigned uid, int i) {
    char text[64];
    int n = std::snprintf(text, sizeof text, fmt, uid, i);
    check(n == static_cast<int>(width), "fill", fmt);
    std::memcpy(field, text, width);
}

using Datagram = std::vector<char>;

Datagram vdisk_ping(int set, int peer) {
    uint32_t uid = peer_id(set, peer);
    Hdr h = peer_header(uid, msg::PING);
    uint32_t frontend = 0;
    addr_text_to_number(kFrontend, &frontend);
    Datagram d(kPing);
    DatagramWriter w(d.data(), d.size());
    w.put(h);
    for (int i = 0; i < kPerPeer; ++i) {
        VDiskEntry e = {};
        std::memcpy(e.uuid, vdisk_uuid(set, peer, i).data(), sizeof e.uuid);
        vde_encode_mshipgencnt(&e, &h, kGeneration);
        // Name and description fill their fields, with no zero byte to end
        // them: the stored text is bounded by the width alone.
        fill(e.name.name, sizeof e.name.name, "bench plain disk %05u.%02d/40", uid, i);
        e.sector_size = 512;
        e.numkeys = 1024;
        e.sectors = 2097152;
        e.seqno = 77;
        fill(e.description.descr, sizeof e.description.descr, "plain disk %05u.%02d of the bench",
             uid, i);
        e.status = 1;
        e.port = 3260;
        e.replicas = 2;
        e.st_mems = 2;
        e.st_size = 64;
        e.members = 2;
        e.frontends = 1;
        w.put(e);
        w.put(MemberEntry{uid});
        w.put(MemberEntry{peer_id(set, (peer + 1) % kPeers)});
        w.put(FrontendEntry{frontend});
    }
    check(w.length() == kPing, "build PING");
    return d;
}

Datagram ds_ping(uint32_t uid) {
    Hdr h = peer_header(uid, msg::DS_PING);
    DatastoreEntry e = {};
    std::memcpy(e.uuid, kDatastore, std::strlen(kDatastore));
    std::snprintf(e.name, sizeof e.name, "bench store");
    std::snprintf(e.description, sizeof e.description, "ten-peer bench");
    e.sector_size = 512;
    e.replicas = 2;
    e.stripes = 1;
    Datagram d(DS_PING_SIZE);
    DatagramWriter w(d.data(), d.size());
    w.put(h);
    w.put(e);
    return d;
}

// --- The store ------------------------------------------------------------------

std::string g_root;
struct sockaddr_in g_from;
std::vector<Datagram> g_pings[kPeerSets];

// What the receive step needs of the daemon: its settings and a sender.
void setup_daemon(const std::string& root) {
    g_root = root;
    cfg_work_directory = root;
    cfg_node_lock_timeout_ms = cfg_datastore_lock_timeout_ms = cfg_vdisk_lock_timeout_ms = 750;
    cfg_fence_check = "/bin/true";
    ::setlogmask(LOG_UPTO(LOG_NOTICE));
    g_from = {};
    g_from.sin_family = AF_INET;
    g_from.sin_port = htons(7000);
    check(::inet_pton(AF_INET, kSenderAddr, &g_from.sin_addr) == 1, "inet_pton");
    for (int s = 0; s < kPeerSets; ++s) {
        g_pings[s].clear();
        for (int p = 0; p < kPeers; ++p) g_pings[s].push_back(vdisk_ping(s, p));
    }
}

// The peers' Node records and data store, as their DS_PINGs make them.
void build_store(const std::string& root) {
    check(::mkdir((root + "/locks").c_str(), 0777) == 0, "mkdir", root + "/locks");
    setup_daemon(root);
    for (int s = 0; s < kPeerSets; ++s) {
        for (int p = 0; p < kPeers; ++p) {
            Datagram d = ds_ping(peer_id(s, p));
            check(handle_datagram(d.data(), d.size(), &g_from) == 0, "DS_PING");
        }
    }
}

void remake(const std::string& dir) {
    check(rm_fr(dir.c_str()) == 0 && ::mkdir(dir.c_str(), 0777) == 0, "remake", dir);
}

// Back to no VDisks at all, flushed, so that one phase's deletions are not
// written out during the next one's timing.
void reset_vdisks() {
    check(rm_fr((g_root + "/VDisk").c_str()) == 0, "rm", g_root + "/VDisk");
    for (int s = 0; s < kPeerSets; ++s) {
        for (int p = 0; p < kPeers; ++p)
            remake(g_root + "/Node/" + std::to_string(peer_id(s, p)) + "/vdisks");
    }
    remake(g_root + "/Datastore/" + kDatastore + "/vdisks");
    int fd = ::open(g_root.c_str(), O_RDONLY | O_DIRECTORY);
    check(fd >= 0 && ::syncfs(fd) == 0, "syncfs", g_root);
    ::close(fd);
}

// Every entry of the store by path: "d" for a directory, "l <target>" for a
// link, "f <content>" for a file ("lastping" by its name only: it holds the
// time of the write).
using Picture = std::map<std::string, std::string>;

Picture store_picture() {
    namespace fs = std::filesystem;
    Picture pic;
    for (const auto& e : fs::recursive_directory_iterator(g_root)) {
        std::string rel = e.path().string().substr(g_root.size());
        if (e.is_symlink()) {
            pic[rel] = "l " + fs::read_symlink(e.path()).string();
        } else if (e.is_directory()) {
            pic[rel] = "d";
        } else if (e.path().filename() == "lastping") {
            pic[rel] = "f";
        } else {
            std::ifstream in(e.path(), std::ios::binary);
            pic[rel] = "f " + std::string(std::istreambuf_iterator<char>(in), {});
        }
    }
    return pic;
}

// "same", or the first path at which the two pictures differ.
std::string compare(const Picture& real, const Picture& bare) {
    auto [r, b] = std::mismatch(real.begin(), real.end(), bare.begin(), bare.end());
    if (r == real.end() && b == bare.end())
        return "same";
    return "differ at " + (r != real.end() ? r->first : b->first);
}

// --- One feed, real and bare ------------------------------------------------------

void real_feed(int set) {
    for (const Datagram& d : g_pings[set]) {
        check(handle_datagram(d.data(), d.size(), &g_from) == 0, "handle_datagram");
    }
}

// A store path: the root's text and the parts appended to it.
struct Path {
    char s[kStorePathMax + 1];
    size_t n = 0;
    Path& add(const char* part, size_t len) {
        check(n + len <= kStorePathMax, "path too long", part);
        std::memcpy(s + n, part, len);
        n += len;
        s[n] = '\0';
        return *this;
    }
    Path& add(const char* part) { return add(part, std::strlen(part)); }
};

Path root_path() {
    return Path().add(g_root.c_str(), g_root.size());
}

void bare_lock(const char* kind, const char* name) {
    Path p = root_path();
    p.add("/locks/").add(kind).add(name);
    char pid[16];
    char* end = std::to_chars(pid, pid + sizeof pid - 1, ::getpid()).ptr;
    *end++ = '\n';
    auto len = static_cast<size_t>(end - pid);
    int fd = ::open(p.s, O_RDWR | O_CREAT | O_EXCL | O_TRUNC, 0666);
    check(fd >= 0 && ::write(fd, pid, len) == static_cast<ssize_t>(len), "lock", p.s);
    ::fsync(fd);
    ::close(fd);
}

void bare_unlock(const char* kind, const char* name) {
    Path p = root_path();
    p.add("/locks/").add(kind).add(name);
    ::unlink(p.s);
}

int open_dir(const Path& p) {
    int fd = ::open(p.s, O_RDONLY | O_DIRECTORY);
    check(fd >= 0, "open", p.s);
    return fd;
}

int open_dir_at(int dirfd, const char* name) {
    int fd = ::openat(dirfd, name, O_RDONLY | O_DIRECTORY);
    check(fd >= 0, "openat", name);
    return fd;
}

void make_dir_at(int dirfd, const char* name) {
    check(::mkdirat(dirfd, name, 0777) == 0 || errno == EEXIST, "mkdirat", name);
}

// 1 when dirfd has no entry name, 0 when it has.
bool missing(int dirfd, const char* name) {
    struct stat st;
    if (::fstatat(dirfd, name, &st, AT_SYMLINK_NOFOLLOW) == 0)
        return false;
    check(errno == ENOENT, "fstatat", name);
    return true;
}

void link_at(int dirfd, const char* name, const char* target) {
    check(::symlinkat(target, dirfd, name) == 0, "symlinkat", name);
}

// Set while a Node record that is there already is rewritten: the store
// then first looks whether each file is missing or empty (here, never).
bool g_watch_gaps = false;

void put(int dirfd, const char* key, const char* text, size_t len) {
    struct stat st;
    if (g_watch_gaps)
        check(::fstatat(dirfd, key, &st, AT_SYMLINK_NOFOLLOW) == 0 && st.st_size > 0, "fstatat", key);
    int fd = ::openat(dirfd, key, O_RDWR | O_CREAT | O_TRUNC, 0666);
    check(fd >= 0 && ::write(fd, text, len) == static_cast<ssize_t>(len), "write", key);
    ::close(fd);
}

void put_number(int dirfd, const char* key, unsigned long long v) {
    char t[24];
    char* end = std::to_chars(t, t + sizeof t - 1, v).ptr;
    *end++ = '\n';
    put(dirfd, key, t, static_cast<size_t>(end - t));
}

// A fixed-width text field: up to its width or its first zero byte.
void put_field(int dirfd, const char* key, const char* field, size_t width) {
    char t[kAttrFileMax + 1];
    size_t n = ::strnlen(field, width);
    std::memcpy(t, field, n);
    t[n] = '\n';
    put(dirfd, key, t, n + 1);
}

// The whole file key of dirfd into buf (kAttrFileMax + 1 bytes), NUL
// terminated; its length.
size_t load(int dirfd, const char* key, char* buf) {
    int fd = ::openat(dirfd, key, O_RDONLY);
    off_t size = ::lseek(fd, 0, SEEK_END);
    ::lseek(fd, 0, SEEK_SET);
    check(size > 0 && size <= static_cast<off_t>(kAttrFileMax) && ::read(fd, buf, size) == size,
          "load", key);
    ::close(fd);
    buf[size] = '\0';
    return static_cast<size_t>(size);
}

// One announced VDisk block, read in place.
struct Block {
    VDiskEntry vde;
    uint32_t members[2];
    uint32_t frontend;
    int nmembers;
    char uuid[15];
};

// The announcing node's member record mb and the links that go with it.
void bare_member(const Block& b, int recfd, int mb, const char* id) {
    const VDiskEntry& e = b.vde;
    put_number(mb, "membership_gen_count", ntohs(e.name.mshipgencnt));
    put_number(mb, "numkeys", e.numkeys);
    put_number(mb, "seqno", e.seqno);
    put_number(mb, "status", e.status);
    put_number(mb, "port", e.port);
    put_number(mb, "st_mem", e.st_mem);
    put_number(mb, "snap_limit", 10);
    char fe[INET_ADDRSTRLEN + 1];
    addr_number_to_text(b.frontend, fe);
    size_t n = std::strlen(fe);
    fe[n] = '\n';
    put(mb, "frontend", fe, n + 1);

    char target[64];
    if (missing(mb, "nodestatus")) {
        std::snprintf(target, sizeof target, "../../../../Node/%s/status", id);
        link_at(mb, "nodestatus", target);
    }
    bool has_datastore = !missing(recfd, "datastore");
    std::snprintf(target, sizeof target, "../../../VDisk/%s", b.uuid);
    bare_lock("NODE-", id);
    Path vdisks = root_path();
    vdisks.add("/Node/").add(id).add("/vdisks");
    int fd = open_dir(vdisks);
    if (missing(fd, b.uuid))
        link_at(fd, b.uuid, target);
    ::close(fd);
    if (!has_datastore) {
        Path node = root_path();
        node.add("/Node/").add(id);
        fd = open_dir(node);
        check(!missing(fd, "datastoremember"), "no datastoremember", node.s);
        char ds[kAttrFileMax + 1];
        size_t len = load(fd, "datastoremember", ds);
        ds[len - 1] = '\0';
        ::close(fd);
        bare_unlock("NODE-", id);
        char dslink[64];
        std::snprintf(dslink, sizeof dslink, "../../Datastore/%.15s", ds);
        link_at(recfd, "datastore", dslink);
        bare_lock("DS-", ds);
        Path dsv = root_path();
        dsv.add("/Datastore/").add(ds).add("/vdisks");
        fd = open_dir(dsv);
        if (missing(fd, b.uuid))
            link_at(fd, b.uuid, target);
        ::close(fd);
        bare_unlock("DS-", ds);
    } else {
        bare_unlock("NODE-", id);
    }
    ::fsync(mb);
    ::close(mb);
}

void membership_text(const Block& b, char* t, size_t* len) {
    char* p = t;
    for (int i = 0; i < b.nmembers; ++i) {
        p = std::to_chars(p, p + 11, b.members[i]).ptr;
        *p++ = '\n';
    }
    *len = static_cast<size_t>(p - t);
}

// The record of a VDisk nobody has announced before.
void bare_create(const Block& b, const Path& rec, const char* id, uint32_t uid) {
    const VDiskEntry& e = b.vde;
    check(::mkdir(rec.s, 0777) == 0, "mkdir", rec.s);
    int fd = open_dir(rec);
    make_dir_at(fd, "memberinfo");
    int mi = open_dir_at(fd, "memberinfo");
    put_field(fd, "uuid", e.uuid, sizeof e.uuid);
    put_field(fd, "name", e.name.name, sizeof e.name.name);
    put_number(fd, "sector_size", e.sector_size);
    put_number(fd, "sectors", e.sectors);
    put_number(fd, "replicas", e.replicas);
    put_number(fd, "st_mems", e.st_mems);
    put_number(fd, "st_size", e.st_size);
    put_number(fd, "snapshot", e.snapshot);
    make_dir_at(fd, "snapshots");
    put_field(fd, "description", e.description.descr, sizeof e.description.descr);
    put_number(fd, "highest_gen_count", ntohs(e.name.mshipgencnt));
    char ms[32];
    size_t len;
    membership_text(b, ms, &len);
    put(fd, "membership", ms, len);
    if (std::find(b.members, b.members + b.nmembers, uid) != b.members + b.nmembers) {
        make_dir_at(mi, id);
        bare_member(b, fd, open_dir_at(mi, id), id);
    }
    ::close(mi);
    ::fsync(fd);
    ::close(fd);
}

// The update of a record whose generation the announcement repeats; any
// other case is not what this benchmark feeds.
void bare_update(const Block& b, const Path& rec, const char* id) {
    const VDiskEntry& e = b.vde;
    int fd = open_dir(rec);
    int mi = open_dir_at(fd, "memberinfo");
    check(!missing(mi, id), "no member record", rec.s);
    int mb = open_dir_at(mi, id);
    put_number(mb, "seqno", e.seqno);
    char t[kAttrFileMax + 1];
    load(fd, "highest_gen_count", t);
    unsigned highest = 0;
    std::from_chars(t, t + std::strlen(t), highest);
    check(e.transaction_id == 0 && ntohs(e.name.mshipgencnt) == highest, "generation", rec.s);
    bare_member(b, fd, mb, id);
    put_number(fd, "sectors", e.sectors);
    char ms[32];
    size_t len;
    membership_text(b, ms, &len);
    // Members that left would lose their member records; none leave here.
    size_t old = load(fd, "membership", t);
    check(old == len && std::memcmp(t, ms, len) == 0, "membership changed", rec.s);
    put(fd, "membership", ms, len);
    ::close(mi);
    ::fsync(fd);
    ::close(fd);
}

void bare_ping(const char* buf, size_t len) {
    Hdr h;
    std::memcpy(&h, buf, sizeof h);
    char ipaddr[INET_ADDRSTRLEN];
    check(::inet_ntop(AF_INET, &g_from.sin_addr, ipaddr, sizeof ipaddr) != nullptr, "inet_ntop");
    char id[16];
    *std::to_chars(id, id + sizeof id - 1, h.uid).ptr = '\0';

    bare_lock("NODE-", id);
    Path top = root_path();
    top.add("/Node");
    Path node = top;
    node.add("/").add(id);
    ::mkdir(top.s, 0777);
    ::mkdir(node.s, 0777);
    int fd = open_dir(node);
    make_dir_at(fd, "vdisks");
    g_watch_gaps = true;
    char version[16];
    std::snprintf(version, sizeof version, "v%u.%u\n", unsigned{h.major}, unsigned{h.minor});
    put(fd, "version", version, std::strlen(version));
    put_number(fd, "uuid", h.uid);
    put_number(fd, "status", 1);
    put_number(fd, "nodestatus", h.nodestatus);
    put_field(fd, "vendor", h.vendor, sizeof h.vendor);
    put_field(fd, "model", h.model, sizeof h.model);
    put_number(fd, "freespace", h.revision.freespace);
    put_number(fd, "utilization", h.revision.utilization);
    put_field(fd, "revision", h.revision.rev, sizeof h.revision.rev);
    put_field(fd, "serial", h.serial, sizeof h.serial);
    put_field(fd, "hbtl", h.hbtl, sizeof h.hbtl);
    put_number(fd, "performance", h.performance);
    put_number(fd, "hostid", h.hostid);
    check(h.nodestatus != 1, "backup channel");  // not what this benchmark feeds
    put_number(fd, "size", h.size);
    put_field(fd, "backupchannel", "0.0.0.0", 7);
    put_field(fd, "ipaddr", ipaddr, sizeof ipaddr);
    put_number(fd, "lastping", static_cast<unsigned long long>(std::time(nullptr)));
    g_watch_gaps = false;
    ::fsync(fd);
    ::close(fd);
    bare_unlock("NODE-", id);

    Path vdisks = root_path();
    vdisks.add("/VDisk");
    char uuids[kPerPeer][15];
    std::string_view announced[kPerPeer];
    int count = 0;
    for (size_t off = HDR_SIZE; off + sizeof(VDiskEntry) <= len;) {
        Block b;
        std::memcpy(&b.vde, buf + off, sizeof b.vde);
        off += sizeof b.vde;
        b.nmembers = b.vde.members;
        check(b.nmembers <= 2 && b.vde.frontends == 1 && b.vde.snapshot == 0 && count < kPerPeer &&
                  off + 4 * (b.vde.members + 1) <= len,
              "not this benchmark's VDisk block");
        std::memcpy(b.members, buf + off, 4 * b.vde.members);
        off += 4 * b.vde.members;
        std::memcpy(&b.frontend, buf + off, 4);
        off += 4;
        size_t ulen = ::strnlen(b.vde.uuid, sizeof b.vde.uuid);
        std::memcpy(b.uuid, b.vde.uuid, ulen);
        b.uuid[ulen] = '\0';

        bare_lock("VDISK-", b.uuid);
        ::mkdir(vdisks.s, 0777);
        Path rec = vdisks;
        rec.add("/").add(b.uuid, ulen);
        struct stat rst;
        if (::lstat(rec.s, &rst) < 0) {
            check(errno == ENOENT && b.vde.transaction_id == 0, "lstat", rec.s);
            bare_create(b, rec, id, h.uid);
        } else {
            bare_update(b, rec, id);
        }
        bare_unlock("VDISK-", b.uuid);
        std::memcpy(uuids[count], b.uuid, sizeof b.uuid);
        announced[count] = std::string_view(uuids[count], ulen);
        ++count;
    }

    // The stale check: every link of the node must name an announced VDisk.
    std::sort(announced, announced + count);
    bare_lock("NODE-", id);
    Path dir = node;
    dir.add("/vdisks");
    DIR* d = ::opendir(dir.s);
    check(d != nullptr, "opendir", dir.s);
    struct stat st;
    while (const dirent* ent = ::readdir(d)) {
        Path entry = dir;
        entry.add("/").add(ent->d_name);
        check(::lstat(entry.s, &st) == 0, "lstat", entry.s);
        if (!S_ISLNK(st.st_mode))
            continue;
        check(std::binary_search(announced, announced + count, std::string_view(ent->d_name)),
              "stale VDisk", ent->d_name);
    }
    ::closedir(d);
    bare_unlock("NODE-", id);
}

void bare_feed(int set) {
    for (const Datagram& d : g_pings[set]) bare_ping(d.data(), d.size());
}

void feed(bool bare, int set) {
    bare ? bare_feed(set) : real_feed(set);
}

// --- Measuring --------------------------------------------------------------------

struct Count {
    long calls = 0;
    long errors = 0;
};
using Counts = std::map<std::string, Count>;

// Runs this program as "feed phase mode <root> feeds" under strace with
// options opts, its log in out; whether it ran to its end. A sanitizer
// build's leak check cannot run under ptrace and fails the run:
// ASAN_OPTIONS=detect_leaks=0 lets it through.
bool run_traced(const char* opts, const std::string& out, const char* phase, const char* mode,
                int feeds) {
    char self[4096];
    ssize_t len = ::readlink("/proc/self/exe", self, sizeof self - 1);
    check(len >= 0, "readlink");
    self[len] = '\0';
    std::string n = std::to_string(feeds);
    pid_t pid = ::fork();
    check(pid >= 0, "fork");
    if (pid == 0) {
        int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, 1);
        ::dup2(null, 2);
        ::execlp("strace", "strace", opts, "-o", out.c_str(), self, "feed", phase, mode,
                 g_root.c_str(), n.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        return true;
    int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::fprintf(stderr, "bench_ingest: strace %s of %s %s feeds: exit %d\n", opts, mode, phase,
                 code);
    return false;
}

// The calls of `feeds` feeds as strace -c -f counts them, start-up included;
// empty when strace could not run.
Counts strace_counts(const char* phase, const char* mode, int feeds) {
    std::string out = g_root + ".strace";
    Counts counts;
    std::FILE* f =
        run_traced("-fc", out, phase, mode, feeds) ? std::fopen(out.c_str(), "r") : nullptr;
    if (f != nullptr) {
        // Rows: % time, seconds, usecs/call, calls, [errors,] name.
        char line[256];
        int rules = 0;
        while (std::fgets(line, sizeof line, f) != nullptr && rules < 2) {
            if (std::strncmp(line, "------", 6) == 0) {
                ++rules;
                continue;
            }
            char tok[6][64];
            int k = std::sscanf(line, "%63s %63s %63s %63s %63s %63s", tok[0], tok[1], tok[2],
                                tok[3], tok[4], tok[5]);
            if (rules != 1 || k < 5)
                continue;
            Count& c = counts[tok[k - 1]];
            c.calls = std::atol(tok[3]);
            c.errors = k == 6 ? std::atol(tok[4]) : 0;
        }
        std::fclose(f);
    }
    ::unlink(out.c_str());
    return counts;
}

// One line of an strace log as "<call> = <result>", without the pid that
// -f puts in front; the pid that getpid returns is left out as well, as it
// differs from run to run. Empty for lines that are no call.
std::string call_and_result(const std::string& line) {
    size_t at = line.find_first_not_of("0123456789 ");
    size_t paren = line.find('(', at);
    size_t eq = line.rfind(" = ");
    if (at == std::string::npos || paren == std::string::npos || eq == std::string::npos)
        return {};
    std::string name = line.substr(at, paren - at);
    return name == "getpid" ? name : name + line.substr(eq);
}

// Calls of the allocator, not of the store: a sanitizer's allocator makes
// them at will, and so may malloc's first growth of the heap in a feed. The
// count table still shows them.
bool memory_call(const std::string& call) {
    for (const char* name : {"brk", "mmap", "munmap", "mremap", "mprotect", "madvise"}) {
        size_t n = std::strlen(name);
        if (call.compare(0, n, name) == 0 && call.compare(n, 3, " = ") == 0)
            return true;
    }
    return false;
}

// The calls of one feed of mode in the order strace -f logs them, from the
// first lock (its getpid is the first call of a feed) to the exit and
// without the allocator's; empty when strace could not run. The start-up
// calls before it (a sanitizer's runtime calls getpid too) are left out.
std::vector<std::string> call_sequence(const char* phase, const char* mode) {
    std::string out = g_root + ".trace";
    std::vector<std::string> calls;
    size_t first = std::string::npos;
    std::ifstream in;
    if (run_traced("-f", out, phase, mode, 1))
        in.open(out);
    std::string line;
    while (std::getline(in, line)) {
        std::string c = call_and_result(line);
        if (c.rfind("exit_group", 0) == 0)
            break;
        if (first == std::string::npos && !calls.empty() && calls.back() == "getpid" &&
            line.find("/locks/") != std::string::npos)
            first = calls.size() - 1;
        if (!c.empty() && !memory_call(c))
            calls.push_back(c);
    }
    ::unlink(out.c_str());
    if (first == std::string::npos)
        return {};
    calls.erase(calls.begin(), calls.begin() + static_cast<std::ptrdiff_t>(first));
    return calls;
}

// Whether the bare program makes the real path's calls in the same order
// with the same results, printed.
void print_order(bool creation) {
    const char* phase = creation ? "create" : "steady";
    if (creation)
        reset_vdisks();
    std::vector<std::string> real = call_sequence(phase, "real");
    if (creation)
        reset_vdisks();
    std::vector<std::string> bare = call_sequence(phase, "bare");
    std::printf("  order of the calls of one feed (strace -f, names and results): ");
    if (real.empty() || bare.empty()) {
        std::printf("strace could not run\n");
        return;
    }
    auto [r, b] = std::mismatch(real.begin(), real.end(), bare.begin(), bare.end());
    if (r == real.end() && b == bare.end()) {
        std::printf("the same %zu calls\n", real.size());
        return;
    }
    std::printf("differ from call %zu on: real %s, bare %s\n",
                static_cast<size_t>(r - real.begin()) + 1, r == real.end() ? "(ended)" : r->c_str(),
                b == bare.end() ? "(ended)" : b->c_str());
}

// The calls of one feed: those of two feeds less those of one. A creation
// run starts from no VDisks, a steady one from the first peers' VDisks.
Counts feed_counts(bool creation, const char* mode) {
    const char* phase = creation ? "create" : "steady";
    Counts runs[2];
    for (int feeds = 1; feeds <= 2; ++feeds) {
        if (creation)
            reset_vdisks();
        runs[feeds - 1] = strace_counts(phase, mode, feeds);
        if (runs[feeds - 1].empty())
            return {};
    }
    Counts d;
    for (const auto& [name, c] : runs[1]) {
        Count x{c.calls - runs[0][name].calls, c.errors - runs[0][name].errors};
        if (x.calls != 0 || x.errors != 0)
            d[name] = x;
    }
    return d;
}

long total_calls(const Counts& c) {
    long t = 0;
    for (const auto& [name, x] : c) t += x.calls;
    return t;
}

void print_counts(const Counts& real, const Counts& bare) {
    Counts all = real;
    for (const auto& [name, c] : bare) all[name];
    std::printf("    %-12s %8s %8s  %s\n", "system call", "real", "bare", "(failed real/bare)");
    for (const auto& [name, c] : all) {
        Count r = real.count(name) ? real.at(name) : Count{};
        Count b = bare.count(name) ? bare.at(name) : Count{};
        std::printf("    %-12s %8ld %8ld", name.c_str(), r.calls, b.calls);
        if (r.errors != 0 || b.errors != 0)
            std::printf("  (%ld/%ld)", r.errors, b.errors);
        if (r.calls != b.calls || r.errors != b.errors)
            std::printf("  <- differs");
        std::printf("\n");
    }
    long tr = total_calls(real), tb = total_calls(bare);
    std::printf("    %-12s %8ld %8ld  (%.1f / %.1f per VDisk entry)\n", "total", tr, tb,
                static_cast<double>(tr) / kVDisks, static_cast<double>(tb) / kVDisks);
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

double seconds_of(bool bare) {
    auto t0 = std::chrono::steady_clock::now();
    feed(bare, 0);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Entries stored per second by the real path and the bare program.
struct Rates {
    double real;
    double bare;
};

Rates run_phase(bool creation) {
    std::printf("  -- %s\n", creation ? "creation: no VDisk records yet"
                                      : "steady state: the same PINGs again, same generation");
    // A steady feed needs the first peers' records: one creation, left in
    // place for the counts and the timing.
    if (!creation) {
        reset_vdisks();
        real_feed(0);
    }
    Counts real = feed_counts(creation, "real"), bare = feed_counts(creation, "bare");
    if (real.empty() || bare.empty()) {
        std::printf("  strace -c -f could not run: no system call counts\n");
    } else {
        std::printf("  system calls of one feed of %d PINGs (strace -c -f, 2 feeds less 1):\n",
                    kPeers);
        print_counts(real, bare);
        // Both make them: the bare program is the floor of this sequence.
        std::printf(
            "  calls the work does not need, made by both:\n"
            "    getpid %5ld  one per lock taken, though the pid never changes\n"
            "                  (store/lock.cc, PathLock)\n",
            real["getpid"].calls);
        if (!creation) {
            std::printf(
                "    lseek  %5d  the rewind of \"membership\" after sizing it, one per\n"
                "                  update; fstat or a pread from 0 would spare it\n"
                "                  (store/attr.cc, FileLoad, from MembershipLoad)\n",
                kVDisks);
        }
    }
    print_order(creation);

    // Rounds alternate the two so that drift of the machine hits both.
    std::vector<double> tr, tb;
    for (int i = 0; i < kRounds; ++i) {
        if (creation)
            reset_vdisks();
        tr.push_back(seconds_of(false));
        if (creation)
            reset_vdisks();
        tb.push_back(seconds_of(true));
    }
    double r = median(tr), b = median(tb);
    Rates rates{kVDisks / r, kVDisks / b};
    auto [rmin, rmax] = std::minmax_element(tr.begin(), tr.end());
    auto [bmin, bmax] = std::minmax_element(tb.begin(), tb.end());
    std::printf(
        "  time per feed, median of %d: real %.1f ms (%.1f..%.1f), bare %.1f ms "
        "(%.1f..%.1f)\n",
        kRounds, r * 1e3, *rmin * 1e3, *rmax * 1e3, b * 1e3, *bmin * 1e3, *bmax * 1e3);
    std::printf("  ratio real/bare %.3f (target within 1.2)\n", r / b);
    std::printf("  VDisk entries stored per second: real %.0f, bare %.0f\n\n", rates.real,
                rates.bare);
    return rates;
}

struct Medium {
    const char* label;
    Rates creation;
    Rates steady;
};

Medium run_medium(const char* label, const std::string& parent) {
    std::string templ = parent + "/bench-ingest-XXXXXX";
    check(::mkdtemp(templ.data()) != nullptr, "mkdtemp", templ);
    struct statfs fs;
    bool tmpfs = ::statfs(templ.c_str(), &fs) == 0 && fs.f_type == TMPFS_MAGIC;
    std::printf("== %s: %s (%s)\n", label, templ.c_str(), tmpfs ? "tmpfs" : "not tmpfs");
    build_store(templ);

    // The bare program must leave the store as the real path does, after a
    // creation and after a steady feed (this also warms the caches).
    reset_vdisks();
    real_feed(0);
    Picture real_created = store_picture();
    real_feed(0);
    Picture real_steady = store_picture();
    reset_vdisks();
    bare_feed(0);
    Picture bare_created = store_picture();
    bare_feed(0);
    Picture bare_steady = store_picture();
    std::printf(
        "  store after the bare program, compared with the real path's: creation %s, "
        "steady state %s (%zu entries)\n\n",
        compare(real_created, bare_created).c_str(), compare(real_steady, bare_steady).c_str(),
        real_steady.size());

    Medium m{label, run_phase(true), run_phase(false)};
    if (rm_fr(templ.c_str()) < 0)
        std::fprintf(stderr, "bench_ingest: %s left\n", templ.c_str());
    return m;
}

}  // namespace

// The real path only, on tmpfs: the figures to compare two builds by (the
// same workload whatever the store code underneath makes of it).
int time_real_path() {
    std::string root = "/dev/shm/bench-ingest-XXXXXX";
    check(::mkdtemp(root.data()) != nullptr, "mkdtemp", root);
    build_store(root);
    reset_vdisks();
    real_feed(0);
    real_feed(0);
    // Processor time too (user and system, of this process): on a machine
    // shared with other work it moves less than the time on the clock.
    auto cpu = [] {
        rusage ru;
        ::getrusage(RUSAGE_SELF, &ru);
        return ru.ru_utime.tv_sec + ru.ru_stime.tv_sec +
               (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) * 1e-6;
    };
    std::vector<double> create, steady, create_cpu, steady_cpu;
    for (int i = 0; i < kRounds; ++i) {
        reset_vdisks();
        double c0 = cpu();
        create.push_back(seconds_of(false));
        double c1 = cpu();
        steady.push_back(seconds_of(false));
        create_cpu.push_back(c1 - c0);
        steady_cpu.push_back(cpu() - c1);
    }
    std::printf("real path on tmpfs, median of %d feeds of %d PINGs: creation %.1f ms "
                "(cpu %.1f ms), steady state %.1f ms (cpu %.1f ms)\n",
                kRounds, kPeers, median(create) * 1e3, median(create_cpu) * 1e3,
                median(steady) * 1e3, median(steady_cpu) * 1e3);
    return rm_fr(root.c_str()) < 0 ? 1 : 0;
}

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "time") == 0)
        return time_real_path();
    if (argc == 6 && std::strcmp(argv[1], "feed") == 0) {
        setup_daemon(argv[4]);
        bool creation = std::strcmp(argv[2], "create") == 0;
        bool bare = std::strcmp(argv[3], "bare") == 0;
        for (int i = 0, n = std::atoi(argv[5]); i < n; ++i) feed(bare, creation ? i : 0);
        return 0;
    }
    if (argc != 1) {
        std::fprintf(stderr, "usage: bench_ingest [time | feed create|steady real|bare ROOT N]\n");
        return 2;
    }
    std::printf(
        "%d peers (nodes %u..%u), %d plain VDisks each (2 members, 1 frontend),\n"
        "one PING of %zu bytes per peer, version 1.8, generation %u, data store %s\n\n",
        kPeers, kFirstPeer, peer_id(0, kPeers - 1), kPerPeer, kPing, kGeneration, kDatastore);
    std::vector<Medium> media;
    struct statfs fs;
    if (::statfs("/dev/shm", &fs) == 0 && fs.f_type == TMPFS_MAGIC) {
        media.push_back(run_medium("tmpfs", "/dev/shm"));
    } else {
        std::printf("== tmpfs: no tmpfs at /dev/shm, skipped\n\n");
    }
    char cwd[4096];
    check(::getcwd(cwd, sizeof cwd) != nullptr, "getcwd");
    media.push_back(run_medium("work disk", cwd));

    std::printf(
        "== what it means: at ping_interval %d s a host stores every node's PING once\n"
        "   per interval; nodes of %d VDisks it keeps up with (entries/s x %d / %d),\n"
        "   steady state:\n",
        kPingInterval, kNodeVDisks, kPingInterval, kNodeVDisks);
    for (const Medium& m : media) {
        std::printf(
            "   %-10s real %6.0f nodes, bare %6.0f nodes (creation: real %.0f, bare %.0f)\n",
            m.label, m.steady.real * kPingInterval / kNodeVDisks,
            m.steady.bare * kPingInterval / kNodeVDisks,
            m.creation.real * kPingInterval / kNodeVDisks,
            m.creation.bare * kPingInterval / kNodeVDisks);
    }
    return 0;
}
