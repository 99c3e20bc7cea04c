// What the record tests (node, datastore, VDisk load) leave open: the reader
// limits and their messages, the rewrite in place, the one flush per batch,
// the load-failure report, the mkdir failures and the path limit.
#include "store/attr.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/syscall_hooks.h"
#include "support/temp_dir.h"
#include "util/unique_fd.h"

namespace corvald {
namespace {

using Lines = std::vector<std::string>;

// A store root with one record directory, Node/12.
class AttrTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(::mkdir((tmp_ / "Node").c_str(), 0755), 0);
        ASSERT_EQ(::mkdir(record_.c_str(), 0755), 0);
        ASSERT_EQ(dir_.set_path("%s/Node/%u", tmp_.path().c_str(), 12u), 0);
        ASSERT_EQ(dir_.open(), 0);
    }

    test::TempDir tmp_;
    const std::string record_ = tmp_ / "Node/12";
    test::LogCapture log_;
    RecordDir dir_{"NodeCreate"};
};

TEST_F(AttrTest, ReadersTakeOneValueAndOneLineFeed) {
    struct Case {
        const char* key;
        std::string content;
        int str_rc;          // StringLoad into a 14-byte field
        std::string field;   // the field and one guard byte afterwards
        int attr_rc;         // AttrLoad "%u"
        unsigned int value;  // what "%u" left behind (7 when untouched)
    };
    const std::string untouched(15, '#');
    const Case cases[] = {
        {"lf", "\n", 0, std::string(14, '\0') + "#", -1, 7},
        {"empty", "", 0, untouched, -1, 7},
        {"twolf", "42\n\n", 3, std::string("42\n") + std::string(11, '\0') + "#", 1, 42},
        {"nolf", "42", -1, untouched, -1, 7},
        {"long", "0123456789abcde\n", -1, untouched, 1, 123456789},
        {"n255", std::string(252, '0') + "42\n", -1, untouched, 1, 42},
        {"n256", std::string(253, '0') + "42\n", -1, untouched, -1, 7},
    };
    for (const Case& c : cases) {
        tmp_.write("Node/12/" + std::string(c.key), c.content);
        char field[15];
        std::memset(field, '#', sizeof(field));
        unsigned int v = 7;
        EXPECT_EQ(StringLoad(dir_.fd(), c.key, field, 14), c.str_rc) << c.key;
        EXPECT_EQ(std::string(field, sizeof(field)), c.field) << c.key;
        EXPECT_EQ(AttrLoad(dir_.fd(), c.key, "%u", &v), c.attr_rc) << c.key;
        EXPECT_EQ(v, c.value) << c.key;
    }
    EXPECT_EQ(
        log_.lines(),
        (Lines{"error: AttrLoad(): Empty file empty", "error: StringLoad(): Malformed file nolf",
               "error: AttrLoad(): Malformed file nolf",
               "error: StringLoad(): String too long in long: 0123456789abcde",
               "error: StringLoad(): String too long in n255: " + std::string(252, '0') + "42",
               "error: StringLoad(): Oversized file n256",
               "error: AttrLoad(): Oversized file n256"}));

    // Loads convert whole values or report the key; a 64-bit one keeps its bits.
    log_.clear();
    tmp_.write("Node/12/sectors", "1099511627776\n");
    tmp_.write("Node/12/stripes", "two\n");
    uint32_t u = 0;
    unsigned long long ull = 0;
    EXPECT_EQ(dir_.load_u64("sectors", &ull), 0);
    EXPECT_EQ(ull, 1099511627776ull);
    EXPECT_EQ(dir_.load_u32("stripes", &u), -1);
    EXPECT_EQ(log_.lines_containing("error:"),
              Lines{"error: NodeCreate(): Failed to load " + record_ + "/stripes: 0"});
}

// Files are created 0666 less the umask and truncated on rewrite; a batch
// is flushed once when its directory closes, even after a failed write.
TEST_F(AttrTest, WritesRewriteInPlaceAndABatchIsFlushedOnce) {
    mode_t old_mask = ::umask(022);
    EXPECT_EQ(AttrStore(dir_.fd(), "freespace", "%u\n", 123456u), 7);
    ::umask(old_mask);
    struct stat st;
    ASSERT_EQ(::stat((record_ + "/freespace").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    EXPECT_EQ(AttrStore(dir_.fd(), "freespace", "%u\n", 7u), 2);
    EXPECT_EQ(tmp_.read("Node/12/freespace"), "7\n");

    // An empty list file stores no buffer. (Whole lists of any length are
    // read by the VDisk load and announcement tests.)
    char sentinel = 0, *buf = &sentinel;
    UniqueFd empty(::open(tmp_.write("frontend", "").c_str(), O_RDONLY));
    EXPECT_EQ(FileLoad(empty.get(), &buf), 0);
    EXPECT_EQ(buf, &sentinel);

    ASSERT_EQ(::mkdir((record_ + "/model").c_str(), 0755), 0);  // its write fails
    test::SyscallHooks hooks;
    const int fd = dir_.fd();
    dir_.begin_batch();
    EXPECT_EQ(dir_.store("version", "v%u.%u", 1u, 8u), 5);
    EXPECT_EQ(dir_.store("model", "%s", "x1"), -1);
    EXPECT_EQ(hooks.fsync_calls(), 0);
    hooks.fail_fsync(EIO);
    dir_.close();
    dir_.close();
    EXPECT_EQ(hooks.fsync_calls(fd), 1);
    EXPECT_EQ(hooks.fsync_calls(), 1);
    EXPECT_EQ(tmp_.read("Node/12/version"), "v1.8\n");
    // The flush failure is only a warning under the operation's name.
    Lines reports;
    for (const test::LogLine& l : log_.entries())
        if (l.priority != LOG_DEBUG) reports.push_back(l.text);
    EXPECT_EQ(reports, (Lines{"error: fd_openat(): openat(model): Is a directory",
                              "warn: NodeCreate(): fsync(" + std::to_string(fd) +
                                  "): Input/output error"}));
}

// Without a batch nothing is flushed.
TEST_F(AttrTest, MkdirFailuresAndThePathLimit) {
    test::SyscallHooks hooks;
    EXPECT_EQ(StoreMkdir("NodeCreate", (tmp_ / "none/x").c_str()), -1);
    EXPECT_EQ(dir_.mkdir("none/x"), -1);
    EXPECT_EQ(dir_.mkdir("vdisks"), 0);
    EXPECT_EQ(dir_.mkdir("vdisks"), 0);  // one that exists counts as made
    dir_.close();
    EXPECT_EQ(hooks.fsync_calls(), 0);
    const std::string enoent = "/none/x): No such file or directory";
    EXPECT_EQ(log_.lines_containing("error:"),
              (Lines{"error: NodeCreate(): mkdir(" + tmp_.path() + enoent,
                     "error: NodeCreate(): mkdir(" + record_ + enoent}));

    // 255 bytes fit, 256 do not; a refused path leaves the directory pathless.
    RecordDir longer("NodeCreate");
    EXPECT_EQ(longer.set_path("%s", std::string(255, 'n').c_str()), 0);
    EXPECT_EQ(longer.set_path("%s/%s", record_.c_str(), std::string(255, 'n').c_str()), -1);
    EXPECT_STREQ(longer.path(), "");
    StorePath p;
    EXPECT_TRUE(store_path(p, "%s", std::string(255, 'p').c_str()));
    EXPECT_FALSE(store_path(p, "%s/", std::string(255, 'p').c_str()));
}

}  // namespace
}  // namespace corvald
