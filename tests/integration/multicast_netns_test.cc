// Two hosts, each a process in a network namespace of its own with one veth
// leg on a bridge that lives in the namespace of a third process
// (198.18.0.0/15). Each host sets its socket up exactly as the daemon does
// and joins the same group; a datagram one sends to the group must reach the
// other and never come back to the sender.
//
// The namespaces are unnamed: each lives as long as its process, and every
// process ends when the test closes its command pipe (or dies), so nothing
// outlives the test, whatever way it ends.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "daemon/config.h"
#include "net/socket.h"
#include "util/unique_fd.h"

namespace corvald {
namespace {

constexpr int kPort = 47123;  // any port: the namespaces are new and private
constexpr int kWaitMs = 20000;

// Runs `ip args...` quietly, inside the network namespace of process `in`
// (the test's own when 0); its exit status, or -1 when it cannot run.
int run_ip(pid_t in, const std::vector<std::string>& args) {
    pid_t pid = ::fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        if (in != 0) {
            int nsfd = ::open(("/proc/" + std::to_string(in) + "/ns/net").c_str(), O_RDONLY);
            if (nsfd < 0 || ::setns(nsfd, CLONE_NEWNET) != 0) ::_exit(126);
        }
        int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, STDOUT_FILENO);
        ::dup2(null, STDERR_FILENO);
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>("ip"));
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        ::execvp("ip", argv.data());
        ::_exit(127);
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The host side: sets the socket up like the daemon on "eth1" once told to
// ('G'), then obeys one-byte commands: 'S' send its tag to the group, 'W'
// wait for one datagram and report it, 'E' report whether nothing is queued.
// Ends at the end of its command pipe.
void serve_host(const std::string& group, const std::string& tag, int cmd_fd,
                void (*reply)(int, const std::string&), int res_fd) {
    char cmd;
    if (::read(cmd_fd, &cmd, 1) != 1 || cmd != 'G') return;
    struct sockaddr_in if_addr = {};
    struct sockaddr_in bind_addr = {};
    bind_addr.sin_family = AF_INET;
    bind_addr.sin_port = htons(kPort);
    cfg_bind_port = kPort;
    cfg_multicast_address = group;
    HostList groups;
    int so = -1;
    if (get_interface_addr("eth1", &if_addr) < 0 || (so = open_socket(&bind_addr)) < 0 ||
        parse_mcast_groups(&groups) < 0 || groups.size() != 1 ||
        join_mcast_groups(so, &if_addr, groups) < 0) {
        reply(res_fd, "setup failed");
        return;
    }
    reply(res_fd, "ready");
    while (::read(cmd_fd, &cmd, 1) == 1) {
        char buf[256];
        if (cmd == 'S') {
            const Host& g = groups[0];
            ssize_t n = ::sendto(so, tag.data(), tag.size(), 0,
                                 reinterpret_cast<const struct sockaddr*>(&g.sa), sizeof g.sa);
            reply(res_fd, n == static_cast<ssize_t>(tag.size()) ? "sent" : "send failed");
        } else if (cmd == 'W') {
            struct pollfd p = {so, POLLIN, 0};
            if (::poll(&p, 1, kWaitMs) != 1) {
                reply(res_fd, "timeout");
                continue;
            }
            ssize_t n = ::recv(so, buf, sizeof buf, 0);
            reply(res_fd, n < 0 ? "recv failed" : std::string(buf, static_cast<size_t>(n)));
        } else if (cmd == 'E') {
            ssize_t n = ::recv(so, buf, sizeof buf, MSG_DONTWAIT);
            reply(res_fd, n < 0 && errno == EAGAIN ? "empty" : "queued");
        }
    }
}

void write_line(int fd, const std::string& s) {
    std::string line = s + "\n";
    if (::write(fd, line.data(), line.size()) < 0) ::_exit(3);
}

// A child process in a new network namespace. The bridge's process only
// waits for the end of its pipe; a host's runs serve_host. The test's end
// kills and reaps the child if it is still running.
class Box {
public:
    // An empty tag makes the bridge's box.
    Box(const std::string& group, const std::string& tag) {
        int cmd[2], res[2];
        if (::pipe(cmd) != 0 || ::pipe(res) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            ::close(cmd[1]);
            ::close(res[0]);
            if (::unshare(CLONE_NEWNET) != 0) {
                write_line(res[1], std::string("unshare: ") + std::strerror(errno));
                ::_exit(1);
            }
            write_line(res[1], "netns");
            if (tag.empty()) {
                char c;
                while (::read(cmd[0], &c, 1) == 1) {
                }
            } else {
                serve_host(group, tag, cmd[0], write_line, res[1]);
            }
            ::_exit(0);
        }
        ::close(cmd[0]);
        ::close(res[1]);
        cmd_.reset(cmd[1]);
        res_.reset(res[0]);
    }
    ~Box() {
        if (pid_ <= 0) return;
        cmd_.reset();
        ::kill(pid_, SIGKILL);
        while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    pid_t pid() const { return pid_; }
    // Sends a command and returns the child's one-line answer ("" on error).
    std::string ask(char cmd) {
        if (::write(cmd_.get(), &cmd, 1) != 1) return "";
        return answer();
    }
    std::string answer() {
        std::string line;
        char c;
        for (;;) {
            struct pollfd p = {res_.get(), POLLIN, 0};
            if (::poll(&p, 1, kWaitMs + 5000) != 1 || ::read(res_.get(), &c, 1) != 1) return line;
            if (c == '\n') return line;
            line += c;
        }
    }

private:
    pid_t pid_ = -1;
    UniqueFd cmd_, res_;
};

TEST(MulticastHosts, GroupDatagramReachesTheOtherHostNotTheSender) {
    if (run_ip(0, {"-V"}) != 0) GTEST_SKIP() << "the ip tool (iproute2) is not installed";

    const std::string group = "239.18.0.77";
    Box bridge(group, "");
    Box a(group, "from-a");
    Box b(group, "from-b");
    const std::string first = bridge.answer();
    if (first != "netns") GTEST_SKIP() << "no network namespace for the test: " << first;
    ASSERT_EQ(a.answer(), "netns");
    ASSERT_EQ(b.answer(), "netns");

    const pid_t sw = bridge.pid();
    ASSERT_EQ(run_ip(sw, {"link", "add", "br0", "type", "bridge", "mcast_snooping", "0"}), 0);
    ASSERT_EQ(run_ip(sw, {"link", "set", "br0", "up"}), 0);
    const std::pair<Box*, std::string> hosts[] = {{&a, "198.18.0.1/15"}, {&b, "198.18.0.2/15"}};
    int leg = 0;
    for (const auto& [host, addr] : hosts) {
        const std::string port = "leg" + std::to_string(leg++);
        const std::string peer = std::to_string(host->pid());
        ASSERT_EQ(run_ip(sw, {"link", "add", port, "type", "veth", "peer", "name", "eth1",
                              "netns", peer}),
                  0);
        ASSERT_EQ(run_ip(sw, {"link", "set", port, "master", "br0"}), 0);
        ASSERT_EQ(run_ip(sw, {"link", "set", port, "up"}), 0);
        ASSERT_EQ(run_ip(host->pid(), {"addr", "add", addr, "dev", "eth1"}), 0);
        ASSERT_EQ(run_ip(host->pid(), {"link", "set", "eth1", "up"}), 0);
    }

    ASSERT_EQ(a.ask('G'), "ready");
    ASSERT_EQ(b.ask('G'), "ready");
    ASSERT_EQ(a.ask('S'), "sent");
    EXPECT_EQ(b.ask('W'), "from-a");
    ASSERT_EQ(b.ask('S'), "sent");
    // With loopback on, A's own datagram would be first in its queue.
    EXPECT_EQ(a.ask('W'), "from-b");
    EXPECT_EQ(a.ask('E'), "empty");
    EXPECT_EQ(b.ask('E'), "empty");
}

}  // namespace
}  // namespace corvald
