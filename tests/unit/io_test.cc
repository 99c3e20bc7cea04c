// The descriptor and socket wrappers: the exact failure lines, the retries
// of an interrupted call, and no descriptor left behind by a failure.
#include "util/io.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
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

// SIGALRM comes every 5 ms without SA_RESTART. On the third the handler
// unblocks the transfer under test through unblock_fd: a full pipe's read
// end is drained, an empty pipe's write end gets "xyz".
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

TEST(Io, TransfersRetryInterruptionsAndReportEndOfFileAndBrokenPipe) {
    test::LogCapture log;
    for (bool tx : {true, false}) {
        SCOPED_TRACE(tx ? "tx" : "rx");
        Pipe p;
        if (tx) {  // full, so that the write blocks; drained without blocking
            ASSERT_EQ(fd_blocking(p.w.get(), 0), 0);
            while (::write(p.w.get(), std::string(4096, 'f').data(), 4096) > 0) {
            }
            ASSERT_EQ(fd_blocking(p.w.get(), 1), 0);
            ASSERT_EQ(fd_blocking(p.r.get(), 0), 0);
        }
        alarms = 0;
        unblock_fd = tx ? p.r.get() : p.w.get();
        test::SignalTimer timer(SIGALRM, on_alarm, 5, 5);
        char buf[4] = {};
        ssize_t n = tx ? buf_tx(p.w.get(), "x", 1, 1) : buf_rx(p.r.get(), buf, 3, 1);
        unblock_fd = -1;
        EXPECT_EQ(n, tx ? 1 : 3);
        EXPECT_STREQ(buf, tx ? "" : "xyz");
        EXPECT_GE(alarms, 3);
    }
    EXPECT_TRUE(log.lines().empty()) << log.dump();  // a retry is silent

    // End of file before len bytes: 0, even after a partial read.
    Pipe p;
    char buf[16] = {};
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

// Failed opens and openat are logged in the store and frame tests.
TEST(Io, InterruptedOpenIsRetriedAndCloseFailureReported) {
    test::LogCapture log;
    test::TempDir dir;
    const std::string f = dir / "f";
    int fd;
    {
        test::SyscallHooks hooks;
        hooks.fail_open(f, EINTR, 2);
        fd = fd_open(f.c_str(), O_RDWR | O_CREAT, 0600);
        EXPECT_EQ(hooks.open_calls(f), 3);
    }
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fd_close(fd), 0);
    EXPECT_EQ(fd_close(fd), -1);  // EBADF: logged, not retried
    const std::string warn = "warn: fd_open(): open(" + f + "): Interrupted system call";
    EXPECT_EQ(log.lines(), (Lines{warn, warn, "error: fd_close(): close(" + std::to_string(fd) +
                                                  "): Bad file descriptor"}));
}

TEST(Io, ListenAndAccept) {
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
    EXPECT_EQ(tcp_listen("127.0.0.1", ntohs(sa.sin_port), 5), -1);
    EXPECT_EQ(lowest_free_fd(), before + 1);

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
    EXPECT_EQ(fd_blocking(conn.get(), 0), 0);
    EXPECT_EQ(::fcntl(conn.get(), F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_EQ(fd_blocking(-1, 0), -1);
    EXPECT_EQ(log.lines(),
              (Lines{"error: tcp_listen(): inet_aton(localhost): failed",
                     "error: tcp_listen(): bind(127.0.0.1:" + port + "): Address already in use",
                     "error: fd_blocking(): fcntl(F_GETFL): Bad file descriptor"}));
}

}  // namespace
}  // namespace corvald
