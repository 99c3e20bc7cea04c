#include "store/datastore.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "base/config.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace corvald {
namespace {

using Lines = std::vector<std::string>;

class DatastoreTest : public ::testing::Test {
  protected:
    void TearDown() override { cfg_work_directory = saved_; }

    test::TempDir tmp_;
    std::string saved_ = std::exchange(cfg_work_directory, tmp_.path());
    const std::string rec_ = tmp_.path() + "/Datastore/0123456789abcd";
    test::LogCapture log_;
};

TEST_F(DatastoreTest, MembersComeAndGoAndTheLastOneTakesTheRecordAlong) {
    Hdr hdr = {1, 8, msg::DS_PING, 0, 3, {}, {}, {}, {}, {}, 0, 0, 0};
    DatastoreEntry dse = {{}, "pool", "fast disks", 4096, 3, 2, 150}, got;
    std::memcpy(dse.uuid, "0123456789abcd", 14);  // all 14 bytes, no NUL behind them
    ASSERT_EQ(DatastoreCreate(&hdr, &dse), 0);
    std::string p = "debug: DatastoreCreate(): " + rec_ + "/";
    EXPECT_EQ(
        log_.lines_containing("="),
        (Lines{p + "uuid=0123456789abcd", p + "name=pool", p + "description=fast disks",
               p + "sector_size=4096", p + "replicas=3", p + "stripes=2", p + "overcommit=150"}));
    ASSERT_EQ(DatastoreCreate(&hdr, &dse), 0);  // again: 3 is a member already, no second link
    hdr.uid = 4;
    ASSERT_EQ(DatastoreCreate(&hdr, &dse), 0);
    EXPECT_EQ(std::filesystem::read_symlink(rec_ + "/members/4"), "../../../Node/4");
    ASSERT_EQ(DatastoreLoad("0123456789abcd", &got), 0);
    EXPECT_EQ(std::memcmp(&got, &dse, sizeof got), 0);

    for (const char* n : {"3", "5", "4"})
        EXPECT_EQ(DatastoreUpdate_UnrefNode("0123456789abcd", n), 0);
    EXPECT_EQ(log_.count("info: DatastoreUpdate_UnrefNode(): Delete Datastore 0123456789abcd"), 1u);

    // Such names would lead out of Datastore/, whose records are removed recursively.
    for (const char* uuid : {"", ".", "..", "a/b"}) {
        std::strncpy(dse.uuid, uuid, sizeof dse.uuid - 1);  // the text ends at its first NUL
        EXPECT_EQ(DatastoreCreate(&hdr, &dse) + DatastoreLoad(uuid, &got), -2);
        EXPECT_EQ(DatastoreUpdate_UnrefNode(uuid, "3"), -1);
    }
    EXPECT_EQ(log_.count("error: DatastoreUpdate_UnrefNode(): Refused Datastore uuid \"a/b\""), 1u);
}

}  // namespace
}  // namespace corvald
