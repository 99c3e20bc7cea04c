// The receive path through the real binary: datagrams from 127.0.0.3 to a
// daemon on a copy of the seed store that announces nothing itself, and what
// each of them leaves in the store and in the log.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/daemon.h"
#include "support/seed_store.h"
#include "support/udp.h"
#include "support/wire.h"

namespace corvald::test {
namespace {

constexpr uint32_t kFrontend = 0x7f000009;  // 127.0.0.9

// One datagram, the store paths (from the store root) with what must be
// there after it (see look()), and a part of the one error line it must
// log, if any.
struct Step {
    std::string dgram;
    std::vector<std::pair<std::string, std::string>> expect;
    std::string error = "";
};

// A daemon on a seed copy with no local node and no destination. Its fence
// check appends its arguments to fence.log beside the store.
struct Peer {
    SeedStore s{"", ""};
    std::optional<Daemon> d;
    uint32_t marker = 900000;

    explicit Peer(std::initializer_list<std::pair<const char*, const char*>> cfg = {}) {
        for (const auto& [k, v] : cfg) s.cfg.values[k] = v;
        s.dir.write("fencecheck", "#!/bin/sh\necho \"$@\" >> " + s.dir / "fence.log" + "\n");
        ::chmod((s.dir / "fencecheck").c_str(), 0755);
        d.emplace(std::vector<std::string>{"-dd", "-C", s.conf()}, s.dir);
        EXPECT_TRUE(d->wait_for("BIND UDP"));
    }

    // Hands over one datagram and returns once the daemon has handled it:
    // datagrams are handled one at a time in their order, so the trace of
    // a marker of unknown type sent behind it comes after.
    void send(const std::string& dgram) {
        ASSERT_TRUE(send_datagram(dgram, s.cfg.bind_port()));
        ASSERT_TRUE(send_datagram(header(5, ++marker).b, s.cfg.bind_port()));
        ASSERT_TRUE(d->wait_for("debug: hdr_dump(): uid=" + std::to_string(marker)));
    }

    void run(const std::vector<Step>& steps) {
        for (size_t i = 0; i < steps.size(); ++i) {
            SCOPED_TRACE("step " + std::to_string(i));
            const size_t from = d->mark();
            send(steps[i].dgram);
            if (testing::Test::HasFatalFailure())
                return;
            // The error lines, each cut to the part expected where it holds it.
            const std::string& want = steps[i].error;
            std::vector<std::string> errors;
            for (size_t j = from; j < d->lines().size(); ++j) {
                const std::string& m = d->lines()[j].message;
                if (m.rfind("error:", 0) == 0)
                    errors.push_back(!want.empty() && m.find(want) != m.npos ? want : m);
            }
            errors.pop_back();  // the marker's
            EXPECT_EQ(errors, want.empty() ? std::vector<std::string>{} : std::vector{want});
            for (const auto& [path, what] : steps[i].expect)
                EXPECT_EQ(look(s.db() + "/" + path), what) << path;
        }
    }
};

std::string ping(uint32_t uid, const std::vector<VDiskBlock>& blocks, uint8_t minor = 8) {
    Golden g = header(4, uid, 207, 1, minor);
    for (const auto& v : blocks) g.vdisk(v);
    return g.b;
}

TEST(Receive, NodeRecordsFromEachTypeCapacityAndHeartbeats) {
    Peer p({{"stats_interval", "0"}});
    Golden aux = header(35, 15, 236).num(208, 28, 4);
    for (uint32_t i = 0; i < 6; ++i) aux.num(212 + 4 * i, 100 + i, 4);
    const std::string ip = "127.0.0.3\n";
    // clang-format off
    p.run({
        {header(4, 11).b, {{"Node/11/ipaddr", ip}, {"Node/11/version", "v1.8\n"}}},
        {header(16, 12).b, {{"Node/12/ipaddr", ip}, {"Node/12/datastoremember", "<missing>"}}},
        {header(33, 13).b, {{"Node/13/ipaddr", ip}, {"Node/13/vdisks", "<dir>"}}},
        // For the header's node, which has no member record: node 1's stays.
        {header(34, 14).vdisk_deleted(99, kSnap).b, {{"Node/14/ipaddr", ip},
         {"VDisk/" + kSnap + "/memberinfo/1", "<dir>"}}, "HASHREQ_VDISK_DELETED 14 != 99, using"},
        {header(34, 19, 224).b, {{"Node/19/ipaddr", ip}}, "Malformed packet? #4"},
        {aux.b, {{"Node/15/ipaddr", ip}, {"Node/15/allocatedspace", "100\n"},
                 {"Node/15/curvdisks", "101\n"}, {"Node/15/memavail", "105\n"}}},
        {aux.b.substr(0, 235), {{"Node/16", "<missing>"}}, "Malformed Node Ping?"},
        {header(32, 17).b, {{"Node/17", "<missing>"}}},
        {header(32, 1).b, {{"Node/1/ipaddr", "127.0.0.1\n"}}},
        {header(4, 20, 206).b, {{"Node/20", "<missing>"}}, "Malformed packet? #1"},
        {header(5, 21).b, {{"Node/21", "<missing>"}}, "Received unknown header type 5"},
    });
    // clang-format on
    EXPECT_NE(look(p.s.db() + "/Node/1/lastping"), "1795000000\n");
    // Since the start, with one marker per step; 206 bytes count nowhere.
    auto rx = p.d->wait_for_after(p.d->mark(), "notice: stats(): RX: ");
    ASSERT_TRUE(rx);
    std::string longs = rx->message;  // a/b: since the last line / since the start
    for (size_t eq = 0; (eq = longs.find('=', eq)) != longs.npos; ++eq)
        longs.erase(eq + 1, longs.find('/', eq) - eq);
    EXPECT_EQ(longs,
              "notice: stats(): RX: ALL=21 PING=1 DS_PING=1 AUX_PING=2 SV_PING=1 VDISK_DEL=2 "
              "HEARTBEAT=2 ST_JSON=0 UNKNOWN=12");
}

TEST(Receive, DatastoreCreateRefreshUnreferenceAndRemoval) {
    Peer p;
    const std::string ds = "Datastore/ds-fourteen-14/", m21 = "-> ../../../Node/21";
    // clang-format off
    p.run({
        {header(16, 21).datastore("ds-fourteen-14", "one").b,  // the whole field
         {{ds + "uuid", "ds-fourteen-14\n"}, {ds + "name", "one\n"}, {ds + "vdisks", "<dir>"},
          {ds + "members/21", m21}, {"Node/21/datastoremember", "ds-fourteen-14\n"}}},
        {header(16, 22).datastore("ds-fourteen-14", "two").b, {{ds + "name", "two\n"},
         {ds + "members/21", m21}, {ds + "members/22", "-> ../../../Node/22"}}},
        {header(16, 21).b, {{ds + "members/21", "<missing>"},
         {"Node/21/datastoremember", "<missing>"}, {ds + "members/22", "-> ../../../Node/22"}}},
        {header(16, 22).b, {{ds, "<missing>"}, {"Node/22/datastoremember", "<missing>"}}},
    });
    // clang-format on
}

// H = 4 after the creation; then older, equal and newer generations, and
// peers before and from 1.8; then members leaving and the stale check.
TEST(Receive, GenerationRulesMembersLeavingAndStaleRemoval) {
    Peer p;
    const std::string v = "VDisk/gen-disk/", fence = "../fence.log",
                      link = "-> ../../../VDisk/gen-disk";
    const std::string call = "uuid=gen-disk member=7\n";
    auto gen = [](uint32_t uid, unsigned g, std::vector<uint32_t> m, uint64_t sectors,
                  uint8_t minor = 8) {
        VDiskBlock b("gen-disk", std::move(m), {kFrontend});
        b.gen = g, b.sectors = sectors, b.seqno = g;
        return ping(uid, {b}, minor);
    };
    // A peer before 1.8 fills only the two digits: a wider field forged to
    // 9 must not be read.
    std::string old = gen(7, 6, {7}, 99, 7);
    old[207 + 49] = 9;
    // clang-format off
    p.run({
        {header(16, 7).datastore("dsG").b, {{"Node/7/datastoremember", "dsG\n"}}},
        {gen(7, 4, {7, 8}, 1), {{v + "highest_gen_count", "4\n"}, {v + "membership", "7\n8\n"},
          {v + "memberinfo/7/membership_gen_count", "4\n"}, {v + "memberinfo/7/snap_limit", "10\n"},
          {v + "memberinfo/7/frontend", "127.0.0.9\n"}, {v + "datastore", "-> ../../Datastore/dsG"},
          {v + "memberinfo/7/nodestatus", "-> ../../../../Node/7/status"}, {fence, "<missing>"},
          {"Datastore/dsG/vdisks/gen-disk", link}, {"Node/7/vdisks/gen-disk", link}}},
        {gen(8, 4, {7, 8}, 1),
         {{v + "memberinfo/8/seqno", "4\n"}, {"Node/8/vdisks/gen-disk", link}}},
        {gen(7, 3, {7}, 99), {{v + "memberinfo/7/seqno", "3\n"}, {v + "sectors", "1\n"},
          {v + "membership", "7\n8\n"}, {v + "memberinfo/8", "<dir>"}}},
        {gen(7, 4, {7}, 99), {{v + "sectors", "99\n"}, {v + "membership", "7\n"},
          {v + "memberinfo/8", "<missing>"}, {"Node/8/vdisks/gen-disk", "<missing>"},
          {v + "highest_gen_count", "4\n"}, {fence, "<missing>"}}},
        {gen(7, 5, {7}, 99), {{v + "highest_gen_count", "5\n"}, {fence, call}}},
        {old, {{v + "highest_gen_count", "6\n"}, {v + "memberinfo/7/seqno", "6\n"},
          {fence, call + call}}},
        {gen(7, 107, {7}, 99), {{v + "highest_gen_count", "107\n"},
          {v + "memberinfo/7/membership_gen_count", "107\n"}}},
        {header(33, 7).b, {{v + "memberinfo/7", "<dir>"}}},
        {header(4, 7).b, {{"VDisk/gen-disk", "<missing>"}, {"Node/7/vdisks/gen-disk", "<missing>"},
          {"Datastore/dsG/vdisks/gen-disk", "<missing>"}}},
    });
    // clang-format on
    EXPECT_EQ(p.d->matching("Stale VDisk"),
              std::vector<std::string>{
                  "notice: controller_thread_loop(): Stale VDisk gen-disk of member 7"});
}

// Node 1 of the seed announces a plain VDisk and three snapshots in place
// of the seed's two VDisks, which go as stale; then drops them one by one.
TEST(Receive, SnapshotsAndTheirParents) {
    Peer p;
    const VDiskBlock plain("plain-two", {1}, {kFrontend});
    VDiskBlock snap = plain, orphan = plain, txn = plain;
    snap.uuid = "snap-two", snap.parent = "plain-two";
    orphan.uuid = "snap-three", orphan.parent = "not-here";
    txn.uuid = "snap-four", txn.parent = "plain-two", txn.transaction_id = 9;
    const std::string v = "VDisk/plain-two/", s = "VDisk/snap-two/";
    // clang-format off
    p.run({
        {ping(1, {plain, snap, orphan, txn}),
         {{v + "snapshots/snap-two", "-> ../../../VDisk/snap-two"},
          {s + "parent", "plain-two\n"}, {s + "snapshots", "<missing>"},
          {s + "memberinfo/1/snap_limit", "<missing>"}, {"VDisk/snap-three/parent", "not-here\n"},
          {"VDisk/snap-four", "<missing>"}, {v + "snapshots/snap-four", "<missing>"},
          {"VDisk/" + kSnap, "<missing>"}, {"VDisk/" + kPlain, "<missing>"},
          {"Datastore/ds01/vdisks/" + kSnap, "<missing>"},
          {"Node/1/vdisks/" + kPlain, "<missing>"}}},
        {header(34, 1).vdisk_deleted(1, "snap-two").b, {{"VDisk/snap-two", "<missing>"},
          {v + "snapshots/snap-two", "<missing>"}, {"Node/1/vdisks/snap-two", "<missing>"},
          {v + "memberinfo/1", "<dir>"}}},
        {header(34, 1).vdisk_deleted(1, "plain-two").b, {{"VDisk/plain-two", "<missing>"},
          {"Datastore/ds01/vdisks/plain-two", "<missing>"}}},
    });
    // clang-format on
}

// Damaged, repeated and refused entries from node 1 keep the seed's VDisks
// (no stale check), until a whole announcement removes them.
TEST(Receive, MalformedDuplicateAndLockedEntriesRemoveNothing) {
    Peer p({{"node_lock_timeout_ms", "0"},
            {"datastore_lock_timeout_ms", "0"},
            {"vdisk_lock_timeout_ms", "0"}});
    p.s.write("locks/VDISK-held-disk", "1\n");
    const VDiskBlock two("new-disk", {1, 2}, {kFrontend});
    const std::string whole = ping(1, {two});
    ASSERT_EQ(whole.size(), 344u);
    VDiskBlock dup = two, held = two, other = two;
    dup.uuid = "dup-disk", held.uuid = "held-disk", other.uuid = "free-disk";
    const std::pair<std::string, std::string> seed{"VDisk/" + kPlain + "/memberinfo/1", "<dir>"},
        none{"VDisk/new-disk", "<missing>"};
    // clang-format off
    p.run({
        {whole.substr(0, 343), {none, seed}, "Malformed packet? #3"},
        {whole.substr(0, 336), {none, seed}, "Malformed packet? #2"},
        {ping(1, {dup, dup}), {{"VDisk/dup-disk/memberinfo/1", "<dir>"}, seed},
         "Duplicate VDisk Entry dup-disk"},
        {ping(1, {held, other}),
         {{"VDisk/held-disk", "<missing>"}, {"VDisk/free-disk/memberinfo/1", "<dir>"}, seed}},
        {whole, {{"VDisk/new-disk/memberinfo/1", "<dir>"}, {"VDisk/" + kPlain, "<missing>"},
          {"VDisk/dup-disk", "<missing>"}, {"locks/VDISK-held-disk", "1\n"}}},
    });
    // clang-format on
}

// Every path under root with what is there and when it last changed, but
// the sender's record, rewritten by every datagram, and the time of the
// locks directory, which changes with every lock (its entries do count).
std::map<std::string, std::string> tree(const std::string& root) {
    std::map<std::string, std::string> out;
    for (const auto& e : std::filesystem::recursive_directory_iterator(root)) {
        const std::string rel = e.path().lexically_relative(root).string();
        if (rel.rfind("db/Node/66", 0) == 0 || rel == "db/locks")
            continue;
        struct stat st;
        ::lstat(e.path().c_str(), &st);
        out[rel] = look(e.path()) + " @" + std::to_string(st.st_mtim.tv_sec) + "." +
                   std::to_string(st.st_mtim.tv_nsec);
    }
    return out;
}

// Names that are no plain directory name in every uuid field of a datagram:
// nothing may change outside the sender's record, in the store or beside it.
TEST(Receive, UuidsThatLeaveTheirDirectoryAreRefused) {
    Peer p;
    ::mkdir((p.s.dir / "sentinel").c_str(), 0755);
    p.s.dir.write("sentinel/keep", "x\n");
    p.send(header(4, 66).b);
    const auto before = tree(p.s.dir.path());
    std::vector<Step> steps;
    for (const std::string bad : {"..", ".", "/x", "a/../../b", "", "../../sentinel"}) {
        // An empty parent would make the block no snapshot: written over.
        Golden snap = header(4, 66).vdisk({"trav-snap", {66}, {}, "p"});
        snap.num(207 + 85, 0, 1).text(207 + 85, bad);
        for (const std::string& d :
             {ping(66, {{bad, {66}, {kFrontend}}}), snap.b, header(16, 66).datastore(bad).b,
              header(34, 66).vdisk_deleted(66, bad).b})
            steps.push_back({d, {}, "Refused"});
    }
    p.run(steps);
    const auto after = tree(p.s.dir.path());
    std::vector<std::pair<std::string, std::string>> changed;  // as before, then as after
    std::set_symmetric_difference(before.begin(), before.end(), after.begin(), after.end(),
                                  std::back_inserter(changed));
    EXPECT_TRUE(changed.empty()) << testing::PrintToString(changed);
}

}  // namespace
}  // namespace corvald::test
