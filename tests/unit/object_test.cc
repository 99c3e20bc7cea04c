// The bounded datagram reader, the walk over refused VDisk blocks and the
// VDisk's texts. Whole blocks, overruns and duplicates in datagrams are the
// receive tables'.
#include "store/object.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "net/datagram.h"
#include "support/log_capture.h"

namespace corvald {
namespace {

using Names = std::vector<std::string>;

// A uuid that fills its field has no terminator there; a description is a
// parent only for a snapshot; nothing is taken from a refused entry.
TEST(VDiskInit, TextsOfTheEntry) {
    test::LogCapture log;  // the refusal's line is the uuid check's
    VDisk vd;
    VDiskEntry vde{};
    std::memcpy(vde.uuid, "abcdefghijklmn", 14);  // fills the field, no terminator
    std::memcpy(vde.description.descr, "parent-looking", 14);
    ASSERT_EQ(VDiskInit(&vd, &vde), 0);
    EXPECT_STREQ(vd.vdiskuuid, "abcdefghijklmn");
    EXPECT_STREQ(vd.parentuuid, "");  // not a snapshot: the description is no parent
    vde.snapshot = 1;
    std::memcpy(vde.description.snap.parent, "p-0001", 7);
    ASSERT_EQ(VDiskInit(&vd, &vde), 0);
    EXPECT_STREQ(vd.parentuuid, "p-0001");
    std::memcpy(vde.description.snap.parent, "..\0", 3);  // refused: both texts empty
    EXPECT_EQ(VDiskInit(&vd, &vde), -1);
    EXPECT_STREQ(vd.vdiskuuid, "");
    EXPECT_STREQ(vd.parentuuid, "");
}

TEST(DatagramReader, NeverPastTheReceivedLength) {
    // The buffer holds more than was received: the rest must stay unseen.
    std::vector<char> buf(64, 'x');
    DatagramReader rd(buf.data(), 10);
    MemberEntry m;
    EXPECT_TRUE(rd.read(&m) && rd.read(&m));
    EXPECT_FALSE(rd.read(&m));  // 8 of 10 used, 4 more would end at 12
    EXPECT_EQ(rd.remaining(), 2u);
    EXPECT_TRUE(rd.read_at(6, &m) && rd.tail(8).size() == 2 && rd.tail(10).empty() && rd.seek(10));
    EXPECT_FALSE(rd.read_at(7, &m) || rd.seek(11));
    EXPECT_FALSE(rd.read_at(SIZE_MAX - 1, &m) || rd.fits(2, SIZE_MAX));  // no wrap-around
}

// A VDisk block the way a sender lays it out; a snapshot when it has a parent.
void append_block(std::vector<char>* d, const char* uuid, std::vector<uint32_t> ids,
                  uint16_t frontends, const char* parent = nullptr) {
    VDiskEntry v{};
    std::memcpy(v.uuid, uuid, std::strlen(uuid));
    v.snapshot = parent != nullptr;
    if (parent != nullptr)
        std::memcpy(v.description.snap.parent, parent, std::strlen(parent));
    v.members = static_cast<uint16_t>(ids.size() - frontends);
    v.frontends = frontends;
    const char* p = reinterpret_cast<const char*>(&v);
    d->insert(d->end(), p, p + sizeof v);
    p = reinterpret_cast<const char*>(ids.data());
    d->insert(d->end(), p, p + 4 * ids.size());
}

// Reads blocks from an exact-size copy (a read past the end is an ASan error)
// until less than an entry is left, as the receive loop does; the results
// and the uuids of the VDisks made.
std::vector<int> read_all(std::vector<char> d, Names* uuids = nullptr) {
    DatagramReader rd(d.data(), d.size());
    std::vector<int> results;
    while (rd.remaining() >= sizeof(VDiskEntry) && (results.empty() || results.back() >= -1)) {
        std::unique_ptr<VDisk> vd;
        results.push_back(VDiskRead(&rd, &vd));
        EXPECT_EQ(vd != nullptr, results.back() == 0);
        if (vd && uuids)
            uuids->push_back(vd->vdiskuuid);
    }
    return results;
}

// Refused names are skipped whole and the walk goes on behind them; a
// refused block that overruns the datagram ends it.
TEST(VDiskRead, RefusalsAndOverruns) {
    test::LogCapture log;
    std::vector<char> mixed;
    const std::pair<const char*, const char*> blocks[] = {  // uuid, snapshot parent
        {"", nullptr}, {"a/b", nullptr}, {"snap", ""}, {"good", nullptr}, {"snap3", "good"}};
    for (auto [uuid, parent] : blocks) append_block(&mixed, uuid, {1, 2, 0xC0A8000Au}, 1, parent);
    Names made;
    EXPECT_EQ(read_all(mixed, &made), (std::vector<int>{-1, -1, -1, 0, 0}));
    EXPECT_EQ(made, (Names{"good", "snap3"}));
    EXPECT_EQ(log.lines_containing("error: vde_check_uuids(): Refused").size(), 3u);
    std::vector<char> bad_tail;
    append_block(&bad_tail, "..", {1, 2, 3}, 0);
    EXPECT_EQ(read_all({bad_tail.begin(), bad_tail.end() - 2}), std::vector<int>{-1});
    // Counts far beyond the datagram are refused without reserving for them.
    std::vector<char> huge;
    append_block(&huge, "big", std::vector<uint32_t>(10), 0);
    std::memset(&huge[121], 0xFF, 4);  // 65535 members and frontends
    EXPECT_EQ(read_all(huge), std::vector<int>{-2});
}

}  // namespace
}  // namespace corvald
