// Two hosts, each a network namespace with one veth leg on a bridge that
// lives in a third namespace (198.18.0.0/15). Each host sets its socket up
// exactly as the daemon does and joins the same group; a datagram one sends
// to the group must reach the other and never come back to the sender.
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
#include <cstdlib>
#include <string>
#include <vector>

#include "daemon/config.h"
#include "net/socket.h"
#include "util/unique_fd.h"

namespace corvald {
namespace {

constexpr int kPort = 47123;  // any port: the namespaces are new and private
constexpr int kWaitMs = 20000;

// Runs `ip args...` quietly; its exit status, or -1 when it cannot run.
int run_ip(const std::vector<std::string>& args) {
    pid_t pid = ::fork();
    if (pid < 0) return -1;
    if (pid == 0) {
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

// Owns the namespaces it made; deleting a namespace takes its links along.
class Lab {
public:
    ~Lab() {
        for (auto it = made_.rbegin(); it != made_.rend(); ++it) run_ip({"netns", "del", *it});
    }
    bool add_ns(const std::string& name) {
        if (run_ip({"netns", "add", name}) != 0) return false;
        made_.push_back(name);
        return true;
    }
    // Runs `ip -n ns args...`; true on success.
    bool in(const std::string& ns, std::vector<std::string> args) {
        args.insert(args.begin(), {"-n", ns});
        return run_ip(args) == 0;
    }

private:
    std::vector<std::string> made_;
};

// One host process: it enters its namespace, sets the socket up like the
// daemon and then obeys one-byte commands from the test:
//   'S' send its tag to the group, 'W' wait for one datagram and report it,
//   'E' report whether nothing is queued, 'Q' quit.
[[noreturn]] void host_main(const std::string& ns, const std::string& group, const char* tag,
                            int cmd_fd, int res_fd) {
    auto reply = [res_fd](const std::string& s) {
        std::string line = s + "\n";
        if (::write(res_fd, line.data(), line.size()) < 0) ::_exit(3);
    };
    int nsfd = ::open(("/var/run/netns/" + ns).c_str(), O_RDONLY);
    if (nsfd < 0 || ::setns(nsfd, CLONE_NEWNET) != 0) {
        reply("setns failed");
        ::_exit(1);
    }
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
        reply("setup failed");
        ::_exit(1);
    }
    reply("ready");
    char cmd;
    while (::read(cmd_fd, &cmd, 1) == 1) {
        char buf[256];
        if (cmd == 'S') {
            const Host& g = groups[0];
            ssize_t n = ::sendto(so, tag, std::strlen(tag), 0,
                                 reinterpret_cast<const struct sockaddr*>(&g.sa), sizeof g.sa);
            reply(n == static_cast<ssize_t>(std::strlen(tag)) ? "sent" : "send failed");
        } else if (cmd == 'W') {
            struct pollfd p = {so, POLLIN, 0};
            if (::poll(&p, 1, kWaitMs) != 1) {
                reply("timeout");
                continue;
            }
            ssize_t n = ::recv(so, buf, sizeof buf, 0);
            reply(n < 0 ? "recv failed" : std::string(buf, static_cast<size_t>(n)));
        } else if (cmd == 'E') {
            ssize_t n = ::recv(so, buf, sizeof buf, MSG_DONTWAIT);
            reply(n < 0 && errno == EAGAIN ? "empty" : "queued");
        } else {
            break;
        }
    }
    ::_exit(0);
}

// The test's end of one host process; kills and reaps it if still running.
class Host2 {
public:
    Host2(const std::string& ns, const std::string& group, const char* tag) {
        int cmd[2], res[2];
        if (::pipe(cmd) != 0 || ::pipe(res) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            ::close(cmd[1]);
            ::close(res[0]);
            host_main(ns, group, tag, cmd[0], res[1]);
        }
        ::close(cmd[0]);
        ::close(res[1]);
        cmd_.reset(cmd[1]);
        res_.reset(res[0]);
    }
    ~Host2() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    // Sends a command and returns the host's one-line answer ("" on error).
    std::string ask(char cmd) {
        if (cmd != 0 && ::write(cmd_.get(), &cmd, 1) != 1) return "";
        return answer();
    }
    std::string answer() {
        std::string line;
        char c;
        for (;;) {
            struct pollfd p = {res_.get(), POLLIN, 0};
            if (::poll(&p, 1, kWaitMs + 5000) != 1 || ::read(res_.get(), &c, 1) != 1) return "";
            if (c == '\n') return line;
            line += c;
        }
    }

private:
    pid_t pid_ = -1;
    UniqueFd cmd_, res_;
};

TEST(MulticastHosts, GroupDatagramReachesTheOtherHostNotTheSender) {
    if (::geteuid() != 0) GTEST_SKIP() << "network namespaces need root";
    if (run_ip({"-V"}) != 0) GTEST_SKIP() << "the ip tool (iproute2) is not installed";

    const std::string tag = "cvp" + std::to_string(::getpid());
    const std::string sw = tag + "s", a = tag + "a", b = tag + "b";
    Lab lab;
    if (!lab.add_ns(sw)) GTEST_SKIP() << "cannot create network namespaces here";
    ASSERT_TRUE(lab.add_ns(a) && lab.add_ns(b));
    ASSERT_TRUE(lab.in(sw, {"link", "add", "br0", "type", "bridge", "mcast_snooping", "0"}));
    ASSERT_TRUE(lab.in(sw, {"link", "set", "br0", "up"}));
    const std::pair<std::string, std::string> hosts[] = {{a, "198.18.0.1/15"},
                                                         {b, "198.18.0.2/15"}};
    int leg = 0;
    for (const auto& [ns, addr] : hosts) {
        const std::string port = "leg" + std::to_string(leg++);
        ASSERT_TRUE(lab.in(sw, {"link", "add", port, "type", "veth", "peer", "name", "eth1",
                                "netns", ns}));
        ASSERT_TRUE(lab.in(sw, {"link", "set", port, "master", "br0"}));
        ASSERT_TRUE(lab.in(sw, {"link", "set", port, "up"}));
        ASSERT_TRUE(lab.in(ns, {"addr", "add", addr, "dev", "eth1"}));
        ASSERT_TRUE(lab.in(ns, {"link", "set", "eth1", "up"}));
    }

    const std::string group = "239.18.0.77";
    Host2 ha(a, group, "from-a");
    Host2 hb(b, group, "from-b");
    ASSERT_EQ(ha.answer(), "ready");
    ASSERT_EQ(hb.answer(), "ready");

    ASSERT_EQ(ha.ask('S'), "sent");
    EXPECT_EQ(hb.ask('W'), "from-a");
    ASSERT_EQ(hb.ask('S'), "sent");
    // With loopback on, A's own datagram would be first in its queue.
    EXPECT_EQ(ha.ask('W'), "from-b");
    EXPECT_EQ(ha.ask('E'), "empty");
    EXPECT_EQ(hb.ask('E'), "empty");
}

}  // namespace
}  // namespace corvald
