// Confinement of store paths: links planted in the store, FIFOs, names that
// climb out. Each case runs twice, through openat2 and through the
// component walk that older kernels get.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "base/config.h"
#include "store/beneath.h"
#include "support/log_capture.h"
#include "support/settings.h"
#include "support/temp_dir.h"
#include "util/unique_fd.h"

namespace corvald::test {
namespace {

class Beneath : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        store_force_walk(GetParam());
        cfg_work_directory = tmp_ / "db";
        for (const char* d : {"db", "db/Node", "db/Node/1", "db/Datastore", "outside"})
            ASSERT_EQ(::mkdir((tmp_ / d).c_str(), 0755), 0);
        tmp_.write("outside/victim", "keep\n");
        ASSERT_EQ(::symlink((tmp_ / "outside").c_str(), (tmp_ / "db/Node/50").c_str()), 0);
        ASSERT_EQ(::symlink("../../outside", (tmp_ / "db/Node/51").c_str()), 0);
        ASSERT_EQ(::symlink("../Datastore", (tmp_ / "db/Node/52").c_str()), 0);
        ASSERT_EQ(::symlink((tmp_ / "outside/victim").c_str(), (tmp_ / "db/Node/1/lastping").c_str()), 0);
        ASSERT_EQ(::mkfifo((tmp_ / "db/Node/1/freespace").c_str(), 0644), 0);
    }
    void TearDown() override { store_force_walk(false); }
    std::string db(const std::string& rel) { return tmp_ / ("db/" + rel); }
    // errno of a call that must fail, 0 if it succeeded.
    static int fails(int rc) { return rc < 0 ? errno : 0; }

    TempDir tmp_;
    ScopedSettings settings_;
    LogCapture log_;
};

TEST_P(Beneath, NothingOutsideTheRootIsReachedAndNoLinkIsFollowed) {
    const int create = O_WRONLY | O_CREAT | O_TRUNC;
    // A link anywhere on the way, absolute, climbing, or staying inside.
    for (const char* dir : {"Node/50", "Node/51", "Node/52"}) {
        SCOPED_TRACE(dir);
        EXPECT_EQ(fails(store_open(db(std::string(dir) + "/x").c_str(), create, 0644)), ELOOP);
        EXPECT_EQ(fails(store_mkdir(db(std::string(dir) + "/y").c_str(), 0755)), ELOOP);
        EXPECT_EQ(fails(store_unlink(db(std::string(dir) + "/victim").c_str())), ELOOP);
        EXPECT_EQ(fails(store_symlink("t", db(std::string(dir) + "/l").c_str())), ELOOP);
        EXPECT_EQ(fails(store_open(db(dir).c_str(), O_RDONLY | O_DIRECTORY)), ELOOP);
    }
    // A link at the last component is neither written through nor followed.
    EXPECT_EQ(fails(store_open(db("Node/1/lastping").c_str(), create, 0644)), ELOOP);
    EXPECT_EQ(fails(store_open(db("Node/1/lastping").c_str(), O_RDONLY)), ELOOP);
    // Names that leave the root lexically, and paths that are not under it.
    EXPECT_EQ(fails(store_open(db("../outside/victim").c_str(), O_RDONLY)), EXDEV);
    EXPECT_EQ(fails(store_unlink(db("Node/..").c_str())), EXDEV);
    EXPECT_EQ(fails(store_open((tmp_ / "outside/victim").c_str(), O_RDONLY)), EXDEV);
    EXPECT_EQ(fails(store_open((tmp_ / "dbx/a").c_str(), O_RDONLY)), EXDEV);
    EXPECT_EQ(tmp_.read("outside/victim"), "keep\n");
    struct stat st;
    EXPECT_NE(::lstat((tmp_ / "outside/x").c_str(), &st), 0);
    EXPECT_NE(::lstat((tmp_ / "outside/y").c_str(), &st), 0);

    // A FIFO does not block, and is refused with a line naming it.
    EXPECT_EQ(fails(store_open(db("Node/1/freespace").c_str(), O_RDONLY)), EINVAL);
    EXPECT_EQ(log_.lines(), (std::vector<std::string>{"error: store_open(): Not a regular file: " +
                                                      db("Node/1/freespace")}));
    EXPECT_EQ(fails(store_open(db("Node/1").c_str(), O_RDONLY)), EINVAL);  // a directory

    // What the store does by design still works: files, directories, links
    // made and read (not followed), renames, removals.
    UniqueFd f(store_open(db("Node/1/ipaddr").c_str(), create, 0644));
    ASSERT_TRUE(f);
    EXPECT_EQ(store_mkdir(db("Node/2").c_str(), 0755), 0);
    EXPECT_EQ(store_symlink("../../Datastore/ds01", db("Node/2/datastore").c_str()), 0);
    char target[64] = {};
    EXPECT_EQ(store_readlink(db("Node/2/datastore").c_str(), target, sizeof target), 20);
    EXPECT_STREQ(target, "../../Datastore/ds01");
    EXPECT_EQ(store_readlink(db("Node/50").c_str(), target, sizeof target), ssize_t((tmp_ / "outside").size()));
    EXPECT_EQ(store_rename(db("Node/1/ipaddr").c_str(), db("Node/2/ipaddr").c_str()), 0);
    EXPECT_EQ(store_lstat(db("Node/2/ipaddr").c_str(), &st), 0);
    EXPECT_EQ(store_lstat(db("").c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(store_unlink(db("Node/2/datastore").c_str()), 0);
    EXPECT_EQ(store_unlink(db("Node/50").c_str()), 0) << "a planted link itself can be removed";
    EXPECT_EQ(tmp_.read("outside/victim"), "keep\n");
}

INSTANTIATE_TEST_SUITE_P(Resolution, Beneath, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Walk" : "Openat2"; });

}  // namespace
}  // namespace corvald::test
