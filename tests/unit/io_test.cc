#include "util/io.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "support/log_capture.h"
#include "support/syscall_hooks.h"
#include "support/signals.h"
#include "support/temp_dir.h"
#include "util/unique_fd.h"

namespace corvald {
namespace {

int open_fd_count() {
    int n = 0;
    DIR* d = ::opendir("/proc/self/fd");
    while (::readdir(d) != nullptr) ++n;
    ::closedir(d);
    return n;
}

// A SIGALRM every few milliseconds, without SA_RESTART, so that blocking
// calls return EINTR. The handler can also unblock the call under test on
// its third delivery by running `unblock`.
volatile sig_atomic_t alarms = 0;
int unblock_fd = -1;
bool unblock_by_reading = false;

void on_alarm(int) {
    alarms = alarms + 1;
    if (alarms == 3 && unblock_fd >= 0) {
        char buf[65536];
        if (unblock_by_reading)
            while (::read(unblock_fd, buf, sizeof(buf)) > 0) {
            }
        else
            (void)!::write(unblock_fd, "xyz", 3);
    }
}

// SIGALRM every 5 ms; the handler may unblock the call under test.
class Interrupter {
public:
    Interrupter(int fd, bool by_reading) {
        alarms = 0;
        unblock_fd = fd;
        unblock_by_reading = by_reading;
    }
    ~Interrupter() { unblock_fd = -1; }

private:
    test::SignalTimer timer_{SIGALRM, on_alarm, 5, 5};
};

struct Pipe {
    Pipe() {
        int p[2];
        EXPECT_EQ(::pipe(p), 0);
        r.reset(p[0]);
        w.reset(p[1]);
    }
    void fill() {  // until a write would block
        fd_blocking(w.get(), 0);
        char buf[4096] = {};
        while (::write(w.get(), buf, sizeof(buf)) > 0) {
        }
        fd_blocking(w.get(), 1);
    }
    UniqueFd r, w;
};

TEST(Io, WholeTransfersAndEndOfFile) {
    test::LogCapture log;
    Pipe p;
    EXPECT_EQ(buf_tx(p.w.get(), "hello", 5, 1), 5);
    char buf[16] = {};
    EXPECT_EQ(buf_rx(p.r.get(), buf, 5, 1), 5);
    EXPECT_STREQ(buf, "hello");

    // End of file before len bytes: 0, even after a partial read.
    EXPECT_EQ(buf_tx(p.w.get(), "abc", 3, 1), 3);
    p.w.reset();
    EXPECT_EQ(buf_rx(p.r.get(), buf, 10, 1), 0);
    EXPECT_EQ(buf_rx(p.r.get(), buf, 0, 1), 0);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"error: buf_rx(): read(7): EOF",
                                                     "error: buf_rx(): read(0): EOF"}));
    log.clear();

    // A pipe without a reader: EPIPE, not a signal (the daemon ignores SIGPIPE).
    Pipe q;
    q.r.reset();
    auto old = ::signal(SIGPIPE, SIG_IGN);
    errno = 0;
    EXPECT_EQ(buf_tx(q.w.get(), "x", 1, 1), -1);
    EXPECT_EQ(errno, EPIPE);
    ::signal(SIGPIPE, old);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"error: buf_tx(): write(1): Broken pipe"});
}

TEST(Io, InterruptedTransfersFailUnlessAskedToRetry) {
    test::LogCapture log;
    {
        Pipe p;
        p.fill();
        Interrupter i(-1, false);
        errno = 0;
        EXPECT_EQ(buf_tx(p.w.get(), "x", 1, 0), -1);
        EXPECT_EQ(errno, EINTR);
    }
    {
        // Retried through two interruptions; the third drains the pipe.
        Pipe p;
        p.fill();
        fd_blocking(p.r.get(), 0);  // the handler drains it without blocking
        Interrupter i(p.r.get(), true);
        EXPECT_EQ(buf_tx(p.w.get(), "x", 1, 1), 1);
        EXPECT_GE(alarms, 3);
    }
    {
        Pipe p;
        Interrupter i(-1, false);
        char buf[4];
        errno = 0;
        EXPECT_EQ(buf_rx(p.r.get(), buf, 3, 0), -1);
        EXPECT_EQ(errno, EINTR);
    }
    {
        Pipe p;
        Interrupter i(p.w.get(), false);
        char buf[4] = {};
        EXPECT_EQ(buf_rx(p.r.get(), buf, 3, 1), 3);
        EXPECT_STREQ(buf, "xyz");
    }
    // Only the two calls that were not asked to retry say anything.
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"error: buf_tx(): write(1): Interrupted system call",
                                        "error: buf_rx(): read(3): Interrupted system call"}));
}

// A file size limit of 10 bytes makes writev stop part-way: the first call
// writes 10 of 18 bytes, the retry of the remaining 8 (one entry) fails.
TEST(Io, PartialWritevSkipsWrittenEntries) {
    test::LogCapture log;
    test::TempDir dir;
    UniqueFd fd(::open((dir / "f").c_str(), O_WRONLY | O_CREAT, 0644));
    struct rlimit old, lim;
    ::getrlimit(RLIMIT_FSIZE, &old);
    lim = old;
    lim.rlim_cur = 10;
    auto old_xfsz = ::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &lim), 0);

    char a[] = "AAAA", b[] = "BBBBBB", c[] = "CCCCCCCC";
    struct iovec iov[3] = {{a, 4}, {b, 6}, {c, 8}};
    errno = 0;
    ssize_t r = iov_tx(fd.get(), iov, 3, 1);
    int err = errno;
    ::setrlimit(RLIMIT_FSIZE, &old);
    ::signal(SIGXFSZ, old_xfsz);

    EXPECT_EQ(r, -1);
    EXPECT_EQ(err, EFBIG);
    EXPECT_EQ(dir.read("f"), "AAAABBBBBB");
    // The third entry is untouched: nothing of it was written.
    EXPECT_EQ(iov[2].iov_base, c);
    EXPECT_EQ(iov[2].iov_len, 8u);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"notice: iov_tx(): PARTIAL writev(): 10/18",
                                                     "error: iov_tx(): writev(8/1): File too large"}));

    // Without a limit the whole vector goes out.
    char d[] = "DD", e[] = "EEE";
    struct iovec ok[2] = {{d, 2}, {e, 3}};
    EXPECT_EQ(iov_tx(fd.get(), ok, 2, 1), 5);
    EXPECT_EQ(dir.read("f"), "AAAABBBBBBDDEEE");
}

TEST(Io, BlockingModeKeepsOtherFlags) {
    test::TempDir dir;
    UniqueFd fd(::open((dir / "f").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644));
    EXPECT_EQ(fd_blocking(fd.get(), 0), 0);
    int fl = ::fcntl(fd.get(), F_GETFL);
    EXPECT_TRUE(fl & O_NONBLOCK);
    EXPECT_TRUE(fl & O_APPEND);
    EXPECT_EQ(fd_blocking(fd.get(), 1), 0);
    fl = ::fcntl(fd.get(), F_GETFL);
    EXPECT_FALSE(fl & O_NONBLOCK);
    EXPECT_TRUE(fl & O_APPEND);
    EXPECT_EQ(fd_blocking(-1, 1), -1);
}

TEST(Io, OpenCloseTruncate) {
    test::LogCapture log;
    test::TempDir dir;
    EXPECT_LT(fd_open((dir / "missing/f").c_str(), O_RDONLY, 0), 0);
    EXPECT_TRUE(log.contains("error: fd_open(): open(" + dir / "missing/f" + "): No such file or directory"));
    int fd;
    {
        // Interrupted opens are retried, each with a warning.
        test::SyscallHooks hooks;
        hooks.fail_open(dir / "f", EINTR, 2);
        fd = fd_open((dir / "f").c_str(), O_RDWR | O_CREAT, 0600);
        EXPECT_EQ(hooks.open_calls(dir / "f"), 3);
    }
    ASSERT_GE(fd, 0);
    EXPECT_EQ(log.count("warn: fd_open(): open(" + dir / "f" + "): Interrupted system call"), 2u);
    log.clear();
    EXPECT_EQ(buf_tx(fd, "0123456789", 10, 1), 10);
    EXPECT_EQ(fd_truncate(fd, 4), 0);
    EXPECT_EQ(dir.read("f"), "0123");
    EXPECT_EQ(fd_close(fd), 0);
    EXPECT_EQ(fd_close(fd), -1);  // EBADF: logged, not retried
    EXPECT_EQ(fd_truncate(fd, 0), -1);
    std::string n = std::to_string(fd);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "error: fd_close(): close(" + n + "): Bad file descriptor",
                               "error: fd_truncate(): ftruncate(" + n + ", 0): Bad file descriptor"}));

    UniqueFd d(::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY));
    int f = fd_openat(d.get(), "f", O_RDONLY, 0);
    EXPECT_GE(f, 0);
    fd_close(f);
    EXPECT_LT(fd_openat(d.get(), "nope", O_RDONLY, 0), 0);
}

TEST(Io, ListenAcceptAndOptions) {
    test::LogCapture log;
    int before = open_fd_count();
    EXPECT_EQ(tcp_listen("localhost", 0, 0), -1);  // no name resolution
    EXPECT_EQ(open_fd_count(), before);
    EXPECT_TRUE(log.contains("error: tcp_listen(): inet_aton(localhost): failed")) << log.dump();

    UniqueFd ls(tcp_listen("127.0.0.1", 0, 0));
    ASSERT_TRUE(ls);
    struct sockaddr_in sa = {};
    socklen_t len = sizeof(sa);
    ::getsockname(ls.get(), reinterpret_cast<sockaddr*>(&sa), &len);
    int port = ntohs(sa.sin_port);

    // The same port again: the bind fails and the socket is not leaked.
    before = open_fd_count();
    EXPECT_EQ(tcp_listen("127.0.0.1", port, 5), -1);
    EXPECT_EQ(open_fd_count(), before);
    EXPECT_TRUE(log.contains("error: tcp_listen(): bind(127.0.0.1:" + std::to_string(port) +
                             "): Address already in use"))
        << log.dump();

    UniqueFd client(::socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(::connect(client.get(), reinterpret_cast<sockaddr*>(&sa), sizeof(sa)), 0);
    struct sockaddr_in mine = {};
    len = sizeof(mine);
    ::getsockname(client.get(), reinterpret_cast<sockaddr*>(&mine), &len);

    char addr[16];
    int peer_port = 0;
    UniqueFd conn(tcp_accept(ls.get(), addr, &peer_port));
    ASSERT_TRUE(conn);
    EXPECT_STREQ(addr, "127.0.0.1");
    EXPECT_EQ(peer_port, ntohs(mine.sin_port));
    int v = 0;
    len = sizeof(v);
    ::getsockopt(conn.get(), IPPROTO_TCP, TCP_NODELAY, &v, &len);
    EXPECT_EQ(v, 1);

    EXPECT_EQ(so_buf(conn.get(), 1, 64), 0);
    ::getsockopt(conn.get(), SOL_SOCKET, SO_SNDBUF, &v, &len);
    EXPECT_EQ(v, 2 * 65536);  // the kernel reports twice what was asked
    // Options on something that is not a socket fail at the first step.
    UniqueFd null(::open("/dev/null", O_RDONLY));
    log.clear();
    EXPECT_EQ(tcp_keepalive(null.get(), 1, 1, 1), -1);
    EXPECT_EQ(so_buf(null.get(), 0, 2), -1);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "error: tcp_keepalive(): setsockopt(SO_KEEPALIVE): Socket operation on non-socket",
                               "error: so_buf(): setsockopt(SO_RCVBUF, 2048): Socket operation on non-socket"}));
}

}  // namespace
}  // namespace corvald
