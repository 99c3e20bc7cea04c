// Two hosts, each a network namespace of its own with one veth leg on a
// bridge in a third namespace (198.18.0.0/15). The test makes each host's
// socket inside its namespace exactly as the daemon sets its own up, joined
// to the same group; a datagram one sends to the group must reach the other
// and never come back to the sender.
//
// The namespaces are unnamed, each held by a child process that the test
// kills at its end and that the kernel kills when the test dies, so nothing
// outlives the test, whatever way it ends.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "net/socket.h"
#include "util/unique_fd.h"

namespace corvald {
namespace {

constexpr int kPort = 47123;  // any port: the namespaces are new and private
constexpr int kWaitMs = 20000;

UniqueFd netns_of(const std::string& proc) {
    return UniqueFd(::open(("/proc/" + proc + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC));
}

void reap(pid_t pid, int* status) {
    while (::waitpid(pid, status, 0) < 0 && errno == EINTR) {
    }
}

// Runs "ip <args>" quietly inside the network namespace of process `in`;
// its exit status, or -1 when it did not end normally.
int run_ip(pid_t in, const std::string& args) {
    pid_t pid = ::fork();
    if (pid == 0) {
        UniqueFd ns = netns_of(std::to_string(in));
        if (!ns || ::setns(ns.get(), CLONE_NEWNET) != 0) ::_exit(126);
        ::execl("/bin/sh", "sh", "-c", ("exec ip " + args + " >/dev/null 2>&1").c_str(), nullptr);
        ::_exit(127);
    }
    int status = -1;
    if (pid > 0) reap(pid, &status);
    return pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A child process holding a new network namespace. `answer` is "netns" once
// it exists, else the reason it does not.
struct Box {
    Box() {
        int res[2];
        if (::pipe2(res, O_CLOEXEC) != 0) return;
        const pid_t parent = ::getpid();
        pid = ::fork();
        if (pid == 0) {
            if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != parent) ::_exit(1);
            std::string r = ::unshare(CLONE_NEWNET) == 0 ? "netns" : "unshare: ";
            if (r != "netns") r += std::strerror(errno);
            if (::write(res[1], r.data(), r.size()) < 0 || r != "netns") ::_exit(1);
            for (;;) ::pause();
        }
        ::close(res[1]);
        char buf[128];
        ssize_t n = pid > 0 ? ::read(res[0], buf, sizeof buf) : -1;
        answer = n > 0 ? std::string(buf, static_cast<size_t>(n)) : "no child";
        ::close(res[0]);
    }
    ~Box() {
        if (pid <= 0) return;
        ::kill(pid, SIGKILL);
        reap(pid, nullptr);
    }
    pid_t pid = -1;
    std::string answer;
};

// A socket made in the namespace of process `in` the way the daemon makes
// its own on "eth1", joined to group; -1 on failure.
int host_socket(pid_t in, const Host& group) {
    UniqueFd home = netns_of("thread-self"), ns = netns_of(std::to_string(in));
    if (!home || !ns || ::setns(ns.get(), CLONE_NEWNET) != 0) return -1;
    struct sockaddr_in if_addr = {}, bind_addr = {};
    bind_addr.sin_family = AF_INET;
    bind_addr.sin_port = htons(kPort);
    UniqueFd so;
    if (get_interface_addr("eth1", &if_addr) == 0) so.reset(open_socket(&bind_addr));
    if (so && join_mcast_groups(so.get(), &if_addr, HostList{group}) < 0) so.reset();
    // The rest of the test binary must run where it started.
    if (::setns(home.get(), CLONE_NEWNET) != 0) std::abort();
    return so.release();
}

// The next datagram queued on so within wait_ms; "" when none came.
std::string next_datagram(const UniqueFd& so, int wait_ms) {
    struct pollfd p = {so.get(), POLLIN, 0};
    char buf[256];
    ssize_t n = ::poll(&p, 1, wait_ms) == 1 ? ::recv(so.get(), buf, sizeof buf, 0) : -1;
    return n < 0 ? "" : std::string(buf, static_cast<size_t>(n));
}

TEST(MulticastHosts, GroupDatagramReachesTheOtherHostNotTheSender) {
    Box bridge, a, b;
    if (bridge.answer != "netns") {
        GTEST_SKIP() << "no network namespace for the test: " << bridge.answer;
    }
    ASSERT_EQ(a.answer, "netns");
    ASSERT_EQ(b.answer, "netns");
    if (run_ip(bridge.pid, "-V") != 0) GTEST_SKIP() << "the ip tool (iproute2) is not installed";

    ASSERT_EQ(run_ip(bridge.pid, "link add br0 type bridge mcast_snooping 0"), 0);
    ASSERT_EQ(run_ip(bridge.pid, "link set br0 up"), 0);
    for (auto [host, addr] : {std::pair{&a, "198.18.0.1/15"}, {&b, "198.18.0.2/15"}}) {
        const std::string pid = std::to_string(host->pid), leg = "leg" + pid;
        ASSERT_EQ(run_ip(bridge.pid, "link add " + leg + " type veth peer name eth1 netns " + pid),
                  0);
        ASSERT_EQ(run_ip(bridge.pid, "link set " + leg + " master br0 up"), 0);
        ASSERT_EQ(run_ip(host->pid, std::string("addr add ") + addr + " dev eth1"), 0);
        ASSERT_EQ(run_ip(host->pid, "link set eth1 up"), 0);
    }

    Host group;
    ASSERT_EQ(HostInit(&group, "239.18.0.77", kPort), 0);
    UniqueFd sa(host_socket(a.pid, group)), sb(host_socket(b.pid, group));
    ASSERT_TRUE(sa && sb);
    const auto* to = reinterpret_cast<const struct sockaddr*>(&group.sa);
    ASSERT_EQ(::sendto(sa.get(), "from-a", 6, 0, to, sizeof group.sa), 6);
    EXPECT_EQ(next_datagram(sb, kWaitMs), "from-a");
    ASSERT_EQ(::sendto(sb.get(), "from-b", 6, 0, to, sizeof group.sa), 6);
    // With loopback on, A's own datagram would be first in its queue.
    EXPECT_EQ(next_datagram(sa, kWaitMs), "from-b");
    EXPECT_EQ(next_datagram(sa, 0), "");
    EXPECT_EQ(next_datagram(sb, 0), "");
}

}  // namespace
}  // namespace corvald
