// Who may speak to the daemon: the keys of the cluster, the trailer that
// signs a datagram, the receive-side check of that trailer (tag, then the
// sender's sequence and clock) and the host's own addresses, from which
// alone a datagram may speak for one of the host's local nodes.
//
// A signed datagram is the unchanged datagram followed by a trailer:
//
//   datagram | magic "CVA1" | key id | sequence | timestamp | tag
//              4              1        8 (LE)     8 (LE)      32
//
// The tag is HMAC-SHA-256 (libsodium) under the key named by the id, over
// every byte before it: the datagram and the trailer's head. The sequence
// rises with every datagram a sender signs, also across restarts (it never
// falls below the wall clock in microseconds); the timestamp is the sender's
// wall clock in seconds, for the receiver's window check. A receiver finds
// the trailer by its magic at the datagram's end, checks it and strips it,
// so the parsers see exactly the bytes of an unsigned datagram.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace corvald {

inline constexpr char kAuthMagic[4] = {'C', 'V', 'A', '1'};
inline constexpr size_t kAuthKeyBytes = 32;
inline constexpr size_t kAuthTagBytes = 32;

#pragma pack(push, 1)
struct AuthTrailerHead {
    char magic[4];
    uint8_t key_id;
    uint64_t seq;
    int64_t timestamp;
};
#pragma pack(pop)
static_assert(sizeof(AuthTrailerHead) == 21);
static_assert(offsetof(AuthTrailerHead, key_id) == 4);
static_assert(offsetof(AuthTrailerHead, seq) == 5);
static_assert(offsetof(AuthTrailerHead, timestamp) == 13);
inline constexpr size_t AUTH_TRAILER_SIZE = sizeof(AuthTrailerHead) + kAuthTagBytes;  // 53

// Whether this build has libsodium: without it only auth_mode off exists.
#ifdef CORVALD_HAVE_SODIUM
inline constexpr bool kAuthBuilt = true;
#else
inline constexpr bool kAuthBuilt = false;
#endif

// off: no trailer is sent or looked for (the daemon of before keys).
// accept: signed datagrams are checked, unsigned ones taken; nothing signed.
// sign: as accept, and every datagram sent is signed.
// require: as sign, and unsigned datagrams are dropped.
enum class AuthMode { Off, Accept, Sign, Require };

struct AuthKey {
    uint8_t id;
    unsigned char key[kAuthKeyBytes];
};

// What the receive check found.
enum class AuthResult {
    Unsigned,    // no trailer (or auth_mode off): the datagram as received
    Verified,    // trailer checked and stripped
    UnknownKey,  // trailer under a key id not in the key file
    BadTag,      // tag does not match
    Replay,      // sequence not above the last accepted, or timestamp outside the window
};

// "off", "accept", "sign", "require" into *mode; false for anything else.
bool auth_mode_parse(const char* text, AuthMode* mode);
// Reads a key file: lines "ID HEX" (ID 1..255, 64 hex digits), '#' comments
// and empty lines skipped. The file must be a regular file owned by the
// effective user and closed to group and others. 0, or -1 with the reason in
// *error (one line, no newline).
int auth_read_key_file(const char* path, std::vector<AuthKey>* keys, std::string* error);
// Start-up: the mode, the library, the key file, the host's own addresses.
// 0, or -1 with the standard-error message (newline included) in *error.
int auth_module_setup(std::string* error);
// Re-reads the key file (SIGHUP): the new keys replace the old ones only
// when the whole file read cleanly; otherwise the keys in force stay and
// the reason is logged. Nothing with auth_mode off.
void auth_reload_keys();
// Forgets the keys (wiped), the replay state and the mode (back to off).
void auth_module_teardown();
// Whether the mode is not off.
bool auth_enabled();
// The mode in force.
AuthMode auth_mode_in_force();
// Bytes a sender must leave free behind every datagram it builds: the
// trailer's when this daemon signs, else 0.
size_t auth_trailer_room();
// Appends a trailer under the signing key with the next sequence and the
// clock to the msglen bytes of buf, which must have the room behind them;
// the new length.
size_t auth_sign(char* buf, size_t msglen);
// Appends a trailer under key id with the given sequence and timestamp; the
// new length, or 0 when the id names no loaded key. (auth_sign's step, and
// how tests make trailers of their choosing.)
size_t auth_seal(char* buf, size_t msglen, uint8_t key_id, uint64_t seq, int64_t timestamp);
// Checks the datagram of len bytes received at wall-clock time now. On
// Verified and Unsigned *payload_len is the length without the trailer;
// the sequence of a Verified datagram becomes the last one of the node id
// its header names. *key_id is the trailer's key id when there is one.
AuthResult auth_verify(const char* buf, size_t len, time_t now, size_t* payload_len,
                       unsigned* key_id);
// Whether addr (network order) is one of this host's: loopback (127/8) or
// an address of an interface. A miss re-reads the interfaces when the last
// read is a minute old, so an address added later is found.
bool own_address(in_addr_t addr);

}  // namespace corvald
