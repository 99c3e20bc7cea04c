// Datagram counters of the controller, reported by the statistics lines of
// the main loop. Every datagram raises a counter in two arrays: the long one
// counts since start and is never reset, the short one counts since the last
// report and is zeroed by it.
#pragma once

#include <cassert>

namespace corvald {

// Counter indexes. In a namespace of their own: several names are also
// datagram type codes (msg::PING is the code 4, counter::PING the index 1).
namespace counter {
inline constexpr int ALL = 0;  // every datagram, whatever its type
inline constexpr int PING = 1;
inline constexpr int DS_PING = 2;
inline constexpr int AUX_PING = 3;
inline constexpr int SV_PING = 4;    // SINGLE_VDISK_PING
inline constexpr int VDISK_DEL = 5;  // VDISK_DELETED
inline constexpr int HEARTBEAT = 6;
inline constexpr int ST_JSON = 7;  // STORE_JSON and DELETE_JSON
inline constexpr int UNKNOWN = 8;  // receive only

inline constexpr int RX_COUNT = 9;
inline constexpr int TX_COUNT = 8;
}  // namespace counter

// Datagrams dropped, by reason. The names are those of the metrics' reason
// label; the receive check's reasons (the first CHECK_COUNT) are also those
// of the statistics report's DROP line.
namespace drop {
inline constexpr int NO_TRAILER = 0;     // unsigned, with auth_mode require
inline constexpr int UNKNOWN_KEY = 1;    // signed under a key id not loaded
inline constexpr int BAD_TAG = 2;        // signed, tag does not match
inline constexpr int REPLAY = 3;         // sequence not rising, or timestamp outside the window
inline constexpr int FOREIGN_CLAIM = 4;  // names a local node, from an address not this host's
inline constexpr int CHECK_COUNT = 5;
inline constexpr int SHORT = 5;          // shorter than a header
inline constexpr int MALFORMED = 6;      // a record cut short or out of bounds
inline constexpr int UNKNOWN_TYPE = 7;   // a header of no known type
inline constexpr int KERNEL = 8;         // dropped by the kernel, socket buffer full (SO_RXQ_OVFL)
inline constexpr int COUNT = 9;
}  // namespace drop
extern const char* const drop_reason_names[drop::COUNT];

// Signed 64-bit counters, as long long so that they print with %lld as they
// are.
static_assert(sizeof(long long) == 8);
extern long long stats_rx_long[counter::RX_COUNT];
extern long long stats_rx_short[counter::RX_COUNT];
extern long long stats_tx_long[counter::TX_COUNT];
extern long long stats_tx_short[counter::TX_COUNT];
extern long long stats_drop_long[drop::COUNT];
extern long long stats_drop_short[drop::COUNT];

// Raises the receive counter of index in both arrays.
inline void stats_rx_raise(int index) {
    assert(index >= 0 && index < counter::RX_COUNT);
    ++stats_rx_long[index];
    ++stats_rx_short[index];
}
// Raises the send counter of index in both arrays. A datagram sent to three
// destinations is three sends: the sender raises ALL and its own index once
// per destination reached.
inline void stats_tx_raise(int index) {
    assert(index >= 0 && index < counter::TX_COUNT);
    ++stats_tx_long[index];
    ++stats_tx_short[index];
}

// Raises the drop counter of reason in both arrays by n.
inline void stats_drop_raise(int reason, long long n = 1) {
    assert(reason >= 0 && reason < drop::COUNT);
    stats_drop_long[reason] += n;
    stats_drop_short[reason] += n;
}

}  // namespace corvald
