#include "util/io.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "support/log_capture.h"
#include "support/signals.h"
#include "support/syscall_hooks.h"
#include "support/temp_dir.h"
#include "util/unique_fd.h"

namespace corvald {
namespace {

using Lines = std::vector<std::string>;

// The descriptor the next open would get: unchanged across a call that
// leaks nothing.
int lowest_free_fd() {
    UniqueFd probe(::dup(0));
    return probe.get();
}

struct Pipe {
    Pipe() {
        int p[2];
        EXPECT_EQ(::pipe(p), 0);
        r.reset(p[0]);
        w.reset(p[1]);
    }
    UniqueFd r, w;
};

TEST(Io, EndOfFileAndBrokenPipe) {
    test::LogCapture log;
    Pipe p;
    char buf[16] = {};
    // End of file before len bytes: 0, even after a partial read.
    EXPECT_EQ(buf_tx(p.w.get(), "abc", 3, 1), 3);
    p.w.reset();
    EXPECT_EQ(buf_rx(p.r.get(), buf, 10, 1), 0);
    // A pipe without a reader: EPIPE, not a signal (the daemon ignores SIGPIPE).
    Pipe q;
    q.r.reset();
    auto old = ::signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(buf_tx(q.w.get(), "x", 1, 1), -1);
    ::signal(SIGPIPE, old);
    EXPECT_EQ(log.lines(),
              (Lines{"error: buf_rx(): read(7): EOF", "error: buf_tx(): write(1): Broken pipe"}));
}

// SIGALRM comes every 5 ms without SA_RESTART. On the third the handler
// unblocks the transfer under test through unblock_fd: a read end is
// drained (the write to it fails), a write end gets "xyz" (the read fails).
volatile sig_atomic_t alarms = 0;
volatile int unblock_fd = -1;
void on_alarm(int) {
    char buf[65536];
    alarms = alarms + 1;
    if (alarms != 3 || unblock_fd < 0)
        return;
    while (::read(unblock_fd, buf, sizeof(buf)) > 0) {
    }
    (void)!::write(unblock_fd, "xyz", 3);
}

TEST(Io, InterruptedTransfersFailUnlessAskedToRetry) {
    test::LogCapture log;
    for (bool tx : {true, false}) {
        for (int nointr : {0, 1}) {
            SCOPED_TRACE(std::string(tx ? "tx" : "rx") + " nointr=" + std::to_string(nointr));
            Pipe p;
            if (tx) {  // full, so that the write blocks; drained without blocking
                fd_blocking(p.w.get(), 0);
                while (::write(p.w.get(), std::string(4096, 'f').data(), 4096) > 0) {
                }
                fd_blocking(p.w.get(), 1);
                fd_blocking(p.r.get(), 0);
            }
            alarms = 0;
            unblock_fd = nointr == 0 ? -1 : tx ? p.r.get() : p.w.get();
            test::SignalTimer timer(SIGALRM, on_alarm, 5, 5);
            char buf[4] = {};
            ssize_t n = tx ? buf_tx(p.w.get(), "x", 1, nointr) : buf_rx(p.r.get(), buf, 3, nointr);
            unblock_fd = -1;
            EXPECT_EQ(n, nointr == 0 ? -1 : tx ? 1 : 3);
            EXPECT_STREQ(buf, !tx && nointr ? "xyz" : "");
        }
    }
    // Only the two calls that were not asked to retry say anything.
    EXPECT_EQ(log.lines(), (Lines{"error: buf_tx(): write(1): Interrupted system call",
                                  "error: buf_rx(): read(3): Interrupted system call"}));
}

// A file size limit of 10 bytes makes writev stop part-way: the first call
// writes 10 of 18 bytes, the retry of the remaining 8 (one entry) fails.
TEST(Io, PartialWritevSkipsWrittenEntries) {
    test::LogCapture log;
    test::TempDir dir;
    UniqueFd fd(::open((dir / "f").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644));
    struct rlimit old, lim;
    ::getrlimit(RLIMIT_FSIZE, &old);
    lim = {10, old.rlim_max};
    auto old_xfsz = ::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &lim), 0);
    char a[] = "AAAA", b[] = "BBBBBB", c[] = "CCCCCCCC";
    struct iovec iov[3] = {{a, 4}, {b, 6}, {c, 8}};
    ssize_t r = iov_tx(fd.get(), iov, 3, 1);
    ::setrlimit(RLIMIT_FSIZE, &old);
    ::signal(SIGXFSZ, old_xfsz);
    EXPECT_EQ(r, -1);
    EXPECT_EQ(dir.read("f"), "AAAABBBBBB");
    EXPECT_EQ(iov[2].iov_base, c);  // nothing of the third entry was written
    EXPECT_EQ(iov[2].iov_len, 8u);
    EXPECT_EQ(log.lines(), (Lines{"notice: iov_tx(): PARTIAL writev(): 10/18",
                                  "error: iov_tx(): writev(8/1): File too large"}));
    // Without a limit the whole vector goes out; the mode change keeps O_APPEND.
    char d[] = "DD", e[] = "EEE";
    struct iovec ok[2] = {{d, 2}, {e, 3}};
    for (int blocking : {0, 1}) {
        EXPECT_EQ(fd_blocking(fd.get(), blocking), 0);
        EXPECT_EQ(::fcntl(fd.get(), F_GETFL) & (O_NONBLOCK | O_APPEND),
                  O_APPEND | (blocking ? 0 : O_NONBLOCK));
    }
    EXPECT_EQ(fd_blocking(-1, 1), -1);
    EXPECT_EQ(iov_tx(fd.get(), ok, 2, 1), 5);
    EXPECT_EQ(dir.read("f"), "AAAABBBBBBDDEEE");
}

// Failed opens and openat are logged in the store and frame tests.
TEST(Io, OpenCloseTruncate) {
    test::LogCapture log;
    test::TempDir dir;
    const std::string f = dir / "f";
    int fd;
    {
        // Interrupted opens are retried, each with a warning.
        test::SyscallHooks hooks;
        hooks.fail_open(f, EINTR, 2);
        fd = fd_open(f.c_str(), O_RDWR | O_CREAT, 0600);
        EXPECT_EQ(hooks.open_calls(f), 3);
    }
    ASSERT_GE(fd, 0);
    EXPECT_EQ(buf_tx(fd, "0123456789", 10, 1), 10);
    EXPECT_EQ(fd_truncate(fd, 4), 0);
    EXPECT_EQ(dir.read("f"), "0123");
    EXPECT_EQ(fd_close(fd), 0);
    EXPECT_EQ(fd_close(fd), -1);  // EBADF: logged, not retried
    EXPECT_EQ(fd_truncate(fd, 0), -1);
    const std::string n = std::to_string(fd), eintr = "): Interrupted system call";
    EXPECT_EQ(log.lines(),
              (Lines{"warn: fd_open(): open(" + f + eintr, "warn: fd_open(): open(" + f + eintr,
                     "error: fd_close(): close(" + n + "): Bad file descriptor",
                     "error: fd_truncate(): ftruncate(" + n + ", 0): Bad file descriptor"}));
}

TEST(Io, ListenAcceptAndOptions) {
    test::LogCapture log;
    int before = lowest_free_fd();
    EXPECT_EQ(tcp_listen("localhost", 0, 0), -1);  // no name resolution
    EXPECT_EQ(lowest_free_fd(), before);
    UniqueFd ls(tcp_listen("127.0.0.1", 0, 0));
    ASSERT_TRUE(ls);
    struct sockaddr_in sa = {}, mine = {};
    socklen_t len = sizeof(sa);
    ::getsockname(ls.get(), reinterpret_cast<sockaddr*>(&sa), &len);
    const std::string port = std::to_string(ntohs(sa.sin_port));
    // The same port again: the bind fails and the socket is not leaked.
    before = lowest_free_fd();
    EXPECT_EQ(tcp_listen("127.0.0.1", ntohs(sa.sin_port), 5), -1);
    EXPECT_EQ(lowest_free_fd(), before);

    UniqueFd client(::socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(::connect(client.get(), reinterpret_cast<sockaddr*>(&sa), sizeof(sa)), 0);
    ::getsockname(client.get(), reinterpret_cast<sockaddr*>(&mine), &len);
    char addr[16];
    int peer_port = 0, v = 0;
    UniqueFd conn(tcp_accept(ls.get(), addr, &peer_port));
    ASSERT_TRUE(conn);
    EXPECT_STREQ(addr, "127.0.0.1");
    EXPECT_EQ(peer_port, ntohs(mine.sin_port));
    len = sizeof(v);
    ::getsockopt(conn.get(), IPPROTO_TCP, TCP_NODELAY, &v, &len);
    EXPECT_EQ(v, 1);
    EXPECT_EQ(so_buf(conn.get(), 1, 64), 0);
    ::getsockopt(conn.get(), SOL_SOCKET, SO_SNDBUF, &v, &len);
    EXPECT_EQ(v, 2 * 65536);  // the kernel reports twice what was asked
    // Options on something that is not a socket fail at the first step.
    UniqueFd null(::open("/dev/null", O_RDONLY));
    EXPECT_EQ(tcp_keepalive(null.get(), 1, 1, 1), -1);
    EXPECT_EQ(so_buf(null.get(), 0, 2), -1);
    const std::string not_socket = "): Socket operation on non-socket";
    EXPECT_EQ(log.lines(),
              (Lines{"error: tcp_listen(): inet_aton(localhost): failed",
                     "error: tcp_listen(): bind(127.0.0.1:" + port + "): Address already in use",
                     "error: tcp_keepalive(): setsockopt(SO_KEEPALIVE" + not_socket,
                     "error: so_buf(): setsockopt(SO_RCVBUF, 2048" + not_socket}));
}

}  // namespace
}  // namespace corvald
