#include "store/node.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <sstream>

#include "base/config.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace corvald {
namespace {

using Lines = std::vector<std::string>;

// Node 12 of a fresh store.
class NodeTest : public ::testing::Test {
  protected:
    void TearDown() override { cfg_work_directory = saved_; }
    // Each "key=value" of attrs is its file's content, and the trace lines of
    // op in the record are want followed by one per attribute, in this order.
    void expect_written(const std::string& op, const std::string& attrs, Lines want = {}) {
        std::istringstream in(attrs);
        std::string prefix = "debug: " + op + "(): " + rec_ + "/";
        for (std::string kv; in >> kv; want.push_back(prefix + kv)) {
            size_t eq = kv.find('=');
            EXPECT_EQ(tmp_.read("Node/12/" + kv.substr(0, eq)), kv.substr(eq + 1) + "\n") << kv;
        }
        EXPECT_EQ(log_.lines_containing(prefix), want);
    }

    test::TempDir tmp_;
    std::string saved_ = std::exchange(cfg_work_directory, tmp_.path());
    const std::string rec_ = tmp_.path() + "/Node/12";
    test::LogCapture log_;
};

TEST_F(NodeTest, RecordIsWrittenInOrderAndReadBackOrRefusedAtTheFirstBadAttribute) {
    // Status 1: size carries the backup channel 10.0.0.1 (host order), stored as a text.
    Hdr hdr = {1, 8, msg::PING, 1, 12, {}, "m", {100, 7, "r"}, "s", "h", 0x0A000001, 9, 513};
    std::memset(hdr.vendor, 'v', sizeof hdr.vendor);  // no NUL: all 32 bytes are the text
    ASSERT_EQ(NodeCreate(&hdr, "10.0.0.5"), 0);
    expect_written(
        "NodeCreate",
        "version=v1.8 uuid=12 status=1 nodestatus=1 vendor=" + std::string(32, 'v') +
            " model=m freespace=100 utilization=7 revision=r serial=s hbtl=h performance=9 "
            "hostid=513 size=0 backupchannel=10.0.0.1 ipaddr=10.0.0.5 lastping=" +
            tmp_.read("Node/12/lastping"),
        {"debug: NodeCreate(): " + rec_ + "/vdisks [MKDIR]"});
    hdr.type = msg::AUX_PING;
    const AuxPingData aux = {28, 1, 2, 3, 4, 5, 6};
    Node node;
    NodeInit(&node, 12);
    ASSERT_EQ(NodeUpdate_AuxPing(&hdr, &aux), 0);
    ASSERT_EQ(NodeLoad(&node), 0);
    expect_written(
        "NodeUpdate_AuxPing",
        "allocatedspace=1 curvdisks=2 curvdisksforctrl=3 maxvdisksforctrl=4 memtotal=5 memavail=6");
    hdr.type = 0;  // a header loaded from the store has no type
    EXPECT_EQ(std::memcmp(&node.hdr, &hdr, sizeof hdr), 0);
    hdr.type = msg::DS_PING;
    DatastoreEntry dse = {"0123456789abc", {}, {}, 0, 0, 0, 0};
    ASSERT_EQ(NodeUpdate_RefDatastore(&hdr, &dse), 0);
    expect_written("NodeUpdate_RefDatastore", "datastoremember=0123456789abc");

    // Each NodeLoad row breaks an attribute read before that of the row above
    // it, so that the load stops there. A refused datastoremember is cleared.
    std::string no = "error: NodeLoad(): Failed to load " + rec_ + "/";
    const std::tuple<std::string, std::string, int, std::string> cases[] = {
        {"memavail", "", -1, no + "memavail: -1"},
        {"backupchannel", "10.0.0\n", -1, "error: NodeLoad(): inet_pton(10.0.0): 0"},
        {"nodestatus", "<missing>", -1, no + "nodestatus: -1"},
        {"version", "1.8\n", -1, "error: NodeLoad(): Malformed " + rec_ + "/version: 1.8"},
        {"datastoremember", "", 0, "info: NodeLoad_DSMember(): Load Node 12 datastoremember="},
        {"datastoremember", "..\n", -2,
         "error: NodeLoad_DSMember(): Malformed " + rec_ + "/datastoremember: .."}};
    char dsuuid[16] = "?";
    for (const auto& [key, content, rc, line] : cases) {
        ::unlink((rec_ + "/" + key).c_str());
        if (content != "<missing>")
            tmp_.write("Node/12/" + key, content);
        bool member = key == "datastoremember";
        EXPECT_EQ(member ? NodeLoad_DSMember("12", dsuuid, sizeof dsuuid) : NodeLoad(&node), rc);
        // A datastoremember load leaves dsuuid empty here: loaded so, or refused and cleared.
        EXPECT_EQ(log_.lines().back() + (member ? dsuuid : ""), line);
    }
    // Already gone is fine; a node without one has no data store.
    ASSERT_EQ(NodeUpdate_UnrefDatastore(&hdr) + NodeUpdate_UnrefDatastore(&hdr), 0);
    EXPECT_EQ(NodeLoad_DSMember("12", dsuuid, sizeof dsuuid), -1);

    tmp_.write("Node/12/vdisks/file", "x\n");
    for (std::string name : {"b2", "a10", "0123456789abcd", "0123456789abcde"})
        ASSERT_EQ(::symlink("x", (rec_ + "/vdisks/" + name).c_str()), 0);
    ASSERT_EQ(NodeLoad_VDisks(12, &node.vdisks), 0);
    Lines keys;
    for (const auto& [key, vdisk] : node.vdisks) keys.push_back(vdisk->vdiskuuid);
    EXPECT_EQ(keys, (Lines{"0123456789abcd", "a10", "b2"}));  // the 15-character name is not one
}

}  // namespace
}  // namespace corvald
