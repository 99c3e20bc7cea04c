// Cost of signed datagrams on the receive path. Ten peers (nodes 11..20)
// announce 40 plain VDisks each in one PING (two members, one frontend),
// their Node records and data store already made, the VDisks already stored:
// the steady state of a host that keeps hearing the same announcements. The
// PINGs go through handle_datagram, on tmpfs when /dev/shm is there:
//
//   off      auth_mode off, the PINGs as today
//   require  auth_mode require, every PING signed (fresh sequence per round,
//            signed before the timing)
//
// and, on the same bytes (one 5287-byte PING), the receive check alone
// (auth_verify: trailer, HMAC-SHA-256, window, sequence) against libsodium's
// crypto_auth_hmacsha256 alone.
//
//   bench_auth [rounds]     (default 100; every round is fed once plain, once signed)
#include <arpa/inet.h>
#include <sodium.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "base/config.h"
#include "controller/controller_internal.h"
#include "net/auth.h"
#include "net/datagram.h"
#include "net/netlib.h"
#include "util/misc.h"

using namespace corvald;

namespace {

constexpr int kPeers = 10, kPerPeer = 40;
constexpr uint32_t kFirstPeer = 11;
using Datagram = std::vector<char>;
using Clock = std::chrono::steady_clock;

void check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "bench_auth: %s failed\n", what);
        std::exit(1);
    }
}

Hdr header(uint32_t uid, uint8_t type) {
    Hdr h = {};
    h.major = 1, h.minor = 8, h.type = type, h.nodestatus = 2, h.uid = uid;
    std::snprintf(h.vendor, sizeof h.vendor, "CORVAL");
    std::snprintf(h.serial, sizeof h.serial, "BENCH-%04u", uid);
    h.size = 102400;
    return h;
}

Datagram ds_ping(uint32_t uid) {
    Datagram d(DS_PING_SIZE + AUTH_TRAILER_SIZE);
    DatagramWriter w(d.data(), d.size());
    DatastoreEntry e = {};
    std::memcpy(e.uuid, "ds01", 4);
    e.sector_size = 512, e.replicas = 2, e.stripes = 1;
    w.put(header(uid, msg::DS_PING)), w.put(e);
    d.resize(w.length());
    return d;
}

Datagram vdisk_ping(int peer) {
    const uint32_t uid = kFirstPeer + peer;
    const Hdr h = header(uid, msg::PING);
    Datagram d(65536);
    DatagramWriter w(d.data(), d.size());
    w.put(h);
    for (int i = 0; i < kPerPeer; ++i) {
        VDiskEntry e = {};
        char u[15];
        std::snprintf(u, sizeof u, "%08x%06x", uid, i);
        std::memcpy(e.uuid, u, sizeof e.uuid);
        vde_encode_mshipgencnt(&e, &h, 3);
        std::snprintf(e.name.name, sizeof e.name.name, "bench disk %u.%d", uid, i);
        e.sector_size = 512, e.numkeys = 1024, e.sectors = 2097152, e.seqno = 77, e.status = 1;
        e.port = 3260, e.replicas = 2, e.st_mems = 2, e.st_size = 64, e.members = 2, e.frontends = 1;
        w.put(e);
        w.put(MemberEntry{uid});
        w.put(MemberEntry{kFirstPeer + (peer + 1) % kPeers});
        w.put(FrontendEntry{0x0a000001});
    }
    d.resize(w.length());
    return d;
}

// Seconds per handle_datagram of every datagram of the rounds.
double feed(const std::vector<std::vector<Datagram>>& rounds, const sockaddr_in& from) {
    const auto t0 = Clock::now();
    size_t n = 0;
    for (const auto& round : rounds)
        for (const Datagram& d : round) check(handle_datagram(d.data(), d.size(), &from) == 0, auth_enabled() ? "signed feed" : "feed"), ++n;
    return std::chrono::duration<double>(Clock::now() - t0).count() / static_cast<double>(n);
}

void set_mode(const char* mode) {
    auth_module_teardown();
    cfg_auth_mode = mode;
    std::string error;
    check(auth_module_setup(&error) == 0, error.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 100;
    check(sodium_init() >= 0, "sodium_init");
    config_module_setup();
    char dir[] = "/dev/shm/bench_auth.XXXXXX";
    char disk[] = "/tmp/bench_auth.XXXXXX";
    const char* base = ::mkdtemp(dir) ? dir : ::mkdtemp(disk);
    check(base != nullptr, "mkdtemp");
    const std::string root = std::string(base) + "/s", keys = std::string(base) + "/keys";
    check(::mkdir(root.c_str(), 0700) == 0 && ::mkdir((root + "/locks").c_str(), 0700) == 0, "mkdir");
    cfg_work_directory = root;
    cfg_fence_check = "/bin/true";
    cfg_auth_key_file = keys;
    FILE* f = std::fopen(keys.c_str(), "w");
    check(f != nullptr, "key file");
    std::fprintf(f, "1 %s\n", std::string(64, '7').c_str());
    std::fclose(f);
    ::chmod(keys.c_str(), 0600);
    ::setlogmask(LOG_UPTO(LOG_NOTICE));
    sockaddr_in from = {};
    from.sin_family = AF_INET;
    from.sin_addr.s_addr = htonl(0xc6336401);  // 198.51.100.1, no local node's

    std::vector<Datagram> pings;
    for (int p = 0; p < kPeers; ++p) {
        Datagram d = ds_ping(kFirstPeer + p);
        check(handle_datagram(d.data(), d.size(), &from) == 0, "DS_PING");
        pings.push_back(vdisk_ping(p));
    }
    feed({pings}, from);  // the VDisks stored: from here on the steady state

    // Each half is signed just before it is fed (outside the timing), so
    // that every timestamp is within the window however slow the feed.
    const std::vector<std::vector<Datagram>> plain(rounds / 2, pings);
    std::vector<std::vector<Datagram>> signed_;
    uint64_t seq = 1;
    double off = 0, req = 0;
    for (int half = 0; half < 2; ++half) {
        set_mode("off");
        off += feed(plain, from);
        set_mode("require");
        signed_.assign(rounds / 2, pings);
        const int64_t now = std::time(nullptr);
        for (auto& round : signed_) {
            for (Datagram& d : round) {
                const size_t n = d.size();
                d.resize(n + AUTH_TRAILER_SIZE);
                d.resize(auth_seal(d.data(), n, 1, seq++, now));
            }
        }
        req += feed(signed_, from);
    }
    std::printf("receive path, steady ingest, %d rounds of %d PINGs of %zu bytes (%d VDisks each), %s:\n",
                rounds, kPeers, pings[0].size(), kPerPeer, base);
    std::printf("  auth_mode off      %9.1f us per PING\n", off / 2 * 1e6);
    std::printf("  auth_mode require  %9.1f us per PING  (ratio %.3f, aim at most 1.05)\n",
                req / 2 * 1e6, req / off);

    // The check alone on one signed PING, against the MAC alone.
    const int reps = 20000;
    Datagram one = signed_[0][0];
    unsigned char tag[crypto_auth_hmacsha256_BYTES], key[32];
    std::memset(key, 0x77, sizeof key);
    size_t payload = 0;
    unsigned id = 0;
    auto t0 = Clock::now();
    const time_t now = std::time(nullptr);
    // After the first the verdict is "replay", but only after the whole MAC.
    for (int i = 0; i < reps; ++i) auth_verify(one.data(), one.size(), now, &payload, &id);
    const double verify = std::chrono::duration<double>(Clock::now() - t0).count() / reps;
    t0 = Clock::now();
    for (int i = 0; i < reps; ++i)
        crypto_auth_hmacsha256(tag, reinterpret_cast<unsigned char*>(one.data()),
                               one.size() - kAuthTagBytes, key);
    const double mac = std::chrono::duration<double>(Clock::now() - t0).count() / reps;
    std::printf("tag cost on one %zu-byte signed PING, %d times:\n", one.size(), reps);
    std::printf("  auth_verify              %7.2f us\n", verify * 1e6);
    std::printf("  crypto_auth_hmacsha256   %7.2f us  (auth_verify / MAC %.3f)\n", mac * 1e6,
                verify / mac);
    auth_module_teardown();
    check(rm_fr(base) == 0, "rm");
    return 0;
}
