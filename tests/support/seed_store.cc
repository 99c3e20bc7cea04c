#include "support/seed_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace corvald::test {

SeedStore::SeedStore(const std::string& local_nodes, const std::string& hosts) {
    std::string cmd =
        "cp -a " CORVALD_SOURCE_DIR "/etc/local/seed " + db() + " && mkdir -p " + db() + "/locks";
    EXPECT_EQ(std::system(cmd.c_str()), 0);
    dir.write("local_nodes", local_nodes);
    dir.write("unicast_hosts", hosts);
    cfg.values["ping_interval"] = "3600";
    cfg.values["heartbeat_interval"] = "3600";
}

void SeedStore::clone_node(int to) {
    std::string t = std::to_string(to), cmd = "cp -a " + db() + "/Node/1 " + db() + "/Node/" + t;
    for (const std::string& v : {kPlain, kSnap})
        cmd += " && cp -a " + db() + "/VDisk/" + v + "/memberinfo/1 " + db() + "/VDisk/" + v +
               "/memberinfo/" + t;
    EXPECT_EQ(std::system(cmd.c_str()), 0);
}

void SeedStore::sh(const std::string& cmd) {
    EXPECT_EQ(std::system(("cd " + db() + " && " + cmd).c_str()), 0);
}

std::string look(const std::string& path) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0)
        return "<missing>";
    if (S_ISDIR(st.st_mode))
        return "<dir>";
    if (!S_ISLNK(st.st_mode))
        return read_file(path);
    char target[256];
    ssize_t n = ::readlink(path.c_str(), target, sizeof target);
    return "-> " + std::string(target, n > 0 ? static_cast<size_t>(n) : 0);
}

}  // namespace corvald::test
