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

namespace corvald {
namespace {

using Bytes = std::vector<uint8_t>;

// Bytes of a datagram placed field by field at table offsets.
class Golden {
public:
    explicit Golden(size_t size) : b_(size, 0) {}
    Golden& u8(size_t off, uint8_t v) { return put(off, 1, v, false); }
    Golden& u16(size_t off, uint16_t v) { return put(off, 2, v, false); }
    Golden& u16be(size_t off, uint16_t v) { return put(off, 2, v, true); }
    Golden& u32(size_t off, uint32_t v) { return put(off, 4, v, false); }
    Golden& u64(size_t off, uint64_t v) { return put(off, 8, v, false); }
    Golden& text(size_t off, size_t width, const std::string& s) {
        EXPECT_LE(s.size(), width);
        std::memcpy(&b_.at(off), s.data(), s.size());
        return *this;
    }
    const Bytes& bytes() const { return b_; }

private:
    Golden& put(size_t off, size_t width, uint64_t v, bool big_endian) {
        for (size_t i = 0; i < width; ++i) {
            size_t shift = 8 * (big_endian ? width - 1 - i : i);
            b_.at(off + i) = static_cast<uint8_t>(v >> shift);
        }
        return *this;
    }
    Bytes b_;
};

// The golden header of node 7, version 1.8, at `base`.
void golden_hdr(Golden& g, uint8_t type) {
    g.u8(0, 1).u8(1, 8).u8(2, type).u8(3, 2).u32(4, 7);
    g.text(8, 32, "Vendor").text(40, 32, "Model");
    g.u32(72, 1000).u32(76, 55).text(80, 24, "r1.2");
    g.text(104, 64, "SER-7").text(168, 32, "1:0:0:7");
    g.u32(200, 0x12345678).u8(204, 9).u16(205, 0xBEEF);
}

Hdr make_hdr(uint8_t type) {
    Hdr h{};
    h.major = 1;
    h.minor = 8;
    h.type = type;
    h.nodestatus = 2;
    h.uid = 7;
    std::strcpy(h.vendor, "Vendor");
    std::strcpy(h.model, "Model");
    h.revision.freespace = 1000;
    h.revision.utilization = 55;
    std::strcpy(h.revision.rev, "r1.2");
    std::strcpy(h.serial, "SER-7");
    std::strcpy(h.hbtl, "1:0:0:7");
    h.size = 0x12345678;
    h.performance = 9;
    h.hostid = 0xBEEF;
    return h;
}

// VDisk "vd-0001", sector size 512, two members (7, 9) and the frontend
// 192.168.0.10, generation count 305 at version 1.8.
VDiskEntry make_vde() {
    VDiskEntry v{};
    v.transaction_id = 0;
    std::memcpy(v.uuid, "vd-0001", 7);
    std::strcpy(v.name.name, "data");
    v.sector_size = 512;
    v.numkeys = 0x0102030405060708ULL;
    v.sectors = 1ULL << 40;
    v.seqno = 77;
    std::strcpy(v.description.descr, "plain disk");
    v.status = 3;
    v.port = 4000;
    v.replicas = 2;
    v.st_mem = 1;
    v.st_mems = 2;
    v.st_size = 64;
    v.members = 2;
    v.frontends = 1;
    return v;
}

void golden_vde(Golden& g, size_t at) {
    g.u32(at + 0, 0).text(at + 4, 14, "vd-0001");
    g.text(at + 18, 2, "05").text(at + 20, 28, "data").u16be(at + 48, 305);
    g.u32(at + 50, 512).u64(at + 54, 0x0102030405060708ULL).u64(at + 62, 1ULL << 40);
    g.u64(at + 70, 77).text(at + 78, 32, "plain disk");
    g.u8(at + 110, 3).u16(at + 111, 4000).u16(at + 113, 2).u8(at + 115, 1).u8(at + 116, 2);
    g.u16(at + 117, 64).u16(at + 119, 0).u16(at + 121, 2).u16(at + 123, 1);
    g.u32(at + 125, 7).u32(at + 129, 9);
    // 192.168.0.10 as a number, stored little-endian.
    g.u8(at + 133, 0x0A).u8(at + 134, 0x00).u8(at + 135, 0xA8).u8(at + 136, 0xC0);
}

Bytes as_bytes(const char* buf, size_t len) {
    return Bytes(reinterpret_cast<const uint8_t*>(buf),
                 reinterpret_cast<const uint8_t*>(buf) + len);
}

// Builds a PING (or SINGLE_VDISK_PING) of make_vde() the way a sender does.
Bytes build_vdisk_datagram(uint8_t type) {
    std::vector<char> buf(65536);
    DatagramWriter wr(buf.data(), buf.size());
    Hdr h = make_hdr(type);
    VDiskEntry v = make_vde();
    vde_encode_mshipgencnt(&v, &h, 305);
    uint32_t fe = 0;
    EXPECT_EQ(addr_text_to_number("192.168.0.10", &fe), 1);
    EXPECT_TRUE(wr.put(h));
    EXPECT_TRUE(wr.put(v));
    EXPECT_TRUE(wr.put(MemberEntry{7}));
    EXPECT_TRUE(wr.put(MemberEntry{9}));
    EXPECT_TRUE(wr.put(FrontendEntry{fe}));
    return as_bytes(buf.data(), wr.length());
}

TEST(WireRecords, HeaderOnlyDatagramsAreTheGoldenHeader) {
    // A PING without VDisks, a HEARTBEAT and the DS_PING of a node without
    // a data store are the bare 207-byte header.
    const std::pair<uint8_t, uint8_t> kinds[] = {
        {msg::PING, 4}, {msg::HEARTBEAT, 32}, {msg::DS_PING, 16}};
    for (auto [type, code] : kinds) {
        char buf[512];
        DatagramWriter wr(buf, sizeof buf);
        ASSERT_TRUE(wr.put(make_hdr(type)));
        Golden g(207);
        golden_hdr(g, code);
        EXPECT_EQ(as_bytes(buf, wr.length()), g.bytes()) << unsigned{code};
    }
}

TEST(WireRecords, VDiskBlockWithTwoMembersAndOneFrontend) {
    Golden g(344);
    golden_hdr(g, 4);
    golden_vde(g, 207);
    Bytes ping = build_vdisk_datagram(msg::PING);
    EXPECT_EQ(ping.size() - 207, 137u);
    EXPECT_EQ(ping, g.bytes());
    EXPECT_EQ(ping[48 + 207], 0x01);  // 305 big-endian: 01 31
    EXPECT_EQ(ping[49 + 207], 0x31);

    Golden sv(344);
    golden_hdr(sv, 33);
    golden_vde(sv, 207);
    EXPECT_EQ(build_vdisk_datagram(msg::SINGLE_VDISK_PING), sv.bytes());
}

TEST(WireRecords, SnapshotDescriptionLayout) {
    VDiskEntry v{};
    std::memcpy(v.uuid, "snap-1", 6);
    v.snapshot = 1;
    v.description.snap.y = 24;
    v.description.snap.m = 12;
    v.description.snap.d = 0x0131;
    v.description.snap.H = 23;
    v.description.snap.M = 59;
    v.description.snap.S = 58;
    std::memcpy(v.description.snap.parent, "parent-uuid-14", 14);
    char buf[125];
    DatagramWriter wr(buf, sizeof buf);
    ASSERT_TRUE(wr.put(v));
    ASSERT_FALSE(wr.put(MemberEntry{1}));  // full: nothing written past the end

    Golden g(125);
    g.text(4, 14, "snap-1").u8(78, 24).u8(79, 12).u16(80, 0x0131).u8(82, 23).u8(83, 59);
    g.u8(84, 58).text(85, 14, "parent-uuid-14").u16(119, 1);
    EXPECT_EQ(as_bytes(buf, wr.length()), g.bytes());
}

TEST(WireRecords, DatastoreAuxDeleteAndJsonDatagrams) {
    std::vector<char> buf(4096);

    // DS_PING with a 14-character uuid that fills its field unterminated.
    DatagramWriter ds(buf.data(), buf.size());
    DatastoreEntry dse{};
    std::memcpy(dse.uuid, "ds-45678901234", 14);
    std::strcpy(dse.name, "pool");
    std::strcpy(dse.description, "main pool");
    dse.sector_size = 4096;
    dse.replicas = 3;
    dse.stripes = 8;
    dse.overcommit = 2;
    ASSERT_TRUE(ds.put(make_hdr(msg::DS_PING)) && ds.put(dse));
    Golden gds(294);
    golden_hdr(gds, 16);
    gds.text(207, 14, "ds-45678901234").text(221, 32, "pool").text(253, 32, "main pool");
    gds.u32(285, 4096).u16(289, 3).u16(291, 8).u8(293, 2);
    EXPECT_EQ(as_bytes(buf.data(), ds.length()), gds.bytes());
    EXPECT_EQ(ds.length(), DS_PING_SIZE);

    // AUX_PING: a zero byte after the header, the figures from 208 on.
    DatagramWriter aux(buf.data(), buf.size());
    AuxPingData a{};
    a.length = sizeof(AuxPingData);
    a.allocatedspace = 11;
    a.curvdisks = 12;
    a.curvdisksforctrl = 13;
    a.maxvdisksforctrl = 14;
    a.memtotal = 15;
    a.memavail = 16;
    buf[207] = 'x';  // a stale byte must be overwritten by the zero
    ASSERT_TRUE(aux.put(make_hdr(msg::AUX_PING)) && aux.put_zeros(1) && aux.put(a));
    Golden gaux(236);
    golden_hdr(gaux, 35);
    gaux.u32(208, 28).u32(212, 11).u32(216, 12).u32(220, 13).u32(224, 14).u32(228, 15);
    gaux.u32(232, 16);
    EXPECT_EQ(as_bytes(buf.data(), aux.length()), gaux.bytes());
    EXPECT_EQ(aux.length(), AUX_PING_SIZE);

    // VDISK_DELETED.
    DatagramWriter del(buf.data(), buf.size());
    VDiskDeleteEntry d{};
    d.node = 7;
    std::memcpy(d.uuid, "vd-0001", 7);
    ASSERT_TRUE(del.put(make_hdr(msg::VDISK_DELETED)) && del.put(d));
    Golden gdel(225);
    golden_hdr(gdel, 34);
    gdel.u32(207, 7).text(211, 14, "vd-0001");
    EXPECT_EQ(as_bytes(buf.data(), del.length()), gdel.bytes());

    // STORE_JSON: the record, then the text to the end without a zero.
    DatagramWriter js(buf.data(), buf.size());
    jsonEntry j{};
    j.major = 1;
    j.minor = 8;
    std::strcpy(j.nodeuuid, "7");
    std::strcpy(j.path, "cfg/a");
    std::strcpy(j.filename, "x.json");
    j.lastping = -2;
    j.jsonlen = 9;
    j.json = 0x1122334455667788ULL;
    j.offset = 0;
    const std::string text = "{\"a\":[1]}";
    ASSERT_TRUE(js.put(make_hdr(msg::STORE_JSON)) && js.put(j) && js.put_bytes(text));
    Golden gjs(353 + text.size());
    golden_hdr(gjs, 36);
    gjs.u8(207, 1).u8(208, 8).text(209, 16, "7").text(225, 64, "cfg/a").text(289, 32, "x.json");
    gjs.u64(321, static_cast<uint64_t>(-2)).u64(329, 9).u64(337, 0x1122334455667788ULL);
    gjs.u64(345, 0).text(353, text.size(), text);
    EXPECT_EQ(as_bytes(buf.data(), js.length()), gjs.bytes());
    // DELETE_JSON differs in its type code only.
    DatagramWriter djs(buf.data(), buf.size());
    ASSERT_TRUE(djs.put(make_hdr(msg::DELETE_JSON)) && djs.put(j) && djs.put_bytes(text));
    gjs.u8(2, 37);
    EXPECT_EQ(as_bytes(buf.data(), djs.length()), gjs.bytes());
    EXPECT_EQ(JSON_TEXT_OFFSET, 353u);
}

TEST(WireRecords, GoldenBytesReadBack) {
    // Packed fields are compared by value (+x): a reference to one may be
    // misaligned.
    Golden g(344);
    golden_hdr(g, 4);
    golden_vde(g, 207);
    const Bytes& b = g.bytes();
    DatagramReader rd(reinterpret_cast<const char*>(b.data()), b.size());
    Hdr h;
    VDiskEntry v;
    MemberEntry m1, m2;
    FrontendEntry fe;
    ASSERT_TRUE(rd.read(&h) && rd.read(&v) && rd.read(&m1) && rd.read(&m2) && rd.read(&fe));
    EXPECT_EQ(rd.remaining(), 0u);
    EXPECT_EQ(+h.uid, 7u);
    EXPECT_EQ(+h.hostid, 0xBEEF);
    EXPECT_EQ(+h.size, 0x12345678u);
    EXPECT_EQ(std::string(h.revision.rev), "r1.2");
    EXPECT_EQ(+v.numkeys, 0x0102030405060708ULL);
    EXPECT_EQ(vde_mshipgencnt(&v), 305u);
    EXPECT_EQ(+v.members, 2);
    EXPECT_EQ(+v.frontends, 1);
    EXPECT_EQ(+m2.node, 9u);
    EXPECT_EQ(+fe.node, 0xC0A8000Au);
}

TEST(MessageTypes, NamesByCode) {
    const std::pair<int, const char*> named[] = {{0, "READ_REQ"},
                                                 {4, "PING"},
                                                 {7, "HASH_BROADCAST"},
                                                 {16, "DS_PING"},
                                                 {24, "ENABLE_VDISK_SYNC_MASTER"},
                                                 {32, "HEARTBEAT"},
                                                 {33, "SINGLE_VDISK_PING"},
                                                 {34, "VDISK_DELETED"}};
    for (auto [code, name] : named) {
        Hdr h{};
        h.type = static_cast<uint8_t>(code);
        EXPECT_STREQ(msg_type(&h), name) << code;
    }
    // AUX_PING, the JSON pings and everything above share the last entry.
    EXPECT_STREQ(Msg_Types[35], "UNKNOWN");
    for (int code = 35; code < 256; ++code) {
        Hdr h{};
        h.type = static_cast<uint8_t>(code);
        EXPECT_STREQ(msg_type(&h), "UNKNOWN") << code;
    }
}

TEST(GenerationCount, BeforeAndAfterVersionOneEight) {
    struct Case {
        uint8_t major, minor;
        unsigned count;
        uint8_t be_hi, be_lo;  // name.mshipgencnt bytes as sent
        unsigned received;     // what a receiver reads
    } cases[] = {
        {1, 7, 123, 0x00, 0x00, 23}, {1, 8, 123, 0x00, 0x7B, 123}, {1, 8, 305, 0x01, 0x31, 305},
        {1, 7, 305, 0x00, 0x00, 5},  {0, 99, 7, 0x00, 0x00, 7},    {2, 0, 100, 0x00, 0x64, 100},
    };
    for (const Case& c : cases) {
        Hdr h{};
        h.major = c.major;
        h.minor = c.minor;
        VDiskEntry v{};
        vde_encode_mshipgencnt(&v, &h, c.count);
        uint8_t raw[sizeof v];
        std::memcpy(raw, &v, sizeof v);
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02u", c.count % 100);
        SCOPED_TRACE(std::to_string(c.major) + "." + std::to_string(c.minor) + " count " +
                     std::to_string(c.count));
        EXPECT_EQ(raw[18], digits[0]);
        EXPECT_EQ(raw[19], digits[1]);
        EXPECT_EQ(raw[48], c.be_hi);
        EXPECT_EQ(raw[49], c.be_lo);
        vde_decode_mshipgencnt(&v, &h);
        EXPECT_EQ(vde_mshipgencnt(&v), c.received);
    }

    // An old sender's stray full count is ignored; non-digits decode to a
    // defined value: ('A' - '0') * 10 + (0x80 as -128) - '0', kept to 16 bits.
    Hdr old{};
    old.major = 1;
    old.minor = 0;
    VDiskEntry v{};
    v.name.old_mshipgencnt[0] = 'A';
    v.name.old_mshipgencnt[1] = static_cast<char>(0x80);
    v.name.mshipgencnt = 0xFFFF;
    vde_decode_mshipgencnt(&v, &old);
    EXPECT_EQ(vde_mshipgencnt(&v), static_cast<uint16_t>(17 * 10 + (-128 - 48)));
}

TEST(AddressNumbers, BothDirections) {
    uint32_t n = 0;
    ASSERT_EQ(addr_text_to_number("192.168.0.10", &n), 1);
    EXPECT_EQ(n, 0xC0A8000Au);
    uint8_t wire[4];
    std::memcpy(wire, &n, 4);
    EXPECT_EQ(Bytes(wire, wire + 4), (Bytes{0x0A, 0x00, 0xA8, 0xC0}));
    ASSERT_EQ(addr_text_to_number("10.1.2.3", &n), 1);
    std::memcpy(wire, &n, 4);
    EXPECT_EQ(Bytes(wire, wire + 4), (Bytes{0x03, 0x02, 0x01, 0x0A}));

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
    struct Case {
        std::string field;  // 14 bytes or fewer, zero-padded
        bool safe;
    } cases[] = {
        {"", false},
        {"/", false},
        {".", false},
        {"..", false},
        {"a/b", false},
        {"../x", false},
        {"...", true},
        {".hidden", true},
        {"vd-0001", true},
        {"abcdefghijklmn", true},          // 14 bytes, no terminator
        {std::string("\0/..", 4), false},  // empty: nothing after a zero counts
        {std::string("ok\0/", 4), true},   // bytes after the zero are ignored
        {std::string(".\0.", 3), false},
    };
    for (const Case& c : cases) {
        char field[14] = {};
        std::memcpy(field, c.field.data(), c.field.size());
        EXPECT_EQ(uuid_is_safe(field, sizeof field), c.safe) << '"' << c.field << '"';
    }
    // The width bounds the text: a "/" just past it is not seen.
    const char wide[16] = "abcdefghijklmn/";
    EXPECT_TRUE(uuid_is_safe(wide, 14));
    EXPECT_FALSE(uuid_is_safe(wide, 15));

    test::LogCapture log;
    VDiskEntry v{};
    std::memcpy(v.uuid, "snap", 4);
    EXPECT_EQ(vde_check_uuids(&v), 0);
    v.snapshot = 1;  // a snapshot's parent must pass the same check
    EXPECT_EQ(vde_check_uuids(&v), -2);
    std::memcpy(v.description.snap.parent, "..", 2);
    EXPECT_EQ(vde_check_uuids(&v), -2);
    std::memcpy(v.uuid, "a/b", 4);
    EXPECT_EQ(vde_check_uuids(&v), -1);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "error: vde_check_uuids(): Refused parent uuid \"\" of VDisk snap",
                               "error: vde_check_uuids(): Refused parent uuid \"..\" of VDisk snap",
                               "error: vde_check_uuids(): Refused VDisk uuid \"a/b\""}));
}

TEST(RecordTraces, OneLinePerFieldInOrder) {
    test::LogCapture log;
    Hdr h = make_hdr(msg::AUX_PING);
    std::memset(h.serial, 'S', sizeof h.serial);  // fills the field: printed whole, no more
    hdr_dump(&h);
    EXPECT_EQ(
        log.lines(),
        (std::vector<std::string>{
            "debug: hdr_dump(): major=1", "debug: hdr_dump(): minor=8",
            "debug: hdr_dump(): type=35 [UNKNOWN]", "debug: hdr_dump(): nodestatus=2",
            "debug: hdr_dump(): uid=7", "debug: hdr_dump(): vendor=Vendor",
            "debug: hdr_dump(): model=Model", "debug: hdr_dump(): revision.freespace=1000",
            "debug: hdr_dump(): revision.utilization=55", "debug: hdr_dump(): revision.rev=r1.2",
            "debug: hdr_dump(): serial=" + std::string(64, 'S'), "debug: hdr_dump(): hbtl=1:0:0:7",
            "debug: hdr_dump(): size=305419896", "debug: hdr_dump(): performance=9",
            "debug: hdr_dump(): hostid=48879"}));

    log.clear();
    DatastoreEntry dse{};
    std::memcpy(dse.uuid, "ds-45678901234", 14);
    std::memcpy(dse.name, "pool", 4);
    dse.sector_size = 0x80000000u;  // shown signed
    dse.replicas = 3;
    dse_dump(&dse);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "debug: dse_dump(): uuid=ds-45678901234", "debug: dse_dump(): name=pool",
                  "debug: dse_dump(): description=", "debug: dse_dump(): sector_size=-2147483648",
                  "debug: dse_dump(): replicas=3", "debug: dse_dump(): stripes=0",
                  "debug: dse_dump(): overcommit=0"}));

    log.clear();
    VDiskEntry v = make_vde();
    vde_encode_mshipgencnt(&v, &h, 305);
    v.snapshot = 2;
    v.description.snap.y = 24;
    v.description.snap.m = 1;
    v.description.snap.d = 5;
    v.description.snap.H = 7;
    v.description.snap.M = 8;
    v.description.snap.S = 9;
    std::memcpy(v.description.snap.parent, "parent-uuid-14", 14);
    vde_dump(&v);
    std::vector<std::string> want = {"debug: vde_dump(): transaction_id=0",
                                     "debug: vde_dump(): uuid=vd-0001",
                                     "debug: vde_dump(): membership_gen_count=305",
                                     "debug: vde_dump(): name=data",
                                     "debug: vde_dump(): sector_size=512",
                                     "debug: vde_dump(): numkeys=72623859790382856",
                                     "debug: vde_dump(): sectors=1099511627776",
                                     "debug: vde_dump(): seqno=77",
                                     "debug: vde_dump(): snapshot=2",
                                     "debug: vde_dump(): parent=parent-uuid-14",
                                     "debug: vde_dump(): snaptime=24-01-05_07.08.09",
                                     "debug: vde_dump(): status=3",
                                     "debug: vde_dump(): port=4000",
                                     "debug: vde_dump(): replicas=2",
                                     "debug: vde_dump(): st_mem=1",
                                     "debug: vde_dump(): st_mems=2",
                                     "debug: vde_dump(): st_size=64",
                                     "debug: vde_dump(): members=2",
                                     "debug: vde_dump(): frontends=1"};
    EXPECT_EQ(log.lines(), want);

    // A plain VDisk shows its description in place of parent and time.
    log.clear();
    VDiskEntry plain = make_vde();
    vde_dump(&plain);
    std::vector<std::string> lines = log.lines();
    ASSERT_EQ(lines.size(), 18u);
    EXPECT_EQ(lines[9], "debug: vde_dump(): description=plain disk");
    EXPECT_EQ(lines[10], "debug: vde_dump(): status=3");

    log.clear();
    MemberEntry mbe{4294967295u};
    mbe_dump(&mbe);
    FrontendEntry fee{0xC0A8000Au};
    fee_dump(&fee);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"debug: mbe_dump(): node=4294967295",
                                                     "debug: fee_dump(): node=192.168.0.10"}));
}

TEST(RecordTraces, NothingWhenDebugIsMasked) {
    test::LogCapture log;
    setlogmask(LOG_UPTO(LOG_INFO));
    Hdr h = make_hdr(msg::PING);
    hdr_dump(&h);
    VDiskEntry v = make_vde();
    vde_dump(&v);
    EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace corvald
