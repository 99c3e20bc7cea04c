#include "util/io.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
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

struct Pipe {
    Pipe() {
        int p[2];
        EXPECT_EQ(::pipe(p), 0);
        r.reset(p[0]), w.reset(p[1]);
    }
    UniqueFd r, w;
};

// SIGALRM comes every 5 ms without SA_RESTART. On the third the handler
// unblocks the read under test by writing "xyz" into the empty pipe.
volatile sig_atomic_t alarms = 0;
volatile int unblock_fd = -1;
void on_alarm(int) {
    alarms = alarms + 1;
    if (alarms == 3) (void)!::write(unblock_fd, "xyz", 3);
}

// Retries are silent, and so is a transfer's end of file before len bytes
// (even after a partial read) or a pipe without a reader (EPIPE, not a
// signal: the daemon ignores SIGPIPE) but for its line. A failed listen
// leaks no socket. The control connections' accept is end to end.
TEST(Io, RetriesAndFailures) {
    test::LogCapture log;
    Pipe p, q;
    {
        unblock_fd = p.w.get();
        test::SignalTimer timer(SIGALRM, on_alarm, 5, 5);
        char buf[4] = {};
        EXPECT_EQ(buf_rx(p.r.get(), buf, 3, 1), 3);
        EXPECT_STREQ(buf, "xyz");
        EXPECT_GE(alarms, 3);
    }
    test::TempDir dir;
    const std::string f = dir / "f";
    test::SyscallHooks hooks;
    hooks.fail_open(f, EINTR, 2);
    const int fd = fd_open(f.c_str(), O_RDWR | O_CREAT, 0600);
    EXPECT_EQ(hooks.open_calls(f), 3);
    EXPECT_TRUE(fd >= 0 && fd_close(fd) == 0);
    EXPECT_EQ(fd_close(fd), -1);  // EBADF: logged, not retried

    char buf[16] = {};
    EXPECT_EQ(buf_tx(p.w.get(), "abc", 3, 1), 3);
    p.w.reset(), q.r.reset();
    EXPECT_EQ(buf_rx(p.r.get(), buf, 10, 1), 0);
    auto old = ::signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(buf_tx(q.w.get(), "x", 1, 1), -1);
    ::signal(SIGPIPE, old);

    const int before = UniqueFd(::dup(0)).get();  // the next free descriptor
    EXPECT_EQ(tcp_listen("localhost", 0, 0), -1);  // no name resolution
    UniqueFd ls(tcp_listen("127.0.0.1", 0, 0));
    struct sockaddr_in sa = {};
    socklen_t len = sizeof(sa);
    ASSERT_EQ(::getsockname(ls.get(), reinterpret_cast<sockaddr*>(&sa), &len), 0);
    EXPECT_EQ(tcp_listen("127.0.0.1", ntohs(sa.sin_port), 5), -1);  // the same port
    EXPECT_EQ(UniqueFd(::dup(0)).get(), before + 1);
    const std::string warn = "warn: fd_open(): open(" + f + "): Interrupted system call";
    EXPECT_EQ(log.lines(),
              (Lines{warn, warn, "error: fd_close(): close(" + std::to_string(fd) + "): Bad file descriptor",
                     "error: buf_rx(): read(7): EOF", "error: buf_tx(): write(1): Broken pipe",
                     "error: tcp_listen(): inet_aton(localhost): failed",
                     "error: tcp_listen(): bind(127.0.0.1:" + std::to_string(ntohs(sa.sin_port)) +
                         "): Address already in use"}));
}

}  // namespace
}  // namespace corvald
