// The Wireshark dissector tools/wireshark/corvald.lua as tshark runs it: a
// capture of golden datagrams (each kind, the generation count at 1.7 and
// 1.8, every malformed case, unknown types) compared field by field.
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/temp_dir.h"
#include "support/wire.h"

namespace corvald::test {
namespace {

// One record of a classic pcap file: the datagram in Ethernet + IPv4 + UDP
// from 127.0.0.3:40000 to 127.0.0.1:8000, UDP checksum 0 (none).
std::string frame(const std::string& d) {
    // Record header (16), Ethernet (14, type at 28), IPv4 (20 at 30), UDP (8 at 50).
    Golden f(16 + 42);
    auto be16 = [&f](size_t off, size_t v) { f.num(off, v >> 8, 1).num(off + 1, v & 0xff, 1); };
    f.num(8, 42 + d.size(), 4).num(12, 42 + d.size(), 4).num(28, 8, 1).num(30, 0x45, 1);
    be16(32, 28 + d.size());
    f.num(38, 64, 1).num(39, 17, 1).num(42, 0x0300007f, 4).num(46, 0x0100007f, 4);
    be16(50, 40000), be16(52, 8000), be16(54, 8 + d.size());
    return f.b + d;
}

// A datagram, the Info column tshark shows for it (each bracketed part an
// expert message) and fields as "record.field=value;...", a value being
// every occurrence in the packet joined by commas.
using Row = std::array<std::string, 3>;

TEST(Dissector, TsharkDecodesEveryKindAndMalformedCase) {
    if (std::system("command -v tshark >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "tshark is not installed (apt-get install tshark)";
    VDiskBlock plain("5f3a9c0e1b2d47", {7, 9}, {0xc0a8000a});
    plain.gen = 123;
    const VDiskBlock snap("5f3a9c0e1b2d48", {7}, {}, "5f3a9c0e1b2d47"), bad("..", {7});
    const Golden json = header(36, 7, 353).text(209, "7").text(225, "cfg").text(289, "a.json");
    const std::vector<Row> rows = {
        {header(4, 7).vdisk(plain).vdisk(snap).b, "PING from node 7, 2 VDisks",
         "vdisk.uuid=5f3a9c0e1b2d47,5f3a9c0e1b2d48;vdisk.membership_gen_count=123,1;"
         "vdisk.name.old_mshipgencnt=23,01;member.node=7,9,7;frontend.node=192.168.0.10;"
         "vdisk.description.descr=the demo's plain disk;vdisk.snaptime=26-11-23_09.30.00;"
         "vdisk.description.snap.parent=5f3a9c0e1b2d47"},
        {header(4, 7, 207, 1, 7).vdisk(plain).b, "PING from node 7, 1 VDisk",
         "vdisk.membership_gen_count=23;vdisk.name.mshipgencnt=0"},
        {header(33, 7).vdisk(plain).b, "SINGLE_VDISK_PING from node 7, 1 VDisk",
         "vdisk.sectors=2097152;vdisk.members=2"},
        {header(16, 7).datastore("ds0123456789ab", "demo store").b,
         "DS_PING from node 7, data store ds0123456789ab", "ds.name=demo store;ds.sector_size=512"},
        {header(16, 7).b, "DS_PING from node 7, no data store", ""},
        {header(35, 7, 236).num(208, 28, 4).num(216, 2, 4).num(232, 9216, 4).b,
         "AUX_PING from node 7, 2 VDisks", "aux.zero=0;aux.length=28;aux.memavail=9216"},
        {header(32, 7).num(3, 1, 1).text(8, "CORVAL").num(200, 0x0a010203, 4).b,
         "HEARTBEAT from node 7", "hdr.backupchannel=10.1.2.3;hdr.vendor=CORVAL;signed=0"},
        {header(16, 7, 260).text(207, "CVA1").num(211, 3, 1).num(212, 5, 8).num(220, 86400, 8).b,
         "DS_PING from node 7, no data store, signed by key 3",
         "signed=1;auth.key_id=3;auth.seq=5;auth.timestamp=Jan  2, 1970 00:00:00.000000000 UTC"},
        {header(34, 7).vdisk_deleted(8, "5f3a9c0e1b2d47").b,
         "VDISK_DELETED from node 7, VDisk 5f3a9c0e1b2d47 [HASHREQ_VDISK_DELETED 7 != 8, using 7]",
         "vdel.node=8"},
        {json.b + "{\"a\":1}", "STORE_JSON from node 7, cfg/a.json, 7 bytes",
         "json.text={\"a\":1};json.nodeuuid=7"},
        {Golden(json).num(2, 37, 1).b, "DELETE_JSON from node 7, cfg/a.json, 0 bytes", ""},
        {header(4, 7, 206).b, "206 bytes [Malformed packet? #1]", ""},
        {header(4, 7).vdisk(plain).b.substr(0, 336),
         "PING from node 7, 1 VDisk [Malformed packet? #2]", "member.node=7"},
        {header(4, 7).vdisk(plain).b.substr(0, 343),
         "PING from node 7, 1 VDisk [Malformed packet? #3]", "member.node=7,9"},
        {header(4, 7).vdisk(bad).vdisk(snap).vdisk(snap).b + "xyz",
         "PING from node 7, 3 VDisks [Refused VDisk uuid \"..\"] [Duplicate VDisk Entry "
         "5f3a9c0e1b2d48] [3 bytes after the last VDisk entry ignored]",
         "vdisk.uuid=..,5f3a9c0e1b2d48,5f3a9c0e1b2d48"},
        {header(34, 7, 224).b, "VDISK_DELETED from node 7 [Malformed packet? #4]", ""},
        {header(35, 7, 235).b, "AUX_PING from node 7 [Malformed Node Ping?]", ""},
        {json.b.substr(0, 352), "STORE_JSON from node 7 [Malformed JSON ping header]", ""},
        {Golden(json).num(345, 1, 8).b,
         "STORE_JSON from node 7, cfg/a.json [Malformed JSON ping empty payload]", ""},
        {header(5, 7).b, "INFO_REQ from node 7 [Received unknown header type 5]", ""},
        {header(40, 7).b, "UNKNOWN from node 7 [Received unknown header type 40]", ""},
    };
    Golden cap(24);  // pcap magic, version 2.4, snapshot length, link type 1 (Ethernet)
    cap.num(0, 0xa1b2c3d4, 4).num(4, 2, 2).num(6, 4, 2).num(16, 65535, 4).num(20, 1, 4);
    std::vector<std::map<std::string, std::string>> want;
    std::set<std::string> names;  // each field a row checks, once
    for (const auto& [datagram, info, fields] : rows) {
        cap.b += frame(datagram);
        auto& w = want.emplace_back(std::map<std::string, std::string>{{"_ws.col.Info", info}});
        std::string& ex = w["_ws.expert.message"];  // each " [...]" of Info, joined by commas
        for (size_t at = 0; (at = info.find(" [", at) + 1) != 0;)
            ex += (ex.empty() ? "" : ",") + info.substr(at + 1, info.find(']', at) - at - 1);
        std::istringstream in(fields);
        for (std::string kv; std::getline(in, kv, ';');)
            w["corvald." + kv.substr(0, kv.find('='))] = kv.substr(kv.find('=') + 1);
        for (const auto& [name, value] : w) names.insert(name);
    }
    TempDir dir;
    dir.write("c.pcap", cap.b);
    // A home and configuration of its own: no personal preferences or plugins.
    std::string cmd = "HOME=" + dir.path() + " WIRESHARK_CONFIG_DIR=" + dir.path() +
                      " tshark -n -r " + dir / "c.pcap" +
                      " -X lua_script:" CORVALD_SOURCE_DIR
                      "/tools/wireshark/corvald.lua -T fields -E separator='|'";
    for (const std::string& name : names) cmd += " -e " + name;
    ASSERT_EQ(std::system((cmd + " >" + dir / "out" + " 2>" + dir / "err").c_str()), 0)
        << dir.read("err");
    std::istringstream lines(dir.read("out"));
    for (const auto& w : want) {
        std::string line;
        ASSERT_TRUE(std::getline(lines, line)) << dir.read("out");
        std::istringstream cols(line);
        std::map<std::string, std::string> got;
        for (const std::string& name : names) std::getline(cols, got[name], '|');
        for (const auto& [name, value] : w)
            EXPECT_EQ(got[name], value) << name << " of " << w.at("_ws.col.Info");
    }
}

}  // namespace
}  // namespace corvald::test
