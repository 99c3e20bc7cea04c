// Wire records against golden bytes laid out from the record tables by
// offset and width (never from the structs under test), the type names, the
// record traces, the generation-count encoding and address numbers.
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

// Bytes of a datagram placed field by field at table offsets, little-endian.
struct Golden {
    explicit Golden(size_t size) : b(size, 0) {}
    Golden& u8(size_t off, uint8_t v) { return put(off, 1, v); }
    Golden& u16(size_t off, uint16_t v) { return put(off, 2, v); }
    Golden& u32(size_t off, uint32_t v) { return put(off, 4, v); }
    Golden& u64(size_t off, uint64_t v) { return put(off, 8, v); }
    Golden& text(size_t off, size_t width, const std::string& s) {
        EXPECT_LE(s.size(), width);
        for (size_t i = 0; i < s.size(); ++i) b.at(off + i) = static_cast<uint8_t>(s[i]);
        return *this;
    }
    Golden& put(size_t off, size_t width, uint64_t v) {
        for (size_t i = 0; i < width; ++i) b.at(off + i) = static_cast<uint8_t>(v >> (8 * i));
        return *this;
    }
    Bytes b;
};

// The golden header of node 7, version 1.8.
void golden_hdr(Golden& g, uint8_t type) {
    g.u8(0, 1).u8(1, 8).u8(2, type).u8(3, 2).u32(4, 7).text(8, 32, "Vendor").text(40, 32, "Model");
    g.u32(72, 1000).u32(76, 55).text(80, 24, "r1.2").text(104, 64, "SER-7");
    g.text(168, 32, "1:0:0:7").u32(200, 0x12345678).u8(204, 9).u16(205, 0xBEEF);
}

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

// The block of make_vde() with generation count 305 at version 1.8.
void golden_vde(Golden& g, size_t at) {
    g.text(at + 4, 14, "vd-0001").text(at + 18, 2, "05").text(at + 20, 28, "data");
    g.u8(at + 48, 0x01).u8(at + 49, 0x31);  // 305, big-endian
    g.u32(at + 50, 512).u64(at + 54, 0x0102030405060708ULL).u64(at + 62, 1ULL << 40);
    g.u64(at + 70, 77).text(at + 78, 32, "plain disk").u8(at + 110, 3).u16(at + 111, 4000);
    g.u16(at + 113, 2).u8(at + 115, 1).u8(at + 116, 2).u16(at + 117, 64).u16(at + 121, 2);
    g.u16(at + 123, 1).u32(at + 125, 7).u32(at + 129, 9);
    g.u8(at + 133, 0x0A).u8(at + 134, 0x00).u8(at + 135, 0xA8).u8(at + 136, 0xC0);
}

// The parts of a datagram: records, runs of zero bytes and a text.
struct Zeros {
    size_t n;
};
bool put(DatagramWriter& wr, Zeros z) { return wr.put_zeros(z.n); }
bool put(DatagramWriter& wr, const std::string& s) { return wr.put_bytes(s); }
template <WireRecord Rec>
bool put(DatagramWriter& wr, const Rec& rec) { return wr.put(rec); }

// A datagram of these parts, written the way a sender does into a buffer of
// stale bytes, so a byte the writer skips shows.
template <class... Part>
Bytes wire(const Part&... parts) {
    std::vector<char> buf(4096, 'x');
    DatagramWriter wr(buf.data(), buf.size());
    EXPECT_TRUE((put(wr, parts) && ...));
    return Bytes(buf.begin(), buf.begin() + static_cast<long>(wr.length()));
}

TEST(WireRecords, HeaderOnlyAndVDiskDatagrams) {
    // A PING without VDisks, a HEARTBEAT and the DS_PING of a node without a
    // data store are the bare header; a VDisk block of two members and one
    // frontend adds 137 bytes.
    uint32_t fe = 0;
    ASSERT_EQ(addr_text_to_number("192.168.0.10", &fe), 1);
    VDiskEntry v = make_vde();
    Hdr v18 = make_hdr(msg::PING);
    vde_encode_mshipgencnt(&v, &v18, 305);
    const struct {
        uint8_t type, code;
        bool vdisk;
    } kinds[] = {{msg::PING, 4, false}, {msg::HEARTBEAT, 32, false}, {msg::DS_PING, 16, false},
                 {msg::PING, 4, true}, {msg::SINGLE_VDISK_PING, 33, true}};
    for (const auto& k : kinds) {
        Golden g(k.vdisk ? 344 : 207);
        golden_hdr(g, k.code);
        if (k.vdisk) golden_vde(g, 207);
        Bytes got =
            k.vdisk ? wire(make_hdr(k.type), v, MemberEntry{7}, MemberEntry{9}, FrontendEntry{fe})
                    : wire(make_hdr(k.type));
        EXPECT_EQ(got, g.b) << unsigned{k.code};
    }
}

TEST(WireRecords, SnapshotDatastoreAuxDeleteAndJson) {
    VDiskEntry snap{.snapshot = 1};
    std::memcpy(snap.uuid, "snap-1", 6);
    snap.description.snap = {.y = 24, .m = 12, .d = 0x0131, .H = 23, .M = 59, .S = 58};
    std::memcpy(snap.description.snap.parent, "parent-uuid-14", 14);  // unterminated
    Golden gs(125);
    gs.text(4, 14, "snap-1").u8(78, 24).u8(79, 12).u16(80, 0x0131).u8(82, 23).u8(83, 59);
    gs.u8(84, 58).text(85, 14, "parent-uuid-14").u16(119, 1);
    EXPECT_EQ(wire(snap), gs.b);

    DatastoreEntry dse{.name = "pool", .description = "main pool", .sector_size = 4096,
                       .replicas = 3, .stripes = 8, .overcommit = 2};
    std::memcpy(dse.uuid, "ds-45678901234", 14);
    static_assert(DS_PING_SIZE == 294 && AUX_PING_SIZE == 236 && JSON_TEXT_OFFSET == 353);
    Golden gds(294);
    golden_hdr(gds, 16);
    gds.text(207, 14, "ds-45678901234").text(221, 32, "pool").text(253, 32, "main pool");
    gds.u32(285, 4096).u16(289, 3).u16(291, 8).u8(293, 2);
    EXPECT_EQ(wire(make_hdr(msg::DS_PING), dse), gds.b);

    // AUX_PING: a zero byte after the header, its figures from 208 on.
    AuxPingData aux{sizeof(AuxPingData), 11, 12, 13, 14, 15, 16};
    Golden gaux(236);
    golden_hdr(gaux, 35);
    gaux.u32(208, 28).u32(212, 11).u32(216, 12).u32(220, 13).u32(224, 14).u32(228, 15);
    gaux.u32(232, 16);
    EXPECT_EQ(wire(make_hdr(msg::AUX_PING), Zeros{1}, aux), gaux.b);

    VDiskDeleteEntry del{.node = 7, .uuid = "vd-0001"};
    Golden gdel(225);
    golden_hdr(gdel, 34);
    gdel.u32(207, 7).text(211, 14, "vd-0001");
    EXPECT_EQ(wire(make_hdr(msg::VDISK_DELETED), del), gdel.b);

    // STORE_JSON and DELETE_JSON: the record, then the text to the end
    // without a zero.
    jsonEntry j{.major = 1, .minor = 8, .nodeuuid = "7", .path = "cfg/a", .filename = "x.json",
                .lastping = -2, .jsonlen = 9, .json = 0x1122334455667788ULL, .offset = 0};
    const std::string text = "{\"a\":[1]}";
    for (auto [type, code] : {std::pair{msg::STORE_JSON, 36}, std::pair{msg::DELETE_JSON, 37}}) {
        Golden g(353 + text.size());
        golden_hdr(g, static_cast<uint8_t>(code));
        g.u8(207, 1).u8(208, 8).text(209, 16, "7").text(225, 64, "cfg/a").text(289, 32, "x.json");
        g.u64(321, static_cast<uint64_t>(-2)).u64(329, 9).u64(337, 0x1122334455667788ULL);
        g.text(353, text.size(), text);
        EXPECT_EQ(wire(make_hdr(type), j, text), g.b) << code;
    }
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

TEST(AddressNumbers, BothDirections) {
    // The wire form of 192.168.0.10 (0A 00 A8 C0) is checked with the VDisk golden.
    uint32_t n = 0;
    char text[16];
    for (const char* s : {"0.0.0.0", "255.255.255.255", "198.18.0.1", "10.1.2.3"}) {
        ASSERT_EQ(addr_text_to_number(s, &n), 1) << s;
        ASSERT_EQ(addr_number_to_text(n, text), 0);
        EXPECT_STREQ(text, s);
    }
    for (const char* bad : {"", "10.0.0.1 ", "224.1", "1.2.3.256", "a.b.c.d"}) {
        n = 42;
        EXPECT_EQ(addr_text_to_number(bad, &n), 0) << bad;
        EXPECT_EQ(n, 42u);
    }
}

TEST(UuidNames, RefusedTextsAndTheirBounds) {
    const std::pair<std::string, bool> cases[] = {
        {"", false}, {"/", false}, {".", false}, {"..", false}, {"a/b", false}, {"../x", false},
        {"...", true}, {".hidden", true}, {"vd-0001", true},
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
