// The cluster's keys, the datagram trailer and the host's own addresses (see
// auth.h for the trailer's layout). Built without libsodium, only mode off
// exists: any other mode and any key file are refused at start-up.
#include "net/auth.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <unordered_map>

#include "base/config.h"
#include "base/list_file.h"
#include "base/log.h"
#include "base/unique_file.h"
#include "net/netlib.h"

#ifdef CORVALD_HAVE_SODIUM
#include <sodium.h>
#endif

namespace corvald {

namespace {

AuthMode mode = AuthMode::Off;
std::vector<AuthKey> keys;  // the first signs
// The last sequence accepted per node id. Only datagrams whose tag
// verified add entries, so the map holds at most the cluster's nodes.
std::unordered_map<uint32_t, uint64_t> last_seq;
uint64_t sent_seq = 0;

std::vector<in_addr_t> own_addrs;  // network order
bool own_addrs_read = false;
time_t own_addrs_read_at = 0;
constexpr time_t kOwnAddrsRefresh = 60;

time_t monotonic_seconds() {
    struct timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec;
}

void read_own_addresses() {
    own_addrs_read = true;
    own_addrs_read_at = monotonic_seconds();
    struct ifaddrs* list = nullptr;
    // A failure keeps the addresses known so far: loopback still counts.
    if (::getifaddrs(&list) < 0)
        return;
    own_addrs.clear();
    for (struct ifaddrs* i = list; i != nullptr; i = i->ifa_next) {
        if (i->ifa_addr != nullptr && i->ifa_addr->sa_family == AF_INET)
            own_addrs.push_back(reinterpret_cast<struct sockaddr_in*>(i->ifa_addr)->sin_addr.s_addr);
    }
    ::freeifaddrs(list);
}

bool known_own(in_addr_t addr) {
    // Every address of 127/8 is delivered by the loopback interface, which
    // getifaddrs lists as 127.0.0.1/8 only: the whole block is this host.
    if ((ntohl(addr) >> 24) == 127)
        return true;
    return std::find(own_addrs.begin(), own_addrs.end(), addr) != own_addrs.end();
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// One line "ID HEX"; false when it is not one.
bool parse_key_line(const char* line, AuthKey* k) {
    char* end = nullptr;
    errno = 0;
    const long id = std::strtol(line, &end, 10);
    if (end == line || errno != 0 || id < 1 || id > 255 || *end != ' ')
        return false;
    const char* hex = end + 1;
    if (std::strlen(hex) != 2 * kAuthKeyBytes)
        return false;
    for (size_t i = 0; i < kAuthKeyBytes; ++i) {
        const int hi = hex_digit(hex[2 * i]), lo = hex_digit(hex[2 * i + 1]);
        if (hi < 0 || lo < 0)
            return false;
        k->key[i] = static_cast<unsigned char>(hi << 4 | lo);
    }
    k->id = static_cast<uint8_t>(id);
    return true;
}

[[maybe_unused]] const AuthKey* find_key(unsigned id) {
    for (const AuthKey& k : keys)
        if (k.id == id) return &k;
    return nullptr;
}

// The wall clock in microseconds: where a sender's sequence starts, so
// that it rises across restarts without a file to keep. A receiver also
// needs the sender's clock within auth_window of its own, so a host whose
// clock is wrong enough to restart below its last sequence is refused
// by the window check anyway.
uint64_t clock_micros() {
    struct timespec ts;
    ::clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

void wipe_keys() {
#ifdef CORVALD_HAVE_SODIUM
    if (!keys.empty())
        sodium_memzero(keys.data(), keys.size() * sizeof(AuthKey));
#endif
    keys.clear();
}

}  // namespace

bool auth_mode_parse(const char* text, AuthMode* m) {
    static const struct {
        const char* name;
        AuthMode mode;
    } names[] = {{"off", AuthMode::Off},
                 {"accept", AuthMode::Accept},
                 {"sign", AuthMode::Sign},
                 {"require", AuthMode::Require}};
    for (const auto& n : names) {
        if (std::strcmp(n.name, text) == 0) {
            *m = n.mode;
            return true;
        }
    }
    return false;
}

int auth_read_key_file(const char* path, std::vector<AuthKey>* out, std::string* error) {
    char msg[512];
    auto fail = [&](const char* why) {
        std::snprintf(msg, sizeof msg, "auth_key_file %s: %s", path, why);
        *error = msg;
        return -1;
    };
    const int fd = ::open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return fail(std::strerror(errno));
    UniqueFile f(::fdopen(fd, "r"));
    if (!f) {
        ::close(fd);
        return fail(std::strerror(errno));
    }
    struct stat st;
    if (::fstat(fd, &st) < 0)
        return fail(std::strerror(errno));
    if (!S_ISREG(st.st_mode))
        return fail("not a regular file");
    if (st.st_uid != ::geteuid())
        return fail("not owned by the daemon's user");
    if ((st.st_mode & 077) != 0)
        return fail("open to group or others (chmod 600 it)");
    if (st.st_size > static_cast<off_t>(kListFileMax))
        return fail("oversized");
    out->clear();
    char line[256];
    int lineno = 0;
    while (std::fgets(line, sizeof line, f.get()) != nullptr) {
        ++lineno;
        const size_t len = std::strlen(line);
        if (len == 0 || line[len - 1] != '\n')
            return fail("malformed (a line too long, or no newline at the end)");
        line[len - 1] = '\0';
        if (line[0] == '#' || line[0] == '\0')
            continue;
        AuthKey k;
        if (!parse_key_line(line, &k)) {
            std::snprintf(msg, sizeof msg, "line %d is not \"ID HEX\" (ID 1..255, 64 hex digits)",
                          lineno);
            const std::string why = msg;
            return fail(why.c_str());
        }
        for (const AuthKey& other : *out)
            if (other.id == k.id) return fail("a key id is listed twice");
        out->push_back(k);
    }
    if (std::ferror(f.get()))
        return fail("read error");
    if (out->empty())
        return fail("no key");
    return 0;
}

int auth_module_setup(std::string* error) {
    char msg[600];
    AuthMode m;
    if (!auth_mode_parse(cfg_auth_mode.c_str(), &m)) {
        std::snprintf(msg, sizeof msg, "error: %s(): Incorrect auth_mode value: `%s'\n", __func__,
                      cfg_auth_mode.c_str());
        *error = msg;
        return -1;
    }
#ifndef CORVALD_HAVE_SODIUM
    if (m != AuthMode::Off || !cfg_auth_key_file.empty()) {
        const std::string what = m != AuthMode::Off ? "auth_mode " + cfg_auth_mode : "auth_key_file";
        std::snprintf(msg, sizeof msg,
                      "error: %s(): %s needs a corvald built with libsodium (CORVALD_AUTH)\n",
                      __func__, what.c_str());
        *error = msg;
        return -1;
    }
#else
    // Mode off is the daemon without keys: a key file named then is not
    // read, so that off stays exactly what it was.
    if (m != AuthMode::Off) {
        if (sodium_init() < 0) {
            std::snprintf(msg, sizeof msg, "error: %s(): sodium_init() failed\n", __func__);
            *error = msg;
            return -1;
        }
        if (cfg_auth_key_file.empty()) {
            std::snprintf(msg, sizeof msg, "error: %s(): auth_mode %s needs auth_key_file\n",
                          __func__, cfg_auth_mode.c_str());
            *error = msg;
            return -1;
        }
        std::string why;
        if (auth_read_key_file(cfg_auth_key_file.c_str(), &keys, &why) < 0) {
            std::snprintf(msg, sizeof msg, "error: %s(): %s\n", __func__, why.c_str());
            *error = msg;
            return -1;
        }
    }
#endif
    mode = m;
    last_seq.clear();
    read_own_addresses();
    return 0;
}

void auth_reload_keys() {
    if (mode == AuthMode::Off)
        return;
    std::vector<AuthKey> fresh;
    std::string why;
    if (auth_read_key_file(cfg_auth_key_file.c_str(), &fresh, &why) < 0) {
        CV_ERROR("%s; the keys in force stay", why.c_str());
        return;
    }
    wipe_keys();
    keys.swap(fresh);
    CV_NOTICE("Loaded %zu keys from %s, key %u signs", keys.size(), cfg_auth_key_file.c_str(),
              unsigned{keys.front().id});
}

void auth_module_teardown() {
    wipe_keys();
    last_seq.clear();
    mode = AuthMode::Off;
}

bool auth_enabled() {
    return mode != AuthMode::Off;
}

AuthMode auth_mode_in_force() {
    return mode;
}

size_t auth_trailer_room() {
    return mode == AuthMode::Sign || mode == AuthMode::Require ? AUTH_TRAILER_SIZE : 0;
}

size_t auth_sign(char* buf, size_t msglen) {
    sent_seq = std::max(sent_seq + 1, clock_micros());
    return auth_seal(buf, msglen, keys.front().id, sent_seq,
                     static_cast<int64_t>(std::time(nullptr)));
}

#ifdef CORVALD_HAVE_SODIUM

size_t auth_seal(char* buf, size_t msglen, uint8_t key_id, uint64_t seq, int64_t timestamp) {
    const AuthKey* k = find_key(key_id);
    if (k == nullptr)
        return 0;
    AuthTrailerHead head;
    std::memcpy(head.magic, kAuthMagic, sizeof head.magic);
    head.key_id = key_id;
    head.seq = seq;
    head.timestamp = timestamp;
    std::memcpy(buf + msglen, &head, sizeof head);
    const size_t signed_len = msglen + sizeof head;
    crypto_auth_hmacsha256(reinterpret_cast<unsigned char*>(buf + signed_len),
                           reinterpret_cast<const unsigned char*>(buf), signed_len, k->key);
    return signed_len + kAuthTagBytes;
}

AuthResult auth_verify(const char* buf, size_t len, time_t now, size_t* payload_len,
                       unsigned* key_id) {
    *payload_len = len;
    // A trailer follows at least a whole header: the replay state is kept
    // per node id, which the header names.
    if (mode == AuthMode::Off || len < HDR_SIZE + AUTH_TRAILER_SIZE)
        return AuthResult::Unsigned;
    const size_t at = len - AUTH_TRAILER_SIZE;
    AuthTrailerHead head;
    std::memcpy(&head, buf + at, sizeof head);
    if (std::memcmp(head.magic, kAuthMagic, sizeof head.magic) != 0)
        return AuthResult::Unsigned;
    *key_id = head.key_id;
    const AuthKey* k = find_key(head.key_id);
    if (k == nullptr)
        return AuthResult::UnknownKey;
    const size_t signed_len = at + sizeof head;
    if (crypto_auth_hmacsha256_verify(reinterpret_cast<const unsigned char*>(buf + signed_len),
                                      reinterpret_cast<const unsigned char*>(buf), signed_len,
                                      k->key) != 0)
        return AuthResult::BadTag;
    // Only now, with the bytes known to come from a key holder, do the
    // sequence and the time mean anything.
    const int64_t skew = static_cast<int64_t>(now) - head.timestamp;
    if (skew > cfg_auth_window || skew < -static_cast<int64_t>(cfg_auth_window))
        return AuthResult::Replay;
    Hdr hdr;
    std::memcpy(&hdr, buf, sizeof hdr);
    const uint32_t uid = hdr.uid;
    const uint64_t seq = head.seq;
    auto [it, fresh] = last_seq.try_emplace(uid, seq);
    if (!fresh) {
        if (seq <= it->second)
            return AuthResult::Replay;
        it->second = seq;
    }
    *payload_len = at;
    return AuthResult::Verified;
}

#else

size_t auth_seal(char*, size_t, uint8_t, uint64_t, int64_t) {
    return 0;
}

AuthResult auth_verify(const char*, size_t len, time_t, size_t* payload_len, unsigned*) {
    *payload_len = len;
    return AuthResult::Unsigned;
}

#endif

bool own_address(in_addr_t addr) {
    if (known_own(addr))
        return true;
    if (own_addrs_read && monotonic_seconds() - own_addrs_read_at < kOwnAddrsRefresh)
        return false;
    read_own_addresses();
    return known_own(addr);
}

}  // namespace corvald
