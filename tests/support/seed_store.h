// A daemon's store copied from the seed store of the local profile, with its
// configuration, and a way to look at any store path.
#pragma once

#include <string>

#include "support/daemon.h"
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
                       const std::string& hosts = "127.0.0.2\n");
    std::string db() const { return dir / "db"; }
    void write(const std::string& rel, const std::string& text) { dir.write("db/" + rel, text); }
    // Node/<to> as a copy of Node/1, also as a member of both VDisks.
    void clone_node(int to);
    // Runs a shell command inside the store.
    void sh(const std::string& cmd);
    std::string conf() { return cfg.write(dir); }
};

// What is at path, without following a link: "<missing>", "<dir>",
// "-> " and a link's target, or a file's contents.
std::string look(const std::string& path);

}  // namespace corvald::test
