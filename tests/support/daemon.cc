#include "support/daemon.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <stdexcept>

#include "util/unique_fd.h"

namespace corvald::test {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Binds a socket of type to addr:port (port 0: the kernel picks one); the
// port it got, or -1. Only the TCP probe may reuse the address (a listener
// of an earlier test may linger in TIME_WAIT); the UDP one must not, or it
// would share a port with a running daemon, which sets SO_REUSEADDR.
int bound_port(int type, uint32_t addr, int port) {
    UniqueFd so(::socket(AF_INET, type, 0));
    int one = 1;
    if (type == SOCK_STREAM)
        ::setsockopt(so.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    struct sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(addr);
    sa.sin_port = htons(static_cast<uint16_t>(port));
    socklen_t len = sizeof(sa);
    auto* p = reinterpret_cast<sockaddr*>(&sa);
    if (!so || ::bind(so.get(), p, len) < 0 || ::getsockname(so.get(), p, &len) < 0)
        return -1;
    return ntohs(sa.sin_port);
}

// "ident[pid]: message" -> "message"; anything else is kept whole.
std::string strip_ident(const std::string& s) {
    size_t end = s.find("]: "), open = s.rfind('[', end);
    if (end == std::string::npos || open == std::string::npos || open + 1 == end ||
        s.find_first_not_of("0123456789", open + 1) != end)
        return s;
    return s.substr(end + 3);
}

}  // namespace

int free_port() {
    // Ports from the kernel's ephemeral range, never the same twice in one
    // process: daemons of one test may not have bound theirs yet.
    static std::set<int> given;
    for (int tries = 0; tries < 1000; ++tries) {
        int port = bound_port(SOCK_DGRAM, INADDR_ANY, 0);
        if (port > 0 && bound_port(SOCK_STREAM, INADDR_LOOPBACK, port) == port &&
            given.insert(port).second)
            return port;
    }
    throw std::runtime_error("no free port");
}

TestConfig::TestConfig(const TempDir& dir) {
    values = {
        {"work_directory", dir / "db"},
        {"pid_file", dir / "corvald.pid"},
        {"local_nodes", dir / "local_nodes"},
        {"unicast_hosts", dir / "unicast_hosts"},
        {"unicast_mode", "1"},
        {"bind_interface", "lo"},
        {"bind_port", std::to_string(free_port())},
        {"ctrl_port", std::to_string(free_port())},
        {"fence_check", dir / "fencecheck"},
    };
    for (const char* name : {"local_nodes", "unicast_hosts"})
        if (read_file(dir / name) == "<missing>")
            dir.write(name, "");
}

std::string TestConfig::write(const TempDir& dir, const std::string& name) const {
    std::string text;
    for (const auto& [k, v] : values) text += k + " = " + v + "\n";
    return dir.write(name, text);
}

bool syslog_available() {
    // The runner's private /dev needs root, a mount namespace and a "/" that
    // can be made private there (not so inside a chroot): tried in a child.
    static const bool ok = [] {
        const pid_t pid = ::fork();
        if (pid == 0)
            _exit(::geteuid() == 0 && ::unshare(CLONE_NEWNS) == 0 &&
                          ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0
                      ? 0
                      : 1);
        int st = 1;
        return pid > 0 && ::waitpid(pid, &st, 0) == pid && st == 0;
    }();
    return ok;
}

Daemon::Daemon(const std::vector<std::string>& args, const TempDir& work, LogVia via)
    : work_(work.path()) {
    std::string devroot = work / "dev";
    if (via == LogVia::Syslog) {
        if (!syslog_available())
            throw std::runtime_error("syslog capture needs root and unshare");
        ::mkdir(devroot.c_str(), 0755);
        work.write("dev/null", "");
        log_fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        struct sockaddr_un su = {};
        su.sun_family = AF_UNIX;
        std::string sock = devroot + "/log";
        if (sock.size() >= sizeof(su.sun_path))
            throw std::runtime_error("socket path too long");
        std::strcpy(su.sun_path, sock.c_str());
        if (::bind(log_fd_, reinterpret_cast<sockaddr*>(&su), sizeof(su)) < 0)
            throw std::runtime_error("bind " + sock + ": " + std::strerror(errno));
    }
    int p[2];
    if (::pipe2(p, O_CLOEXEC) < 0)
        throw std::runtime_error("pipe");
    std::vector<char*> argv = {const_cast<char*>(CORVALD_BIN)};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);

    child_ = ::fork();
    if (child_ < 0)
        throw std::runtime_error("fork");
    if (child_ == 0) {
        // A foreground daemon dies with the test process, even one that
        // crashed. (A detached one outlives it: its pid file holds the pid.)
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::dup2(p[1], 1);
        ::dup2(p[1], 2);
        // A private /dev holding only null and the test's log socket.
        if (via == LogVia::Syslog &&
            (::unshare(CLONE_NEWNS) < 0 ||
             ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0 ||
             ::mount("/dev/null", (devroot + "/null").c_str(), nullptr, MS_BIND, nullptr) < 0 ||
             ::mount(devroot.c_str(), "/dev", nullptr, MS_BIND | MS_REC, nullptr) < 0)) {
            std::fprintf(stderr, "test runner: private /dev: %s\n", std::strerror(errno));
            _exit(127);
        }
        ::execv(argv[0], argv.data());
        std::fprintf(stderr, "test runner: exec %s: %s\n", argv[0], std::strerror(errno));
        _exit(127);
    }
    ::close(p[1]);
    err_fd_ = p[0];
}

Daemon::~Daemon() {
    // Whatever runs inside the work directory is this run's: a detached
    // daemon too, whose pid the test may never have read.
    namespace fs = std::filesystem;
    std::error_code ec, none;
    for (fs::directory_iterator it("/proc", ec); !ec && it != fs::directory_iterator();
         it.increment(ec))
        if (fs::read_symlink(it->path() / "cwd", none).string().starts_with(work_ + "/"))
            ::kill(std::atoi(it->path().filename().c_str()), SIGKILL);
    if (!exited_ && child_ > 0) {
        ::kill(child_, SIGKILL);
        ::waitpid(child_, nullptr, 0);
    }
    ::close(err_fd_);  // -1 when closed already or never opened: harmless
    ::close(log_fd_);
}

void Daemon::take_stderr_bytes(const char* p, size_t n) {
    partial_.append(p, n);
    for (size_t nl; (nl = partial_.find('\n')) != std::string::npos; partial_.erase(0, nl + 1)) {
        std::string raw = partial_.substr(0, nl), message = strip_ident(raw);
        // With a log socket, messages arrive there with their priorities;
        // stderr then only carries what is written before the log is open.
        if (log_fd_ < 0 || message == raw)
            lines_.push_back({message, raw});
    }
}

void Daemon::pump(milliseconds timeout) {
    struct pollfd pf[2] = {{err_fd_, POLLIN, 0}, {log_fd_, POLLIN, 0}};
    if (::poll(pf, 2, static_cast<int>(timeout.count())) <= 0)
        return;
    char buf[65536];
    if (pf[0].revents != 0) {
        ssize_t r = ::read(err_fd_, buf, sizeof(buf));
        if (r > 0) {
            take_stderr_bytes(buf, static_cast<size_t>(r));
        } else {
            if (!partial_.empty())
                take_stderr_bytes("\n", 1);
            ::close(err_fd_);
            err_fd_ = -1;
        }
    }
    // "<pri>Mmm dd hh:mm:ss ident[pid]: message"
    for (ssize_t r;
         pf[1].revents != 0 && (r = ::recv(log_fd_, buf, sizeof(buf), MSG_DONTWAIT)) > 0;) {
        const std::string raw(buf, static_cast<size_t>(r));
        lines_.push_back({strip_ident(raw), raw});
    }
}

std::optional<LoggedLine> Daemon::wait_for_after(size_t mark, const std::string& needle,
                                                 milliseconds timeout) {
    auto deadline = Clock::now() + timeout;
    for (size_t i = mark;; pump(milliseconds(50))) {
        for (; i < lines_.size(); ++i)
            if (lines_[i].message.find(needle) != std::string::npos)
                return lines_[i];
        if (Clock::now() >= deadline || (err_fd_ < 0 && log_fd_ < 0 && exited_))
            return {};
    }
}

std::vector<std::string> Daemon::matching(const std::string& needle, size_t from) {
    std::vector<std::string> out;
    for (size_t i = from; i < lines().size(); ++i)
        if (lines_[i].message.find(needle) != std::string::npos)
            out.push_back(lines_[i].message);
    return out;
}

// Runs step() between checks until done() holds; false if the time runs out first.
template <class Done, class Step>
bool until(milliseconds timeout, Done done, Step step) {
    for (auto deadline = Clock::now() + timeout; !done(); step())
        if (Clock::now() >= deadline)
            return false;
    return true;
}

std::optional<pid_t> Daemon::wait_pid_file(const std::string& path, milliseconds timeout) {
    std::string text;
    auto complete = [&] {  // digits and a line feed: not a stale file, nor half written
        text = read_file(path);
        return text.size() > 1 && text.find_first_not_of("0123456789") == text.size() - 1 &&
               text.back() == '\n';
    };
    if (!until(timeout, complete, [&] { pump(milliseconds(5)); }))
        return std::nullopt;
    return std::stoi(text);
}

bool Daemon::wait_gone(pid_t pid, milliseconds timeout) {
    // The state letter follows the command name's closing parenthesis.
    std::string stat = "/proc/" + std::to_string(pid) + "/stat";
    auto gone = [&] {
        std::string text = read_file(stat);
        size_t paren = text.rfind(')');
        return text == "<missing>" ||
               (paren != std::string::npos && text.compare(paren, 3, ") Z") == 0);
    };
    return until(timeout, gone, [&] { pump(milliseconds(5)); });
}

bool Daemon::wait_handler(int sig, pid_t pid, milliseconds timeout) {
    std::string status = "/proc/" + std::to_string(pid ? pid : child_) + "/status";
    auto caught = [&] {
        std::string text = read_file(status);
        size_t at = text.find("SigCgt:");
        return at != std::string::npos &&
               (std::stoull(text.substr(at + 7), nullptr, 16) >> (sig - 1)) & 1;
    };
    return until(timeout, caught, [&] { pump(milliseconds(5)); });
}

std::optional<int> Daemon::wait_exit(milliseconds timeout) {
    auto deadline = Clock::now() + timeout;
    if (!exited_) {
        int st = 0;
        auto reaped = [&] { return ::waitpid(child_, &st, WNOHANG) == child_; };
        if (!until(timeout, reaped, [&] { pump(milliseconds(10)); }))
            return std::nullopt;
        exited_ = true;
        status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    }
    // Whatever the child wrote before it ended.
    while (err_fd_ >= 0 && Clock::now() < deadline) pump(milliseconds(50));
    pump(milliseconds(0));
    return status_;
}

}  // namespace corvald::test
