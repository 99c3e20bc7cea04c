#include "store/vdisk.h"

#include <cstring>
#include <filesystem>
#include <sstream>

#include <gtest/gtest.h>

#include "base/config.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace corvald {

namespace fs = std::filesystem;

// kRec: VDisk/vd1, a plain disk, with the member record of node 7, as "<file>=<content>;", a
// later entry replacing an earlier one and "-" removing a file or directory. The plain disk
// carries malformed snapshot files, which must not be read. kSnap: the same as a snapshot.
const std::string kRec =
    "transaction_id=7\n;uuid=vd1\n;name=disk one\n;sector_size=512\n;sectors=1099511627776\n;"
    "replicas=65539\n;st_mems=258\n;st_size=65541\n;snapshot=0\n;snaptime=x\n;parent=..\n;"
    "description=plain\n;membership=3\n12abc\n;memberinfo/7/frontend=10.0.0.1\n192.168.1.20\n;"
    "memberinfo/7/seqno=18446744073709551615\n;memberinfo/7/status=257\n;memberinfo/7/port=70000\n;"
    "memberinfo/7/numkeys=9\n;memberinfo/7/st_mem=3\n;memberinfo/7/membership_gen_count=305\n;";
const auto kSnap = kRec + "snapshot=1\n;snaptime=24-3-15_9.5.0\n;parent=b1\n;description=-;";

struct VDiskLoadTest : ::testing::Test {
    void SetUp() override { cfg_work_directory = tmp_.path(); }
    void TearDown() override { cfg_work_directory = saved_; }

    // Writes the files into the record, then loads vd1 afresh with node 7 (or without a node).
    int load(const std::string& files, bool with_node = true) {
        fs::create_directories(rec_ + "/memberinfo/7");
        std::istringstream in(files);
        for (std::string e, f; std::getline(std::getline(in, f, '='), e, ';');)
            e == "-" ? void(fs::remove_all(rec_ + "/" + f)) : void(tmp_.write("VDisk/vd1/" + f, e));
        log_.clear();
        NodeInit(&node_, 7);
        std::strcpy((vd_ = VDisk{}).vdiskuuid, "vd1");
        return VDiskLoad(with_node ? &node_ : nullptr, &vd_);
    }

    test::TempDir tmp_;
    const std::string saved_ = cfg_work_directory, rec_ = tmp_ / "VDisk/vd1";
    test::LogCapture log_;
    Node node_;
    VDisk vd_;
};

TEST_F(VDiskLoadTest, LoadsInOrderAndFailsEachStepWithItsLine) {
    // The fields as loaded are checked byte for byte by the announcement and
    // listing tests, which send and show them; here the order of the steps:
    // the name each line of the load ends its path with.
    node_.hdr.major = 1, node_.hdr.minor = 8;
    ASSERT_EQ(load(kRec), 0);
    std::string steps;
    for (std::string l : log_.lines_containing(rec_))
        steps += l.erase(0, l.rfind('/') + 1).substr(0, l.find_first_of("= ")) + ",";
    EXPECT_EQ(steps, "vd1,transaction_id,uuid,name,sector_size,sectors,replicas,st_mems,st_size,"
                     "snapshot,description,memberinfo,7,numkeys,seqno,status,port,st_mem,"
                     "membership_gen_count,membership,membership,frontend,frontend,");

    // Each failing step and (a part of) the line it logs.
    const std::string f = "VDiskLoad(): Failed to load " + rec_, bad = " Malformed file " + rec_;
    struct Failure { std::string files, error; } failures[] = {
        {kRec + "transaction_id=;", f + "/transaction_id: -1"},  // there, but empty
        {kSnap + "snaptime=24-3-15\n;", "VDiskLoad(): Malformed " + rec_ + "/snaptime: 24-3-15"},
        {kSnap + "parent=\n;", "VDiskLoad(): Malformed " + rec_ + "/parent: "},  // empty
        {kRec + "membership=3\n\n5\n;", "MembershipLoad():" + bad + "/membership"},
        {kRec + "memberinfo/7/frontend=10.0.0.1\n\n;", "FrontendsLoad(): inet_pton(): 0"}};
    for (const Failure& c : failures)
        EXPECT_TRUE(load(c.files) == -1 && !log_.lines_containing(c.error).empty()) << c.error;
}

}  // namespace corvald
