// The announcement side of the Node record: what NodeLoad refuses of what
// other programs may have left. That it reads back what the receive step
// writes is checked byte for byte by the announcement tests.
#include "store/node.h"

#include <gtest/gtest.h>

#include <tuple>

#include "base/config.h"
#include "support/log_capture.h"
#include "support/settings.h"
#include "support/store_builder.h"
#include "support/temp_dir.h"

namespace corvald {
namespace {

TEST(NodeTest, StopsAtTheFirstBadAttribute) {
    test::TempDir tmp;
    test::ScopedSettings settings;
    test::LogCapture log;
    cfg_work_directory = tmp.path();
    const std::string rec = tmp / "Node/12";
    ASSERT_TRUE(test::StoreBuilder().node(12).write(tmp.path()));
    Node node;
    NodeInit(&node, 12);
    tmp.write("Node/12/nodestatus", "1\n");  // the backup channel's address is the size
    ASSERT_EQ(NodeLoad(&node), 0);
    // Each row breaks an attribute read before that of the row above it.
    const std::tuple<std::string, std::string, std::string> rows[] = {
        {"memavail", "", "error: NodeLoad(): Failed to load " + rec + "/memavail: -1"},
        {"backupchannel", "10.0.0\n", "error: NodeLoad(): inet_pton(10.0.0): 0"},
        {"version", "1.8\n", "error: NodeLoad(): Malformed " + rec + "/version: 1.8"}};
    for (const auto& [key, content, line] : rows) {
        tmp.write("Node/12/" + key, content);
        EXPECT_EQ(NodeLoad(&node), -1);
        EXPECT_EQ(log.lines().back(), line);
    }
    // A refused "datastoremember" is cleared for the sender, which skips the node's DS_PING.
    char dsuuid[16] = "?";
    tmp.write("Node/12/datastoremember", "..\n");
    EXPECT_EQ(NodeLoad_DSMember("12", dsuuid, sizeof dsuuid), -2);
    EXPECT_EQ(log.lines().back() + dsuuid, "error: NodeLoad_DSMember(): Malformed " + rec + "/datastoremember: ..");
    // Already gone is fine; a node without one has no data store.
    Hdr hdr = {};
    hdr.type = msg::DS_PING, hdr.uid = 12;
    ASSERT_EQ(NodeUpdate_UnrefDatastore(&hdr) + NodeUpdate_UnrefDatastore(&hdr), 0);
    EXPECT_EQ(NodeLoad_DSMember("12", dsuuid, sizeof dsuuid), -1);
}

}  // namespace
}  // namespace corvald
