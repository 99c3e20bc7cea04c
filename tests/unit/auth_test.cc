// Signed datagrams and claims of local nodes, in-process: what the receive
// step drops (counted under its reason) before the store sees a byte, and
// what it lets through, trailer stripped.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>

#include "controller/metrics.h"
#include "controller/stats.h"
#include "net/auth.h"
#include "store/object.h"
#include "support/receiver.h"
#include "support/wire.h"

namespace corvald::test {
namespace {

const std::string kKey1(64, 'a'), kKey2 = "00112233445566778899aabbccddeeff"
                                          "00112233445566778899aabbccddeeff";

// bytes with a trailer under key id, sequence seq, timestamp now + skew.
std::string sign(std::string b, uint8_t id, uint64_t seq, int64_t skew = 0) {
    const size_t n = b.size();
    b.resize(n + AUTH_TRAILER_SIZE);
    b.resize(auth_seal(b.data(), n, id, seq, std::time(nullptr) + skew));
    return b;
}

std::string setup(const std::string& mode) {
    auth_module_teardown();
    cfg_auth_mode = mode;
    std::string error;
    auth_module_setup(&error);
    return error;
}

TEST(Auth, OnlyVerifiedFreshDatagramsAndOwnClaimsReachTheStore) {
    if (!kAuthBuilt) GTEST_SKIP() << "built without libsodium (CORVALD_AUTH)";
    Receiver r(StoreBuilder{});
    cfg_auth_window = 60;  // the default; unset in this binary, and the clock turns
    cfg_auth_key_file = r.dir.write("keys", "# cluster keys\n\n1 " + kKey1 + "\n2 " + kKey2 + "\n");
    ::chmod(cfg_auth_key_file.c_str(), 0604);
    EXPECT_EQ(setup("require"), "error: auth_module_setup(): auth_key_file " + cfg_auth_key_file +
                                    ": open to group or others (chmod 600 it)\n");
    ::chmod(cfg_auth_key_file.c_str(), 0600);
    ASSERT_EQ(setup("require"), "");
    local_nodes.push_back(std::make_unique<Node>());
    NodeInit(local_nodes.back().get(), 7);

    const std::string ds = header(16, 8).demo_node().datastore("ds1").b;
    const std::string aux = header(35, 8).demo_node().aux().b, good = sign(aux, 2, 101);
    std::string flipped = good, renamed = good;
    flipped[100] ^= 1;
    renamed[aux.size() + 4] = 9;  // the trailer's key id
    const std::string claim = header(16, 7).demo_node().datastore("ds1").b;
    struct Row { std::string dgram; uint32_t src; int dropped; bool changes; };
    const Row rows[] = {
        {sign(ds, 1, 100), 0, -1, true},
        {sign(ds, 1, 100), 0, drop::REPLAY, false},    // the same sequence again
        {sign(aux, 1, 101, -61), 0, drop::REPLAY, false},  // outside the window
        {flipped, 0, drop::BAD_TAG, false},
        {renamed, 0, drop::UNKNOWN_KEY, false},
        {aux, 0, drop::NO_TRAILER, false},
        {good, 0, -1, true},  // the second key verifies too
        {sign(claim, 1, 1), 0xc6126407, drop::FOREIGN_CLAIM, false},
        {sign(claim, 1, 2), 0, -1, true},  // from this host
    };
    std::vector<std::string> warned;
    for (size_t i = 0; i < std::size(rows); ++i) {
        long long before[drop::COUNT];
        std::copy(stats_drop_long, stats_drop_long + drop::COUNT, before);
        EXPECT_EQ(!show(r.feed(rows[i].dgram, rows[i].src)).empty(), rows[i].changes) << i;
        for (int d = 0; d < drop::COUNT; ++d)
            EXPECT_EQ(stats_drop_long[d] - before[d], d == rows[i].dropped ? 1 : 0) << i << d;
        for (const std::string& l : r.lines(LOG_WARNING)) warned.push_back(l);
    }
    // The metrics file counts them under the same names.
    EXPECT_NE(metrics_text().find("corvald_datagrams_dropped_total{reason=\"foreign_claim\"} " +
                                  std::to_string(stats_drop_long[drop::FOREIGN_CLAIM]) + "\n"),
              std::string::npos);
    // One warning a minute per source: 127.0.0.8's later drops go unsaid.
    const std::string W = "warn: controller_thread_loop(): Dropped datagram from ";
    EXPECT_EQ(warned, (std::vector<std::string>{
                          W + "127.0.0.8: replayed (replay)",
                          W + "198.18.100.7: claims local node 7 (foreign_claim)"}));
    // A signing daemon keeps the trailer's room free behind what it builds.
    ASSERT_EQ(setup("sign"), "");
    std::vector<char> buf(65536);
    const size_t room = buf.size() - AUTH_TRAILER_SIZE;
    for (size_t n : {room, room + 1}) {
        auto build = [&](const Node*, char*, size_t len, size_t* out) { return n <= len ? (*out = n, 0) : -1; };
        EXPECT_EQ(send_announcement("t", "X", 1, local_nodes[0].get(), build, buf.data(), buf.size(), -1),
                  n == room);
    }
    // Accepting takes unsigned datagrams, never a failing tag.
    ASSERT_EQ(setup("accept"), "");
    EXPECT_FALSE(show(r.feed(header(35, 9).demo_node().aux().b)).empty());
    EXPECT_TRUE(show(r.feed(flipped)).empty());
    local_nodes.clear();
    auth_module_teardown();
}

}  // namespace
}  // namespace corvald::test
