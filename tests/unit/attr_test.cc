// What the record tests (receive, VDisk load) leave open: the reader limits
// and their messages, the rewrite in place, the one flush per batch and the
// path limit.
#include "base/config.h"
#include "store/attr.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "support/log_capture.h"
#include "support/settings.h"
#include "support/syscall_hooks.h"
#include "support/temp_dir.h"

namespace corvald {
namespace {

using Lines = std::vector<std::string>;

// A store root with one record directory, Node/12.
class AttrTest : public ::testing::Test {
  protected:
    void SetUp() override {
        cfg_work_directory = tmp_.path();  // store paths are confined beneath it
        ASSERT_EQ(::mkdir((tmp_ / "Node").c_str(), 0755), 0);
        ASSERT_EQ(::mkdir(record_.c_str(), 0755), 0);
        ASSERT_EQ(dir_.set_path("%s/Node/%u", tmp_.path().c_str(), 12u), 0);
        ASSERT_EQ(dir_.open(), 0);
    }

    test::ScopedSettings settings_;
    test::TempDir tmp_;
    const std::string record_ = tmp_ / "Node/12";
    test::LogCapture log_;
    RecordDir dir_{"NodeCreate"};
};

TEST_F(AttrTest, ReadersTakeOneValueAndOneLineFeedWritersRewriteAndFlushOnce) {
    // key, content; StringLoad into a 14-byte field: its result, the field
    // and one guard byte; AttrLoad "%u": its result, the value (7: untouched)
    const std::string untouched(15, '#');
    const std::tuple<const char*, std::string, int, std::string, int, unsigned> cases[] = {
        {"twolf", "42\n\n", 3, std::string("42\n") + std::string(11, '\0') + "#", 1, 42},
        {"nolf", "42", -1, untouched, -1, 7},
        {"n255", std::string(252, '0') + "42\n", -1, untouched, 1, 42},
        {"n256", std::string(253, '0') + "42\n", -1, untouched, -1, 7},
    };
    for (const auto& [key, content, str_rc, want_field, attr_rc, value] : cases) {
        tmp_.write("Node/12/" + std::string(key), content);
        char field[15];
        std::memset(field, '#', sizeof(field));
        unsigned int v = 7;
        EXPECT_EQ(StringLoad(dir_.fd(), key, field, 14), str_rc) << key;
        EXPECT_EQ(std::string(field, sizeof(field)), want_field) << key;
        EXPECT_EQ(AttrLoad(dir_.fd(), key, "%u", &v), attr_rc) << key;
        EXPECT_EQ(v, value) << key;
    }
    EXPECT_EQ(
        log_.lines(),
        (Lines{"error: StringLoad(): Malformed file nolf",
               "error: AttrLoad(): Malformed file nolf",
               "error: StringLoad(): String too long in n255: " + std::string(252, '0') + "42",
               "error: StringLoad(): Oversized file n256",
               "error: AttrLoad(): Oversized file n256"}));

    // Files are created 0666 less the umask and truncated on rewrite; a batch is flushed once when its
    // directory closes, even after a failed write.
    log_.clear();
    mode_t old_mask = ::umask(022);
    EXPECT_EQ(AttrStore(dir_.fd(), "freespace", "%u\n", 123456u), 7);
    ::umask(old_mask);
    struct stat st;
    ASSERT_EQ(::stat((record_ + "/freespace").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    EXPECT_EQ(AttrStore(dir_.fd(), "freespace", "%u\n", 7u), 2);
    EXPECT_EQ(tmp_.read("Node/12/freespace"), "7\n");

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
    EXPECT_EQ(hooks.fsync_calls(), 1);
    EXPECT_EQ(tmp_.read("Node/12/version"), "v1.8\n");
    // The flush failure is only a warning under the operation's name.
    Lines reports;
    for (const test::LogLine& l : log_.entries())
        if (l.priority != LOG_DEBUG) reports.push_back(l.text);
    EXPECT_EQ(reports, (Lines{"error: fd_openat(): openat(model): Is a directory",
                              "warn: NodeCreate(): fsync(" + std::to_string(fd) +
                                  "): Input/output error"}));
    // 255 bytes fit, 256 do not; a refused path leaves the directory pathless.
    RecordDir longer("NodeCreate");
    EXPECT_EQ(longer.set_path("%s", std::string(255, 'n').c_str()), 0);
    EXPECT_EQ(longer.set_path("%s/%s", record_.c_str(), std::string(255, 'n').c_str()), -1);
    EXPECT_STREQ(longer.path(), "");
}

}  // namespace
}  // namespace corvald
