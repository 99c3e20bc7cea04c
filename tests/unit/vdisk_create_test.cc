#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <tuple>

#include "base/config.h"
#include "store/vdisk.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace corvald {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// Nodes 3, 5 and 7 in data store ds1, node 9 with a data store text that is no name, and a
// fence-check program that writes its arguments, environment and descriptors to "out" and exits
// with 3, or, called as "hang", never ends.
class VDiskCreateTest : public ::testing::Test {
  protected:
    void SetUp() override {
        for (std::string n : {"3", "5", "7", "9"})
            fs::create_directories(tmp_ / ("Node/" + n + "/vdisks")),
                tmp_.write("Node/" + n + "/datastoremember", n == "9" ? "..\n" : "ds1\n");
        for (const char* d : {"Datastore/ds1/vdisks", "locks"}) fs::create_directories(tmp_ / d);
        std::string record =
            "case $0 in *hang) exec /bin/sleep 60;; esac\nexec >" + tmp_ / "out" +
            "\necho $# $0 $@\n/bin/cat /proc/$$/environ\n/bin/ls /proc/self/fd\nexit 3\n";
        fs::permissions(tmp_.write("record", "#!/bin/sh\n" + record), fs::perms::owner_all);
        fs::create_symlink("record", tmp_ / "hang");
        NodeInit(&node_, 7), node_.hdr.major = 1, node_.hdr.minor = 8;
    }
    void TearDown() override { cfg_work_directory = saved_, cfg_fence_check = saved_fence_; }
    // uuid as announced at 1.8 with generation gen, the members (space-separated), one frontend
    // or none, as a snapshot of parent when one is given.
    VDisk make(const char* uuid, uint16_t gen, const std::string& members,
               const char* parent = nullptr) {
        VDisk v;
        v.vde = {0, {}, {}, 512, 9, 0, 0, {"plain"}, 1, 7000, 3, 1, 2, 64, 0, 0, 0};
        vde_encode_mshipgencnt(&v.vde, &node_.hdr, gen);
        std::memcpy(v.vde.uuid, uuid, std::strlen(uuid)), std::strcpy(v.vdiskuuid, uuid);
        if (parent != nullptr)
            v.vde.snapshot = 1, v.vde.description.snap = {24, 3, 15, 9, 5, 0, {}, {}},
            std::memcpy(v.vde.description.snap.parent, parent, std::strlen(parent)),
            std::strcpy(v.parentuuid, parent);
        std::istringstream in(members);
        for (MemberEntry e; in >> e.node;) MemberInit(&v.members.emplace_back(), &e);
        v.frontends.assign(parent == nullptr, Frontend{{0x0A000001}, "10.0.0.1"});
        v.vde.members = uint16_t(v.members.size()), v.vde.frontends = uint16_t(v.frontends.size());
        return v;
    }
    // Each of the space-separated paths below base in a word: "-" missing, "@<target>" a link,
    // else the content with commas for line feeds.
    std::string files(const std::string& paths, const std::string& base = "") const {
        std::istringstream in(paths);
        std::string out;
        for (std::string rel, s; in >> rel; out += " " + s) {
            fs::path p = tmp_ / (base + rel);
            s = fs::is_symlink(p) ? "@" + fs::read_symlink(p).string()
                : fs::exists(p)   ? tmp_.read(base + rel)
                                  : "-";
            std::replace(s.begin(), s.end(), '\n', ',');
        }
        return out.substr(1);
    }

    test::TempDir tmp_;
    const std::string saved_ = std::exchange(cfg_work_directory, tmp_.path());
    const std::string saved_fence_ = cfg_fence_check;
    test::LogCapture log_;
    Node node_;
};

TEST_F(VDiskCreateTest, RecordsAreCreatedAndUpdatedByTransactionAndGenerationAndLinkedOnce) {
    // Node, transaction, peer of 1.7 (gen in the two digits and 99 in the 16-bit field; at 1.8
    // the digits hold 99), gen, members, fence-check program (none: not run), result, and the
    // files of kState with the links made. Row i announces seqno i and sectors 100 * i. Rows:
    // not in the store; created; node 3 joins; an older generation and a transaction under way
    // refresh seqno only; node 3 has left; a rising generation runs the program (missing,
    // hanging, exiting with 3 for a peer of 1.7).
    const std::string kState =
        "highest_gen_count membership memberinfo/7/seqno sectors memberinfo/3/seqno "
        "../../Node/3/vdisks/vd1";
    const std::tuple<uint32_t, uint32_t, bool, uint16_t, const char*, const char*, int, const char*>
        rows[] = {{7, 9, false, 4, "3 7", "", 0, "- - - - - - L0"},
                  {7, 0, false, 4, "3 7", "", 0, "4, 3,7, 2, 200, - - L4"},
                  {3, 0, false, 4, "3 7", "", 0, "4, 3,7, 2, 300, 3, @../../../VDisk/vd1 L2"},
                  {7, 0, false, 3, "7", "", 0, "4, 3,7, 4, 300, 3, @../../../VDisk/vd1 L0"},
                  {7, 9, false, 9, "7", "", 0, "4, 3,7, 5, 300, 3, @../../../VDisk/vd1 L0"},
                  {7, 0, false, 4, "5 7", "", 0, "4, 5,7, 6, 600, - - L0"},
                  {7, 0, false, 5, "5 7", "missing", 0, "5, 5,7, 7, 700, - - L0"},
                  {7, 0, false, 6, "5 7", "hang", -1, "6, 5,7, 8, 800, - - L0"},
                  {7, 0, true, 12, "5 7", "record", 0, "12, 5,7, 9, 900, - - L0"}};
    Hdr hdr = node_.hdr;
    auto by = [&](uint32_t uid, VDisk* vd) { return hdr.uid = uid, VDiskCreate(&hdr, vd); };
    VDisk v, got;
    for (size_t i = 0; const auto& [uid, tid, v17, gen, members, prog, rc, state] : rows) {
        log_.clear(), cfg_fence_check = tmp_ / prog, fence_check_timeout_ms = rc < 0 ? 200 : 10000;
        v = make("vd1", gen, members), hdr.minor = v17 ? 7 : 8;
        v.vde.transaction_id = tid, v.vde.seqno = ++i, v.vde.sectors = 100 * i;
        std::memcpy(v.vde.name.old_mshipgencnt, v17 ? "12" : "99", 2);
        v.vde.name.mshipgencnt = v17 ? 0x6300 : v.vde.name.mshipgencnt;  // 99, big-endian
        ASSERT_EQ(by(uid, &v), rc) << i << log_.dump();
        std::string links = std::to_string(log_.lines_containing("[SYMLINK").size());
        EXPECT_EQ(files(kState, "VDisk/vd1/") + " L" + links, state) << i;
        std::string call = tmp_ / prog + " uuid=vd1 member=7", f = "FenceCheck(): ";
        Lines want = {"info: " + f + "Call " + call,
                      rc < 0 ? "error: " + f + call + " did not end within 200 ms, killed"
                             : "info: " + f + "Return " + call};
        EXPECT_EQ(log_.lines_containing(f), *prog ? want : Lines{}) << i;
        // The creation's steps in order, by the last name of each path (locks included).
        std::string steps;
        for (std::string l : i == 2 ? log_.lines_containing(tmp_.path()) : Lines{}) {
            l = l.substr(0, std::min(l.find(" ["), l.find('=')));
            steps += l.substr(l.rfind('/') + 1) + ",";
        }
        EXPECT_EQ(steps, i != 2 ? ""
                                : "VDisk,vd1,vd1,memberinfo,uuid,name,sector_size,sectors,replicas,"
                                  "st_mems,st_size,snapshot,snapshots,description,highest_gen_"
                                  "count,membership,7,membership_gen_count,numkeys,seqno,status,"
                                  "port,st_mem,snap_limit,frontend,nodestatus,NODE-7,vd1,"
                                  "datastoremember,NODE-7,datastore,DS-ds1,vd1,DS-ds1,");
    }
    // The killed program was reaped; the last one saw its arguments, no environment, 3 descriptors.
    EXPECT_TRUE(::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD);
    EXPECT_EQ(tmp_.read("out"), "2 " + tmp_ / "record" + " uuid=vd1 member=7\n0\n1\n2\n3\n");
    // What was written loads back with node 7 as the entry, the 1.7 peer's count as it was read.
    std::strcpy(got.vdiskuuid, "vd1");
    EXPECT_TRUE(VDiskLoad(&node_, &got) == 0 && !std::memcmp(&got.vde, &v.vde, sizeof v.vde));

    // Refused with one line each: a uuid or a parent that is no plain name, before any path is
    // built from it, and node 9's data store text, by the node's load.
    VDisk bad = make("a/b", 1, "9"), bad2 = make("s3", 1, "9", ".."), vd3 = make("vd3", 1, "9"),
          vd2 = make("vd2", 1, "3 7"), s1 = make("s1", 1, "7", "vd2"),
          orphan = make("s2", 1, "7", "nope"), empty = make("vd2", 1, "");
    hdr.minor = 8, log_.clear();
    EXPECT_EQ(by(9, &bad) + by(9, &bad2) + ParentUpdate_RefSnapshot(&bad2) + by(9, &vd3), -4);
    EXPECT_EQ(log_.lines_containing("error: ").size(), 4u) << log_.dump();
    // Node 5 is no member: no member record, no links. A snapshot without frontends has an empty
    // "frontend" and links all the same; it is linked into its parent once, and a parent not in
    // the store gets no link.
    ASSERT_EQ(by(5, &vd2) + by(7, &s1), 0);
    for (VDisk* s : {&s1, &s1, &orphan}) EXPECT_EQ(ParentUpdate_RefSnapshot(s), 0);
    EXPECT_EQ(
        files("VDisk/vd2/membership VDisk/vd2/memberinfo/5 VDisk/vd2/datastore Node/5/vdisks/vd2 "
              "VDisk/vd3/datastore VDisk/vd3/memberinfo/9/nodestatus VDisk/s1/parent "
              "VDisk/s1/snaptime VDisk/s1/snapshots VDisk/s1/description "
              "VDisk/s1/memberinfo/7/snap_limit VDisk/s1/memberinfo/7/frontend "
              "VDisk/s1/datastore Datastore/ds1/vdisks/s1 Node/7/vdisks/s1 "
              "VDisk/vd2/snapshots/s1 VDisk/nope VDisk/a VDisk/s3"),
        "3,7, - - - - @../../../../Node/9/status vd2, 24-03-15_09.05.00, - - -  "
        "@../../Datastore/ds1 @../../../VDisk/s1 @../../../VDisk/s1 @../../../VDisk/s1 - - -");
    // An empty member list writes an empty "membership"; every previous member leaves.
    ASSERT_EQ(by(3, &vd2) + by(7, &empty), 0);
    EXPECT_EQ(files("VDisk/vd2/membership VDisk/vd2/memberinfo/3 Node/3/vdisks/vd2"), " - -");
}

}  // namespace
}  // namespace corvald
