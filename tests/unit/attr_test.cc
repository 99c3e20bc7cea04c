#include "store/attr.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/syscall_hooks.h"
#include "support/temp_dir.h"

namespace corvald {
namespace {

using test::LogCapture;
using test::SyscallHooks;
using test::TempDir;
using Lines = std::vector<std::string>;

class AttrTest : public ::testing::Test {
protected:
    void SetUp() override {
        dirfd_ = ::open(tmp_.path().c_str(), O_RDONLY | O_DIRECTORY);
        ASSERT_GE(dirfd_, 0);
    }
    void TearDown() override { ::close(dirfd_); }

    TempDir tmp_;
    int dirfd_ = -1;
    LogCapture log_;
};

TEST_F(AttrTest, StringLoadStripsOnlyTheFinalLineFeed) {
    char dst[8];

    // A lone line feed is an empty value, and the field is still cleared.
    tmp_.write("lf", "\n");
    std::memset(dst, 'x', sizeof(dst));
    EXPECT_EQ(StringLoad(dirfd_, "lf", dst, sizeof(dst)), 0);
    EXPECT_EQ(std::string(dst, sizeof(dst)), std::string(8, '\0'));

    // A file of size 0 is success too, but dst is not touched at all.
    tmp_.write("empty", "");
    std::memset(dst, 'x', sizeof(dst));
    EXPECT_EQ(StringLoad(dirfd_, "empty", dst, sizeof(dst)), 0);
    EXPECT_EQ(std::string(dst, sizeof(dst)), std::string(8, 'x'));

    tmp_.write("twolf", "42\n\n");
    EXPECT_EQ(StringLoad(dirfd_, "twolf", dst, sizeof(dst)), 3);
    EXPECT_EQ(std::string(dst, sizeof(dst)), std::string("42\n\0\0\0\0\0", 8));
    EXPECT_TRUE(log_.lines().empty()) << log_.dump();

    tmp_.write("nolf", "42");
    std::memset(dst, 'x', sizeof(dst));
    EXPECT_EQ(StringLoad(dirfd_, "nolf", dst, sizeof(dst)), -1);
    EXPECT_EQ(std::string(dst, sizeof(dst)), std::string(8, 'x'));
    EXPECT_EQ(StringLoad(dirfd_, "missing", dst, sizeof(dst)), -1);
    EXPECT_EQ(log_.lines(), (Lines{"error: StringLoad(): Malformed file nolf",
                                   "error: fd_openat(): openat(missing): No such file or directory"}));
}

TEST_F(AttrTest, FileOf255BytesLoadsAnd256IsOversized) {
    char dst[255];
    tmp_.write("s255", std::string(254, 'a') + "\n");
    EXPECT_EQ(StringLoad(dirfd_, "s255", dst, sizeof(dst)), 254);
    EXPECT_EQ(std::string(dst, 254), std::string(254, 'a'));
    tmp_.write("s256", std::string(255, 'a') + "\n");
    EXPECT_EQ(StringLoad(dirfd_, "s256", dst, sizeof(dst)), -1);

    unsigned int v = 0;
    tmp_.write("n255", std::string(252, '0') + "42\n");
    EXPECT_EQ(AttrLoad(dirfd_, "n255", "%u", &v), 1);
    EXPECT_EQ(v, 42u);
    tmp_.write("n256", std::string(253, '0') + "42\n");
    EXPECT_EQ(AttrLoad(dirfd_, "n256", "%u", &v), -1);

    EXPECT_EQ(log_.lines(),
              (Lines{"error: StringLoad(): Oversized file s256", "error: AttrLoad(): Oversized file n256"}));
}

TEST_F(AttrTest, StringLoadFillsTheFieldWithoutTerminator) {
    // One guard byte behind the 14-byte field shows what was written.
    char field[15];
    std::memset(field, '#', sizeof(field));
    tmp_.write("uuid", "0123456789abcd\n");
    EXPECT_EQ(StringLoad(dirfd_, "uuid", field, 14), 14);
    EXPECT_EQ(std::string(field, 15), "0123456789abcd#");

    std::memset(field, '#', sizeof(field));
    tmp_.write("uuid", "0123456789abcde\n");
    EXPECT_EQ(StringLoad(dirfd_, "uuid", field, 14), -1);
    EXPECT_EQ(std::string(field, 15), std::string(15, '#'));
    EXPECT_EQ(log_.lines(), (Lines{"error: StringLoad(): String too long in uuid: 0123456789abcde"}));

    // A shorter value clears the rest of the field.
    std::memset(field, '#', sizeof(field));
    tmp_.write("uuid", "abc\n");
    EXPECT_EQ(StringLoad(dirfd_, "uuid", field, 14), 3);
    EXPECT_EQ(std::string(field, 15), std::string("abc") + std::string(11, '\0') + "#");
}

TEST_F(AttrTest, AttrLoadReturnsTheConversionResult) {
    unsigned int v = 7;
    unsigned long long big = 0;

    tmp_.write("lf", "\n");
    EXPECT_EQ(AttrLoad(dirfd_, "lf", "%u", &v), -1);  // vsscanf's end of input
    tmp_.write("word", "abc\n");
    EXPECT_EQ(AttrLoad(dirfd_, "word", "%u", &v), 0);
    EXPECT_EQ(v, 7u);
    EXPECT_TRUE(log_.lines().empty()) << log_.dump();

    tmp_.write("num", "42\n");
    EXPECT_EQ(AttrLoad(dirfd_, "num", "%u", &v), 1);
    EXPECT_EQ(v, 42u);
    tmp_.write("sectors", "18446744073709551615\n");
    EXPECT_EQ(AttrLoad(dirfd_, "sectors", "%llu", &big), 1);
    EXPECT_EQ(big, 18446744073709551615ull);

    tmp_.write("empty", "");
    EXPECT_EQ(AttrLoad(dirfd_, "empty", "%u", &v), -1);
    tmp_.write("nolf", "42");
    EXPECT_EQ(AttrLoad(dirfd_, "nolf", "%u", &v), -1);
    EXPECT_EQ(log_.lines(), (Lines{"error: AttrLoad(): Empty file empty", "error: AttrLoad(): Malformed file nolf"}));
}

TEST_F(AttrTest, AttrStoreRewritesTheWholeFileInPlace) {
    mode_t old_mask = ::umask(022);
    EXPECT_EQ(AttrStore(dirfd_, "freespace", "%u\n", 123456u), 7);
    ::umask(old_mask);
    EXPECT_EQ(tmp_.read("freespace"), "123456\n");
    struct stat st;
    ASSERT_EQ(::stat((tmp_ / "freespace").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);

    EXPECT_EQ(AttrStore(dirfd_, "freespace", "%u\n", 7u), 2);
    EXPECT_EQ(tmp_.read("freespace"), "7\n");

    // Fixed-width text fields: all 32 bytes when there is no NUL, else up to it.
    char vendor[32];
    std::memset(vendor, 'v', sizeof(vendor));
    EXPECT_EQ(AttrStore(dirfd_, "vendor", "%.*s\n", 32, vendor), 33);
    EXPECT_EQ(tmp_.read("vendor"), std::string(32, 'v') + "\n");
    char back[32];
    EXPECT_EQ(StringLoad(dirfd_, "vendor", back, sizeof(back)), 32);
    EXPECT_EQ(std::string(back, 32), std::string(vendor, 32));
    vendor[5] = '\0';
    EXPECT_EQ(AttrStore(dirfd_, "vendor", "%.*s\n", 32, vendor), 6);
    EXPECT_EQ(tmp_.read("vendor"), "vvvvv\n");
    EXPECT_TRUE(log_.lines().empty()) << log_.dump();

    ASSERT_EQ(::mkdir((tmp_ / "sub").c_str(), 0755), 0);
    EXPECT_EQ(AttrStore(dirfd_, "sub", "%u\n", 1u), -1);
    EXPECT_EQ(log_.lines(), (Lines{"error: fd_openat(): openat(sub): Is a directory"}));
}

TEST_F(AttrTest, FileLoadReadsTheWholeFile) {
    char* buf = nullptr;
    std::string content = "12\n34\n" + std::string(4000, 'z');
    tmp_.write("membership", content);
    int fd = ::open((tmp_ / "membership").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(FileLoad(fd, &buf), static_cast<ssize_t>(content.size()));
    EXPECT_EQ(std::string(buf), content);  // NUL right behind the content
    std::free(buf);
    ::close(fd);

    tmp_.write("frontend", "");
    fd = ::open((tmp_ / "frontend").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    char sentinel = 0;
    buf = &sentinel;
    EXPECT_EQ(FileLoad(fd, &buf), 0);
    EXPECT_EQ(buf, &sentinel);
    ::close(fd);
    EXPECT_TRUE(log_.lines().empty()) << log_.dump();

    // fd is closed now.
    EXPECT_EQ(FileLoad(fd, &buf), -1);
    EXPECT_EQ(buf, &sentinel);
    EXPECT_EQ(log_.lines(), (Lines{"error: FileLoad(): lseek(" + std::to_string(fd) + "): Bad file descriptor"}));
}

class RecordDirTest : public AttrTest {
protected:
    void SetUp() override {
        AttrTest::SetUp();
        root_ = tmp_.path();
        record_ = root_ + "/Node/12";
        ASSERT_EQ(::mkdir((root_ + "/Node").c_str(), 0755), 0);
        ASSERT_EQ(::mkdir(record_.c_str(), 0755), 0);
    }

    std::string root_;
    std::string record_;
};

TEST_F(RecordDirTest, BatchTracesEachWriteAndFlushesOnceAtTheEnd) {
    SyscallHooks hooks;
    RecordDir dir("NodeCreate");
    ASSERT_EQ(dir.set_path("%s/Node/%u", root_.c_str(), 12u), 0);
    ASSERT_EQ(dir.open(), 0);
    int fd = dir.fd();
    dir.begin_batch();
    char vendor[32] = "acme";
    EXPECT_EQ(dir.store("version", "v%u.%u", 1u, 8u), 5);
    EXPECT_EQ(dir.store("vendor", "%.*s", 32, vendor), 5);
    EXPECT_EQ(dir.store("freespace", "%u", 42u), 3);
    EXPECT_EQ(hooks.fsync_calls(), 0);
    dir.close();
    EXPECT_EQ(hooks.fsync_calls(fd), 1);
    EXPECT_EQ(hooks.fsync_calls(), 1);

    EXPECT_EQ(log_.lines(), (Lines{"debug: NodeCreate(): " + record_ + "/version=v1.8",
                                   "debug: NodeCreate(): " + record_ + "/vendor=acme",
                                   "debug: NodeCreate(): " + record_ + "/freespace=42"}));
    EXPECT_EQ(tmp_.read("Node/12/version"), "v1.8\n");
    EXPECT_EQ(tmp_.read("Node/12/vendor"), "acme\n");
    EXPECT_EQ(tmp_.read("Node/12/freespace"), "42\n");
}

TEST_F(RecordDirTest, BatchStoppedByAFailedWriteIsStillFlushedOnce) {
    // "model" is a directory, so its write fails half-way through the batch.
    ASSERT_EQ(::mkdir((record_ + "/model").c_str(), 0755), 0);
    tmp_.write("Node/12/freespace", "1\n");
    SyscallHooks hooks;
    int fd;
    {
        RecordDir dir("NodeCreate");
        ASSERT_EQ(dir.set_path("%s", record_.c_str()), 0);
        ASSERT_EQ(dir.open(), 0);
        fd = dir.fd();
        dir.begin_batch();
        int rc = dir.store("vendor", "%s", "acme") < 0 || dir.store("model", "%s", "x1") < 0 ||
                         dir.store("freespace", "%u", 42u) < 0
                     ? -1
                     : 0;
        EXPECT_EQ(rc, -1);
        hooks.fail_fsync(EIO);
    }
    EXPECT_EQ(hooks.fsync_calls(fd), 1);
    EXPECT_EQ(tmp_.read("Node/12/vendor"), "acme\n");
    EXPECT_EQ(tmp_.read("Node/12/freespace"), "1\n");
    // The flush failure is only a warning under the operation's name.
    EXPECT_EQ(log_.lines(), (Lines{"debug: NodeCreate(): " + record_ + "/vendor=acme",
                                   "debug: NodeCreate(): " + record_ + "/model=x1",
                                   "error: fd_openat(): openat(model): Is a directory",
                                   "warn: NodeCreate(): fsync(" + std::to_string(fd) +
                                       "): Input/output error"}));
}

TEST_F(RecordDirTest, LoadsTraceTheValueOrReportTheFailure) {
    tmp_.write("Node/12/freespace", "42\n");
    tmp_.write("Node/12/sectors", "1099511627776\n");
    tmp_.write("Node/12/name", "abc\n");
    tmp_.write("Node/12/uuid", "0123456789abcd\n");
    tmp_.write("Node/12/stripes", "two\n");
    SyscallHooks hooks;
    RecordDir dir("DatastoreLoad");
    ASSERT_EQ(dir.set_path("%s", record_.c_str()), 0);
    ASSERT_EQ(dir.open(), 0);

    uint32_t u = 0;
    unsigned long long ull = 0;
    char name[32] = {};
    char uuid[14];
    EXPECT_EQ(dir.load_u32("freespace", &u), 0);
    EXPECT_EQ(u, 42u);
    EXPECT_EQ(dir.load_u64("sectors", &ull), 0);
    EXPECT_EQ(ull, 1099511627776ull);
    EXPECT_EQ(dir.load_text("name", name, sizeof(name)), 3);
    EXPECT_EQ(dir.load_text("uuid", uuid, sizeof(uuid)), 14);
    EXPECT_EQ(dir.load_text("name", name, sizeof(name), TextTrace::kPlain), 3);
    EXPECT_EQ(dir.load_text("name", name, sizeof(name), TextTrace::kNone), 3);
    std::string p = "debug: DatastoreLoad(): " + record_;
    EXPECT_EQ(log_.lines(), (Lines{p + "/freespace=42", p + "/sectors=1099511627776", p + "/name=abc (3)",
                                   p + "/uuid=0123456789abcd (14)", p + "/name=abc"}));

    log_.clear();
    u = 99;
    EXPECT_EQ(dir.load_u32("stripes", &u), -1);
    EXPECT_EQ(u, 99u);
    EXPECT_EQ(dir.load_u64("missing", &ull), -1);
    EXPECT_EQ(dir.load_text("missing", name, sizeof(name)), -1);
    std::string e = "error: DatastoreLoad(): Failed to load " + record_;
    EXPECT_EQ(log_.lines(), (Lines{e + "/stripes: 0", "error: fd_openat(): openat(missing): No such file or directory",
                                   e + "/missing: -1",
                                   "error: fd_openat(): openat(missing): No such file or directory",
                                   e + "/missing: -1"}));
    dir.close();
    EXPECT_EQ(hooks.fsync_calls(), 0);  // no batch, no flush
}

TEST_F(RecordDirTest, DirectoriesAndSubrecords) {
    RecordDir dir("VDiskCreate");
    ASSERT_EQ(dir.set_path("%s", record_.c_str()), 0);
    ASSERT_EQ(dir.open(), 0);
    EXPECT_EQ(StoreMkdir("VDiskCreate", (root_ + "/VDisk").c_str()), 0);
    EXPECT_EQ(StoreMkdir("VDiskCreate", (root_ + "/VDisk").c_str()), 0);  // exists: fine
    EXPECT_EQ(StoreMkdir("VDiskCreate", (root_ + "/none/x").c_str()), -1);
    EXPECT_EQ(dir.mkdir("memberinfo"), 0);
    EXPECT_EQ(dir.mkdir("memberinfo"), 0);
    EXPECT_EQ(dir.mkdir("none/x"), -1);
    std::string p = "VDiskCreate(): ";
    EXPECT_EQ(log_.lines(),
              (Lines{"debug: " + p + root_ + "/VDisk [MKDIR]", "debug: " + p + root_ + "/VDisk [MKDIR]",
                     "debug: " + p + root_ + "/none/x [MKDIR]",
                     "error: " + p + "mkdir(" + root_ + "/none/x): No such file or directory",
                     "debug: " + p + record_ + "/memberinfo [MKDIR]", "debug: " + p + record_ + "/memberinfo [MKDIR]",
                     "debug: " + p + record_ + "/none/x [MKDIR]",
                     "error: " + p + "mkdir(" + record_ + "/none/x): No such file or directory"}));

    // A subrecord opened through its parent shows up as <parent>/<name>.
    log_.clear();
    RecordDir member("VDiskCreate");
    ASSERT_EQ(member.open_at(dir, "memberinfo"), 0);
    EXPECT_EQ(std::string(member.path()), record_ + "/memberinfo");
    EXPECT_EQ(member.store("seqno", "%llu", 5ull), 2);
    EXPECT_EQ(tmp_.read("Node/12/memberinfo/seqno"), "5\n");
    EXPECT_EQ(log_.lines(), (Lines{"debug: " + p + record_ + "/memberinfo/seqno=5"}));

    RecordDir longer("VDiskCreate");
    EXPECT_EQ(longer.set_path("%s/%s", record_.c_str(), std::string(255, 'n').c_str()), -1);
    EXPECT_EQ(longer.set_path("%s", std::string(255, 'n').c_str()), 0);
}

}  // namespace
}  // namespace corvald
