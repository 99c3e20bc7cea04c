// The receive step's tables in-process: datagrams from the golden builders
// handed to handle_datagram on a real store. Each row gives what it changes
// there (changes(): a record that came or went shows as its directory) and
// the lines it logs at notice level and above ("@" for the test directory).
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "store/datastore.h"
#include "store/vdisk.h"
#include "support/hostile_names.h"
#include "support/receiver.h"
#include "support/wire.h"

namespace corvald::test {
namespace {

using Lines = std::vector<std::string>;
const std::string E = "error: controller_thread_loop(): ", kToV = "-> ../../../VDisk/",
                  kStale = "notice: controller_thread_loop(): Stale VDisk ";

struct Row { std::string dgram, changes; Lines lines = {}; };

// What the stale check says of a link of node n to VDisk zz, which has no record.
Lines stale_zz(const std::string& n) {
    return {kStale + "zz of member " + n,
            "error: fd_open(): open(@/s/VDisk/zz): No such file or directory"};
}

// Rows may write "~" for <missing>, "^" for a link "=-> ../../../VDisk/",
// "%" for VDisk/vd1/, "#" for its memberinfo/, "&" for Datastore/ds1/vdisks/
// and "$" for Node/1/vdisks/.
std::string x(std::string t) {
    const std::pair<char, std::string> tokens[] = {
        {'~', "<missing>"}, {'^', "=" + kToV}, {'#', "VDisk/vd1/memberinfo/"}, {'%', "VDisk/vd1/"},
        {'&', "Datastore/ds1/vdisks/"}, {'$', "Node/1/vdisks/"}};
    for (const auto& [c, text] : tokens)
        for (size_t i; (i = t.find(c)) != t.npos;) t.replace(i, 1, text);
    return t;
}

void run(Receiver& r, const std::vector<Row>& rows) {
    for (size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(show(r.feed(rows[i].dgram)), x(rows[i].changes)) << "row " << i;
        EXPECT_EQ(r.lines(), rows[i].lines) << "row " << i;
    }
}

// The demo node uid's header of type at version 1.minor.
Golden from(uint8_t type, uint32_t uid, uint8_t minor = 8) {
    return header(type, uid, 207, 1, minor).demo_node();
}

// A PING (or type) of uid with the blocks, each with uid's address as its frontend.
std::string ping(uint32_t uid, std::vector<VDiskBlock> blocks, uint8_t type = 4,
                 uint8_t minor = 8) {
    Golden g = from(type, uid, minor);
    for (VDiskBlock& b : blocks) b.frontends = {0x7f000000 + uid}, g.vdisk(b);
    return g.b;
}

std::string deleted(uint32_t uid, const std::string& uuid, uint32_t entry_node = 0) {
    return from(34, uid).vdisk_deleted(entry_node ? entry_node : uid, uuid).b;
}

// The locks the last feed took and gave back, in order.
std::string steps(const Receiver& r) {
    std::string out;
    for (std::string l : r.log.lines_containing(r.root + "/locks/"))
        out += l.substr(l.rfind('/') + 1, l.find(" [") - l.rfind('/') - 1) + ",";
    return out;
}

// Every kind from an empty store into the demo records (compared whole),
// with the order of their locks, and out again.
TEST(Receive, EveryKindMakesTheDemoRecordsAndTakesThemAway) {
    Receiver r(StoreBuilder{});
    const std::string vd = "vd0123456789ab", V = "VDisk/" + vd, L = "^" + vd;
    run(r, {{from(16, 7).datastore("ds1", "demo store", "one-host demo").b,
             "Datastore=<dir> Node=<dir>"}});
    EXPECT_EQ(steps(r), "NODE-7,NODE-7,DS-ds1,DS-ds1,NODE-7,NODE-7,");
    run(r, {{from(35, 7).aux().b,
             "Node/7/allocatedspace=20480, Node/7/curvdisks=2, Node/7/curvdisksforctrl=3, "
             "Node/7/maxvdisksforctrl=64, Node/7/memavail=9216, Node/7/memtotal=16384,"}});
    run(r, {{ping(7, {{vd, {7, 8}}}), "&" + vd + L + " Node/7/vdisks/" + vd + L + " VDisk=<dir>"}});
    EXPECT_EQ(steps(r), "NODE-7,NODE-7,VDISK-" + vd + ",NODE-7,NODE-7,DS-ds1,DS-ds1,VDISK-" + vd +
                            ",NODE-7,NODE-7,");
    const std::string ds8 = from(16, 8).datastore("ds1", "demo store", "one-host demo", 3, 2).b;
    run(r, {{from(35, 9).aux().b.substr(0, 235), "", {E + "Malformed Node Ping?"}},
            {from(32, 9).b, ""},  // a heartbeat makes no record
            {from(32, 9).b.substr(0, 206), "", {E + "Malformed packet? #1"}},
            {from(5, 9).b, "", {E + "Received unknown header type 5"}},
            {ds8,
             "Datastore/ds1/members/8=-> ../../../Node/8 Datastore/ds1/replicas=3, "
             "Datastore/ds1/stripes=2, Node/8=<dir>"},
            {ds8, ""},
            {ping(8, {{vd, {7, 8}}}, 33),
             "Node/8/vdisks/" + vd + L + " " + V + "/memberinfo/8=<dir>"}});
    StoreBuilder want;
    want.node(7).node(8, "v1.8", false).datastore("ds1", {7, 8}).vdisk(vd, {7, 8}, "", "ds1");
    want.put("Datastore/ds1/replicas", "3\n").put("Datastore/ds1/stripes", "2\n").put("locks");
    EXPECT_EQ(show(changes(want.t, snapshot(r.root))), "");
    run(r, {{deleted(8, vd, 7),
             "Node/8/vdisks/" + vd + "=~ " + V + "/memberinfo/8=~",
             {E + "HASHREQ_VDISK_DELETED 8 != 7, using 8"}},
            {deleted(8, vd).substr(0, 224), "", {E + "Malformed packet? #4"}},
            {from(33, 7).b, ""},
            {from(4, 7).b,
             "&" + vd + "=~ Node/7/vdisks/" + vd + "=~ " + V + "=~",
             {kStale + vd + " of member 7"}},
            {from(16, 7).b, "Datastore/ds1/members/7=~ Node/7/datastoremember=~"},
            {from(16, 8).b, "Datastore/ds1=~ Node/8/datastoremember=~"}});
    EXPECT_TRUE(r.log.contains("info: DatastoreUpdate_UnrefNode(): Delete Datastore ds1"));
    run(r, {{from(16, 8).b, ""}});  // a node of no data store
}

// vd1 of nodes 7 and 8 at generation 4 in ds1; row i announces seqno i and
// 100 * i sectors. Nodes 3, 7 and 8 also link zz: the stale check, which only
// a PING of no failed entry makes, says so.
TEST(Receive, GenerationsDecideWhatAnAnnouncementChanges) {
    StoreBuilder store;
    store.node(3).node(7).node(8).node(9).datastore("ds1", {3, 7, 8});
    store.vdisk("vd1", {7, 8}, "", "ds1", 4).put("Node/9/datastoremember", "..\n");
    store.put("Node/3/datastoremember", "").t.erase("Datastore/ds1/members/8");
    for (std::string n : {"3", "7", "8"}) store.put("Node/" + n + "/vdisks/zz", "-> x");
    Receiver r(store);
    auto ok = stale_zz;
    auto vd = [](unsigned gen, std::vector<uint32_t> members, uint64_t seqno, uint32_t tid = 0,
                 const char* uuid = "vd1") {
        VDiskBlock b(uuid, std::move(members));
        b.gen = gen, b.seqno = seqno, b.sectors = 100 * seqno, b.transaction_id = tid;
        return b;
    };
    // vd1 from node n at generation gen with members, seqno and transaction
    // tid, from a peer at version 1.minor.
    auto a = [&](uint32_t n, unsigned gen, std::vector<uint32_t> members, uint64_t seqno,
                 std::string changes, uint32_t tid = 0, uint8_t minor = 8) {
        return Row{ping(n, {vd(gen, members, seqno, tid)}, 4, minor), changes,
                   ok(std::to_string(n))};
    };
    const std::string f = "fence uuid=vd1 member=";
    auto fence = [&](const char* m) { return "2 " + r.dir / f + m + " 0 1 2 3\n"; };
    r.feed(from(32, 7).b);
    EXPECT_NE(r.at("Node/7/lastping"), "1795000000\n");
    run(r,
        {a(7, 3, {7}, 2, "#7/seqno=2,"), a(7, 9, {7}, 3, "#7/seqno=3,", 5),
         a(3, 4, {3, 7, 8}, 4, "Node/3/vdisks/vd1^vd1 #3=<dir> %membership=3,7,8, %sectors=400,"),
         a(7, 4, {3, 7}, 5, "Node/8/vdisks/vd1=~ #7/seqno=5, #8=~ %membership=3,7, %sectors=500,"),
         a(7, 5, {3, 7}, 6,
           "%highest_gen_count=5, #7/membership_gen_count=5, #7/seqno=6, %sectors=600,")});
    EXPECT_EQ(r.log.lines_containing("FenceCheck"),
              Lines({"info: FenceCheck(): Call " + r.dir / f + "7",
                     "info: FenceCheck(): Return " + r.dir / f + "7"}));
    // Before 1.8 a peer has two digits of the count (106 of 100); from 1.8 on the field counts.
    run(r, {a(3, 106, {3, 7}, 7,
              "Node/3/version=v1.7, %highest_gen_count=6, #3/membership_gen_count=6, #3/seqno=7, "
              "%sectors=700,", 0, 7),
            a(7, 107, {7}, 8,
              "Node/3/vdisks/vd1=~ %highest_gen_count=107, #3=~ #7/membership_gen_count=107, "
              "#7/seqno=8, %membership=7, %sectors=800,")});
    EXPECT_EQ(r.dir.read("fence.log"), fence("7") + fence("3") + fence("7"));
    fence_check_timeout_ms = 200, r.dir.write("hang", "");
    run(r, {{ping(7, {vd(108, {7}, 9)}),
             "%highest_gen_count=108, #7/membership_gen_count=108, #7/seqno=9, %sectors=900,",
             {"error: FenceCheck(): @/" + f + "7 did not end within 200 ms, killed"}}});
    EXPECT_TRUE(::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD);  // reaped
    const std::string bad = "error: NodeLoad_DSMember(): Malformed @/s/Node/9/datastoremember: ..",
                      ds = "ds0123456789ab";
    run(r, {a(7, 108, {}, 10, "Node/7/vdisks/vd1=~ #7=~ %membership= %sectors=1000,"),
            {ping(8, {vd(1, {7}, 1, 0, "vd3")}), "VDisk/vd3=<dir>", ok("8")},  // 8 is no member
            {ping(9, {vd(1, {9}, 1, 0, "vd4")}), "Node/9/vdisks/vd4^vd4 VDisk/vd4=<dir>", {bad}},
            {from(16, 9).b, "", {bad}},
            {from(16, 7).datastore(ds).b,
             "Datastore/" + ds + "=<dir> Node/7/datastoremember=" + ds + ","},
            {header(33, 7).demo_node(0x0a000001).b,
             "Node/7/backupchannel=10.0.0.1, Node/7/nodestatus=1, Node/7/size=0,"},
            {from(16, 8).b, "Node/8/datastoremember=<missing>"},  // with no member link to drop
            {from(16, 3).b, "Node/3/datastoremember=<missing> Node/3/version=v1.8,"}});
    EXPECT_TRUE(r.log.contains("info: NodeLoad_DSMember(): Load Node 3 datastoremember="));
    EXPECT_EQ(show(snapshot(r.root + "/VDisk/vd3/memberinfo")) + r.at("VDisk/vd4/datastore"),
              "<missing>");
    EXPECT_EQ(r.at("VDisk/vd4/memberinfo/9/nodestatus"), "-> ../../../../Node/9/status");
}

// Snapshot s of v, both of nodes 1 and 3 in ds1: the parent's link, each
// member's record and link and the data store's link come and go, a removal
// in that order, and one cut short by a failure is finished by the next.
// Node 1 also links zz, for the stale check.
TEST(Receive, SnapshotsComeAndGoWithTheirLinks) {
    StoreBuilder store;
    store.node(1).node(3).datastore("ds1", {1, 3}).vdisk("v", {1, 3}, "", "ds1");
    store.vdisk("s", {1, 3}, "v", "ds1").vdisk("n", {}, "gone").put("Node/1/vdisks/zz", "-> x");
    Receiver r(store);
    VDiskBlock s2("s2", {1}, {}, "v"), t("t", {1}, {}, "v");
    t.transaction_id = 9;
    const std::string all =
        ping(1, {{"v", {1, 3}}, {"s", {1, 3}, {}, "v"}, s2, {"o", {1}, {}, "gone"}, t});
    run(r, {{all, "&o^o &s2^s2 $o^o $s2^s2 VDisk/o=<dir> VDisk/s2=<dir> VDisk/v/snapshots/s2^s2",
             stale_zz("1")},
            {all, "", stale_zz("1")}});
    store.vdisk("s2", {1}, "v", "ds1").vdisk("o", {1}, "gone", "ds1").put("locks");
    EXPECT_EQ(show(changes(store.t, snapshot(r.root))), "");
    run(r, {{from(33, 1).vdisk(s2).b, "VDisk/s2/memberinfo/1/frontend="},  // no frontends
            {deleted(3, "s"), "Node/3/vdisks/s=~ VDisk/s/memberinfo/3=~"},
            {deleted(1, "s"), "&s=~ $s=~ VDisk/s=~ VDisk/v/snapshots/s=~"}});
    const std::string i = "info: ";
    EXPECT_EQ(
        r.lines(LOG_INFO),
        Lines({i + "NodeCreate(): Create Node 1", i + "VDiskLoad(): Load VDisk s by Node NONE",
               i + "MemberinfoDelete(): Update VDisk s delete Member 1",
               i + "NodeUpdate_UnrefVDisk(): Update Node 1 unref VDisk s",
               i + "ParentUpdate_UnrefSnapshot(): Update VDisk v unref Snapshot s",
               i + "DatastoreUpdate_UnrefVDisk(): Update Datastore ds1 unref VDisk s",
               i + "VDiskGone(): Delete VDisk s"}));
    const std::string link = r.root + "/VDisk/o/datastore",
                      bad =
                          "error: DatastoreUpdate_UnrefVDisk(): Malformed symlink @/s/VDisk/o/"
                          "datastore: ";
    auto relink = [&](const char* to) { ::unlink(link.c_str()), ::symlink(to, link.c_str()); };
    relink("../../Datastore/");
    run(r, {{deleted(9, "n"), "Node/9=<dir> VDisk/n=~"},  // nothing but the record
            {deleted(1, "o"), "$o=~ VDisk/o/memberinfo=~", {bad + "../../Datastore/"}}});
    relink("/..");
    run(r, {{deleted(1, "o"), "", {bad + "/.."}}});
    relink("../../Datastore/ds1");
    run(r, {{deleted(1, "o"), "&o=~ VDisk/o=~"}});
    // A held lock fails the step that needs it, and what that would remove stays.
    r.dir.write("s/locks/DS-ds1", "1\n");
    run(r, {{deleted(1, "s2"), "$s2=~ VDisk/s2/memberinfo=~ VDisk/v/snapshots/s2=~"}});
    ::rename((r.root + "/locks/DS-ds1").c_str(), (r.root + "/locks/NODE-3").c_str());
    run(r, {{deleted(1, "s2"), "&s2=~ VDisk/s2=~"},
            {ping(1, {{"v", {1}}}, 33), "VDisk/v/memberinfo/3=~ VDisk/v/membership=1,"}});
}

// Damaged, repeated and refused (locked) entries keep the stale check from
// removing anything; a whole announcement then removes, in name order, every
// VDisk linked to its node but not named. Node 1 also links a file and a
// name too long for a uuid, which are no VDisks.
TEST(Receive, OnlyAWholeAnnouncementRemovesStaleVDisks) {
    StoreBuilder store;
    store.node(1).node(2).datastore("ds1", {1, 2}).vdisk("v", {1}).put("locks/VDISK-held", "1\n");
    for (const char* name : {"b2", "a10", "0123456789abcd", "0123456789abcde"})
        store.put("Node/1/vdisks/" + std::string(name), "-> x");
    Receiver r(store.put("Node/1/vdisks/file", "x\n"));
    const std::string whole = ping(1, {{"new", {1, 2}}}),
                      none = "error: fd_open(): open(@/s/VDisk/",
                      gone = "): No such file or directory";
    ASSERT_EQ(whole.size(), 207u + 125 + 8 + 4);
    auto made = [](const std::string& v) {
        return "&" + v + "^" + v + " $" + v + "^" + v + " VDisk/" + v + "=<dir>";
    };
    run(r, {{whole.substr(0, whole.size() - 1), "", {E + "Malformed packet? #3"}},
            {whole.substr(0, whole.size() - 8), "", {E + "Malformed packet? #2"}},
            {ping(1, {{"dup", {1}}, {"dup", {1}}}), made("dup"), {E + "Duplicate VDisk Entry dup"}},
            {ping(1, {{"held", {1}}, {"free", {1}}}), made("free")},
            {whole,
             "&dup=~ &free=~ &new^new $dup=~ $free=~ $new^new $v=~ VDisk/dup=~ VDisk/free=~ "
             "VDisk/new=<dir> VDisk/v=~",
             {"error: NodeLoad_VDisks(): Malformed symlink @/s/Node/1/vdisks/0123456789abcde",
              kStale + "0123456789abcd of member 1", none + "0123456789abcd" + gone,
              kStale + "a10 of member 1", none + "a10" + gone, kStale + "b2 of member 1",
              none + "b2" + gone, kStale + "dup of member 1", kStale + "free of member 1",
              kStale + "v of member 1"}}});
}

// A snapshot of parent as the store operations get it.
VDisk snapshot_of(const std::string& uuid, const std::string& parent) {
    VDisk v;
    uuid.copy(v.vdiskuuid, 15), uuid.copy(v.vde.uuid, 14), v.vde.snapshot = 1;
    parent.copy(v.parentuuid, 15), parent.copy(v.vde.description.snap.parent, 14);
    return v;
}

// Names that are no plain directory name, in every uuid field of a datagram
// and handed to the store operations themselves (their texts also come from
// store files, which other programs write): each is refused with one line
// naming it, and nothing changes, in the store or beside it.
TEST(Receive, NamesThatLeaveTheirDirectoryAreRefused) {
    StoreBuilder store;
    Receiver r(store.node(66).datastore("ds1", {66}).vdisk("p", {66}, "", "ds1"));
    const Tree before = snapshot(r.dir.path());
    Hdr hdr = {};
    hdr.uid = 66;
    for (std::string_view name : kHostileNames) {
        const std::string bad(name);
        auto refused = [&](int rc) {
            const Lines lines = r.lines();
            EXPECT_TRUE(rc < 0 && lines.size() == 1 && lines[0].find("Refused") != bad.npos &&
                        lines[0].find("\"" + bad + "\"") != bad.npos)
                << bad << testing::PrintToString(lines);
            r.log.clear();
        };
        VDiskBlock snap("snap", {66}, {}, bad);
        snap.snapshot = true;
        for (const std::string& d : {ping(66, {{bad, {66}}}), ping(66, {snap}),
                                     from(16, 66).datastore(bad).b, deleted(66, bad)})
            refused(show(r.feed(d)).empty() ? -1 : 0);
        VDisk vd = snapshot_of(bad, "p"), parent = snapshot_of("s", bad),
              ok = snapshot_of("s", "p");
        DatastoreEntry dse = {};
        bad.copy(dse.uuid, 14);
        refused(VDiskCreate(&hdr, &vd)), refused(VDiskCreate(&hdr, &parent));
        refused(ParentUpdate_RefSnapshot(&parent)), refused(VDiskGone(&hdr, &vd));
        refused(VDiskGone(&hdr, &parent)), refused(MemberinfoDelete(&ok, bad.c_str()));
        refused(ParentUpdate_UnrefSnapshot(&vd)), refused(ParentUpdate_UnrefSnapshot(&parent));
        refused(DatastoreCreate(&hdr, &dse)), refused(DatastoreLoad(bad.c_str(), &dse));
        refused(DatastoreUpdate_UnrefNode(bad.c_str(), "66"));
    }
    EXPECT_EQ(show(changes(before, snapshot(r.dir.path()))), "");
}

}  // namespace
}  // namespace corvald::test
