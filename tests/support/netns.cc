#include "support/netns.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "util/unique_fd.h"

namespace corvald::test {

Box::Box() {
    int res[2];
    if (::pipe2(res, O_CLOEXEC) != 0)
        return;
    const pid_t parent = ::getpid();
    pid = ::fork();
    if (pid == 0) {
        if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != parent)
            ::_exit(1);
        std::string r = ::unshare(CLONE_NEWNET) == 0 ? "netns" : "unshare: ";
        if (r != "netns")
            r += std::strerror(errno);
        if (::write(res[1], r.data(), r.size()) < 0 || r != "netns")
            ::_exit(1);
        for (;;) ::pause();
    }
    ::close(res[1]);
    char buf[128];
    ssize_t n = pid > 0 ? ::read(res[0], buf, sizeof buf) : -1;
    answer = n > 0 ? std::string(buf, static_cast<size_t>(n)) : "no child";
    ::close(res[0]);
}

Box::~Box() {
    if (pid <= 0)
        return;
    ::kill(pid, SIGKILL);
    while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

int run_ip(pid_t in, const std::string& args) {
    const int st = std::system(
        ("nsenter --net=/proc/" + std::to_string(in) + "/ns/net ip " + args + " >/dev/null 2>&1")
            .c_str());
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

bool make_bridge(const Box& bridge) {
    return run_ip(bridge.pid, "link add br0 type bridge mcast_snooping 0") == 0 &&
           run_ip(bridge.pid, "link set br0 up") == 0;
}

bool plug(const Box& bridge, const Box& host, const std::string& cidr) {
    const std::string pid = std::to_string(host.pid), leg = "leg" + pid;
    return run_ip(bridge.pid, "link add " + leg + " type veth peer name eth1 netns " + pid) == 0 &&
           run_ip(bridge.pid, "link set " + leg + " master br0 up") == 0 &&
           run_ip(host.pid, "addr add " + cidr + " dev eth1") == 0 &&
           run_ip(host.pid, "link set eth1 up") == 0 && run_ip(host.pid, "link set lo up") == 0;
}

bool in_netns(pid_t in, const std::function<void()>& fn) {
    auto ns_of = [](const std::string& proc) {
        return UniqueFd(::open(("/proc/" + proc + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC));
    };
    UniqueFd home = ns_of("thread-self"), ns = ns_of(std::to_string(in));
    if (!home || !ns || ::setns(ns.get(), CLONE_NEWNET) != 0)
        return false;
    fn();
    // The rest of the test binary must run where it started.
    if (::setns(home.get(), CLONE_NEWNET) != 0)
        std::abort();
    return true;
}

}  // namespace corvald::test
