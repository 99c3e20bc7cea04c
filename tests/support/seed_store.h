// A daemon's store copied from the seed store of the local profile, with its
// configuration, and a way to look at any store path (look(), from
// support/store_builder.h).
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "support/daemon.h"
#include "support/store_builder.h"
#include "support/temp_dir.h"

namespace corvald::test {

// The seed's VDisks; the snapshot (of the plain one) sorts first.
inline const std::string kPlain = "5f3a9c0e1b2d47";
inline const std::string kSnap = "0c71e2aa9f3b10";

// The seed copied to dir/db (with an empty "locks"), the two list files
// and a configuration whose pings wait an hour.
struct SeedStore {
    TempDir dir;
    TestConfig cfg{dir};
    explicit SeedStore(const std::string& local_nodes = "1\n",
                       const std::string& hosts = "127.0.0.2\n") {
        EXPECT_TRUE(StoreBuilder().seed().put("locks").write(db()));
        dir.write("local_nodes", local_nodes);
        dir.write("unicast_hosts", hosts);
        cfg.values["ping_interval"] = "3600";
        cfg.values["heartbeat_interval"] = "3600";
    }
    std::string db() const { return dir / "db"; }
    void write(const std::string& rel, const std::string& text) { dir.write("db/" + rel, text); }
    // Node/<to> as a copy of Node/1, also as a member of both VDisks.
    void clone_node(int to) {
        const std::string t = std::to_string(to);
        sh("cp -a Node/1 Node/" + t +
           " && for v in VDisk/*; do cp -a $v/memberinfo/1 $v/memberinfo/" + t + "; done");
    }
    // Runs a shell command inside the store.
    void sh(const std::string& cmd) {
        EXPECT_EQ(std::system(("cd " + db() + " && " + cmd).c_str()), 0);
    }
    std::string conf() { return cfg.write(dir); }
};

}  // namespace corvald::test
