// The type names, the record traces, the generation-count encoding and uuid
// names. (Record layouts are pinned by the static_asserts of netlib.h; the
// bytes of every datagram kind are checked end to end by the integration
// tests; address numbers both ways by the VDisk load, list-file and
// multicast group tests.)
#include "net/netlib.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "net/datagram.h"
#include "support/log_capture.h"

// Records are built with designated initializers: unnamed fields are zero.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace corvald {
namespace {

using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

Hdr make_hdr(uint8_t type) {
    return Hdr{.major = 1, .minor = 8, .type = type, .nodestatus = 2, .uid = 7,
               .vendor = "Vendor", .model = "Model", .revision = {1000, 55, "r1.2"},
               .serial = "SER-7", .hbtl = "1:0:0:7", .size = 0x12345678, .performance = 9,
               .hostid = 0xBEEF};
}

// VDisk "vd-0001" with two members (7, 9) and one frontend, 192.168.0.10.
VDiskEntry make_vde() {
    return VDiskEntry{.uuid = "vd-0001", .name = {.name = "data"}, .sector_size = 512,
                      .numkeys = 0x0102030405060708ULL, .sectors = 1ULL << 40, .seqno = 77,
                      .description = {.descr = "plain disk"}, .status = 3, .port = 4000,
                      .replicas = 2, .st_mem = 1, .st_mems = 2, .st_size = 64, .members = 2,
                      .frontends = 1};
}

TEST(MessageTypes, NamesByCode) {
    for (auto [code, name] : {std::pair{0, "READ_REQ"}, {4, "PING"}, {7, "HASH_BROADCAST"},
                              {16, "DS_PING"}, {24, "ENABLE_VDISK_SYNC_MASTER"}, {32, "HEARTBEAT"},
                              {33, "SINGLE_VDISK_PING"}, {34, "VDISK_DELETED"}}) {
        Hdr h{.type = static_cast<uint8_t>(code)};
        EXPECT_STREQ(msg_type(&h), name) << code;
    }
    // AUX_PING, the JSON pings and everything above share the last entry.
    for (int code = 35; code < 256; ++code) {
        Hdr h{.type = static_cast<uint8_t>(code)};
        EXPECT_STREQ(msg_type(&h), "UNKNOWN") << code;
    }
}

TEST(GenerationCount, BeforeAndAfterVersionOneEight) {
    // The bytes at offsets 18-19 and 48-49 of the entry as sent, and the
    // count a receiver reads.
    const struct {
        uint8_t major, minor;
        unsigned count;
        Bytes sent;
        unsigned received;
    } cases[] = {
        {1, 7, 123, {'2', '3', 0x00, 0x00}, 23},  {1, 8, 123, {'2', '3', 0x00, 0x7B}, 123},
        {1, 8, 305, {'0', '5', 0x01, 0x31}, 305}, {1, 7, 305, {'0', '5', 0x00, 0x00}, 5},
        {0, 99, 7, {'0', '7', 0x00, 0x00}, 7},    {2, 0, 100, {'0', '0', 0x00, 0x64}, 100}};
    for (const auto& c : cases) {
        Hdr h{.major = c.major, .minor = c.minor};
        VDiskEntry v{};
        vde_encode_mshipgencnt(&v, &h, c.count);
        uint8_t raw[sizeof v];
        std::memcpy(raw, &v, sizeof v);
        SCOPED_TRACE(std::to_string(c.count) + " at " + std::to_string(c.major) + "." +
                     std::to_string(c.minor));
        EXPECT_EQ((Bytes{raw[18], raw[19], raw[48], raw[49]}), c.sent);
        vde_decode_mshipgencnt(&v, &h);
        EXPECT_EQ(vde_mshipgencnt(&v), c.received);
    }

    // An old sender's stray full count is ignored; non-digits decode to a
    // defined value: ('A' - '0') * 10 + (0x80 as -128) - '0', kept to 16 bits.
    Hdr old{.major = 1, .minor = 0};
    VDiskEntry v{
        .name = {.old_mshipgencnt = {'A', static_cast<char>(0x80)}, .mshipgencnt = 0xFFFF}};
    vde_decode_mshipgencnt(&v, &old);
    EXPECT_EQ(vde_mshipgencnt(&v), static_cast<uint16_t>(17 * 10 + (-128 - 48)));
}

TEST(UuidNames, RefusedTextsAndTheirBounds) {
    const std::pair<std::string, bool> cases[] = {
        // "", ".", "..", "a/b" are refused in the VDisk read and data store tests.
        {"...", true}, {".hidden", true},
        {"abcdefghijklmn", true},          // 14 bytes, no terminator
        {std::string("\0/..", 4), false},  // empty: nothing after a zero counts
        {std::string("ok\0/", 4), true},   // bytes after the zero are ignored
        {std::string(".\0.", 3), false},
    };
    for (const auto& [text, safe] : cases) {
        char field[14] = {};
        std::memcpy(field, text.data(), text.size());
        EXPECT_EQ(uuid_is_safe(field, sizeof field), safe) << '"' << text << '"';
    }
    // The width bounds the text: a "/" just past it is not seen.
    const char wide[16] = "abcdefghijklmn/";
    EXPECT_TRUE(uuid_is_safe(wide, 14));
    EXPECT_FALSE(uuid_is_safe(wide, 15));

    test::LogCapture log;
    VDiskEntry v{.uuid = "snap"};
    EXPECT_EQ(vde_check_uuids(&v), 0);
    v.snapshot = 1;  // a snapshot's parent must pass the same check
    EXPECT_EQ(vde_check_uuids(&v), -2);
    std::memcpy(v.description.snap.parent, "..", 2);
    EXPECT_EQ(vde_check_uuids(&v), -2);
    std::memcpy(v.uuid, "a/b", 4);
    EXPECT_EQ(vde_check_uuids(&v), -1);
    EXPECT_EQ(log.lines(),
              (Lines{"error: vde_check_uuids(): Refused parent uuid \"\" of VDisk snap",
                     "error: vde_check_uuids(): Refused parent uuid \"..\" of VDisk snap",
                     "error: vde_check_uuids(): Refused VDisk uuid \"a/b\""}));
}

// The lines a dump logs: "debug: <func>(): <field>" each.
Lines dumped(const std::string& func, const Lines& fields) {
    Lines out;
    for (const std::string& f : fields) out.push_back("debug: " + func + "(): " + f);
    return out;
}

TEST(RecordTraces, OneLinePerFieldInOrderAndNoneWhenMasked) {
    test::LogCapture log;
    Hdr h = make_hdr(msg::AUX_PING);
    std::memset(h.serial, 'S', sizeof h.serial);  // fills the field: printed whole, no more
    hdr_dump(&h);
    EXPECT_EQ(log.lines(), dumped("hdr_dump", {"major=1", "minor=8", "type=35 [UNKNOWN]",
                                               "nodestatus=2", "uid=7", "vendor=Vendor",
                                               "model=Model", "revision.freespace=1000",
                                               "revision.utilization=55", "revision.rev=r1.2",
                                               "serial=" + std::string(64, 'S'), "hbtl=1:0:0:7",
                                               "size=305419896", "performance=9", "hostid=48879"}));

    log.clear();
    DatastoreEntry dse{.name = "pool", .sector_size = 0x80000000u, .replicas = 3};  // shown signed
    std::memcpy(dse.uuid, "ds-45678901234", 14);
    dse_dump(&dse);
    EXPECT_EQ(log.lines(), dumped("dse_dump", {"uuid=ds-45678901234", "name=pool",
                                               "description=", "sector_size=-2147483648",
                                               "replicas=3", "stripes=0", "overcommit=0"}));

    log.clear();
    VDiskEntry v = make_vde();
    vde_encode_mshipgencnt(&v, &h, 305);
    v.snapshot = 2;
    v.description.snap = {.y = 24, .m = 1, .d = 5, .H = 7, .M = 8, .S = 9};
    std::memcpy(v.description.snap.parent, "parent-uuid-14", 14);
    vde_dump(&v);
    EXPECT_EQ(log.lines(),
              dumped("vde_dump",
                     {"transaction_id=0", "uuid=vd-0001", "membership_gen_count=305", "name=data",
                      "sector_size=512", "numkeys=72623859790382856", "sectors=1099511627776",
                      "seqno=77", "snapshot=2", "parent=parent-uuid-14",
                      "snaptime=24-01-05_07.08.09", "status=3", "port=4000", "replicas=2",
                      "st_mem=1", "st_mems=2", "st_size=64", "members=2", "frontends=1"}));

    // A plain VDisk shows its description in place of parent and time.
    log.clear();
    VDiskEntry plain = make_vde();
    vde_dump(&plain);
    Lines lines = log.lines();
    ASSERT_EQ(lines.size(), 18u);
    EXPECT_EQ(lines[9], "debug: vde_dump(): description=plain disk");

    log.clear();
    MemberEntry mbe{4294967295u};
    mbe_dump(&mbe);
    FrontendEntry fee{0xC0A8000Au};
    fee_dump(&fee);
    EXPECT_EQ(log.lines(), (Lines{"debug: mbe_dump(): node=4294967295",
                                  "debug: fee_dump(): node=192.168.0.10"}));

    // With debug lines masked off the dumps log nothing at all.
    log.clear();
    const int mask = setlogmask(LOG_UPTO(LOG_INFO));
    hdr_dump(&h);
    vde_dump(&v);
    setlogmask(mask);
    EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace corvald
