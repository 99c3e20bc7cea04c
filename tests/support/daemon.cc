#include "support/daemon.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace corvald::test {

namespace {

using Clock = std::chrono::steady_clock;

bool bindable(int type, uint32_t addr, int port) {
    int so = ::socket(AF_INET, type, 0);
    if (so < 0) return false;
    int one = 1;
    if (type == SOCK_STREAM) ::setsockopt(so, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    struct sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(addr);
    sa.sin_port = htons(static_cast<uint16_t>(port));
    bool ok = ::bind(so, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) == 0;
    ::close(so);
    return ok;
}

// "ident[pid]: message" -> "message"; anything else is kept whole.
std::string strip_ident(const std::string& s) {
    size_t end = s.find("]: ");
    if (end == std::string::npos) return s;
    size_t open = s.rfind('[', end);
    if (open == std::string::npos || open + 1 == end) return s;
    for (size_t i = open + 1; i < end; ++i)
        if (s[i] < '0' || s[i] > '9') return s;
    return s.substr(end + 3);
}

}  // namespace

int free_port() {
    // Ports from the kernel's ephemeral range, kept apart between calls of
    // one process so that two daemons of one test never get the same one.
    static std::atomic<int> last{0};
    for (int tries = 0; tries < 1000; ++tries) {
        int so = ::socket(AF_INET, SOCK_DGRAM, 0);
        struct sockaddr_in sa = {};
        sa.sin_family = AF_INET;
        socklen_t len = sizeof(sa);
        ::bind(so, reinterpret_cast<sockaddr*>(&sa), sizeof(sa));
        ::getsockname(so, reinterpret_cast<sockaddr*>(&sa), &len);
        ::close(so);
        int port = ntohs(sa.sin_port);
        if (port == last.load()) continue;
        if (bindable(SOCK_STREAM, INADDR_LOOPBACK, port) && bindable(SOCK_DGRAM, INADDR_ANY, port)) {
            last = port;
            return port;
        }
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
    for (const char* name : {"local_nodes", "unicast_hosts"}) {
        if (read_file(dir / name) == "<missing>") dir.write(name, "");
    }
}

std::string TestConfig::write(const TempDir& dir, const std::string& name) const {
    std::string text;
    for (const auto& [k, v] : values) text += k + " = " + v + "\n";
    return dir.write(name, text);
}

bool syslog_available() {
    static int cached = -1;
    if (cached < 0) {
        pid_t pid = ::fork();
        if (pid == 0) _exit(::geteuid() == 0 && ::unshare(CLONE_NEWNS) == 0 ? 0 : 1);
        int st = 0;
        ::waitpid(pid, &st, 0);
        cached = WIFEXITED(st) && WEXITSTATUS(st) == 0;
    }
    return cached == 1;
}

Daemon::Daemon(const std::vector<std::string>& args, const TempDir& work, LogVia via) {
    std::string devroot;
    if (via == LogVia::Syslog) {
        if (!syslog_available()) throw std::runtime_error("syslog capture needs root and unshare");
        devroot = work / "dev";
        ::mkdir(devroot.c_str(), 0755);
        std::ofstream(devroot + "/null").flush();
        log_fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        struct sockaddr_un su = {};
        su.sun_family = AF_UNIX;
        std::string sock = devroot + "/log";
        if (sock.size() >= sizeof(su.sun_path)) throw std::runtime_error("socket path too long");
        std::strcpy(su.sun_path, sock.c_str());
        if (::bind(log_fd_, reinterpret_cast<sockaddr*>(&su), sizeof(su)) < 0)
            throw std::runtime_error("bind " + sock + ": " + std::strerror(errno));
    }

    int p[2];
    if (::pipe2(p, O_CLOEXEC) < 0) throw std::runtime_error("pipe");
    std::vector<std::string> argv_s = {CORVALD_BIN};
    argv_s.insert(argv_s.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : argv_s) argv.push_back(a.data());
    argv.push_back(nullptr);

    child_ = ::fork();
    if (child_ < 0) throw std::runtime_error("fork");
    if (child_ == 0) {
        ::dup2(p[1], 1);
        ::dup2(p[1], 2);
        if (!devroot.empty()) {
            // A private /dev holding only null and the test's log socket.
            std::string null = devroot + "/null";
            if (::unshare(CLONE_NEWNS) < 0 ||
                ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0 ||
                ::mount("/dev/null", null.c_str(), nullptr, MS_BIND, nullptr) < 0 ||
                ::mount(devroot.c_str(), "/dev", nullptr, MS_BIND | MS_REC, nullptr) < 0) {
                std::fprintf(stderr, "test runner: private /dev: %s\n", std::strerror(errno));
                _exit(127);
            }
        }
        ::execv(argv[0], argv.data());
        std::fprintf(stderr, "test runner: exec %s: %s\n", argv[0], std::strerror(errno));
        _exit(127);
    }
    ::close(p[1]);
    err_fd_ = p[0];
}

Daemon::~Daemon() {
    for (pid_t pid : detached_) ::kill(pid, SIGKILL);
    if (!exited_ && child_ > 0) {
        ::kill(child_, SIGKILL);
        ::waitpid(child_, nullptr, 0);
    }
    if (err_fd_ >= 0) ::close(err_fd_);
    if (log_fd_ >= 0) ::close(log_fd_);
}

void Daemon::take_stderr_bytes(const char* p, size_t n) {
    partial_.append(p, n);
    size_t nl;
    while ((nl = partial_.find('\n')) != std::string::npos) {
        std::string raw = partial_.substr(0, nl);
        partial_.erase(0, nl + 1);
        // With a log socket, messages arrive there with their priorities;
        // stderr then only carries what is written before the log is open.
        if (log_fd_ >= 0 && strip_ident(raw) != raw) continue;
        lines_.push_back({strip_ident(raw), -1, raw});
    }
}

void Daemon::take_syslog_datagram(const char* p, size_t n) {
    std::string raw(p, n);
    int pri = -1;
    if (raw.size() > 2 && raw[0] == '<') pri = std::atoi(raw.c_str() + 1) & 7;
    // "<pri>Mmm dd hh:mm:ss ident[pid]: message"
    size_t gt = raw.find('>');
    std::string rest = gt == std::string::npos ? raw : raw.substr(gt + 1);
    if (rest.size() > 16) rest = rest.substr(16);
    lines_.push_back({strip_ident(rest), pri, raw});
}

void Daemon::pump(std::chrono::milliseconds timeout) {
    struct pollfd pf[2];
    int n = 0;
    if (err_fd_ >= 0) pf[n++] = {err_fd_, POLLIN, 0};
    if (log_fd_ >= 0) pf[n++] = {log_fd_, POLLIN, 0};
    if (n == 0) {
        std::this_thread::sleep_for(std::min(timeout, std::chrono::milliseconds(5)));
        return;
    }
    if (::poll(pf, n, static_cast<int>(timeout.count())) <= 0) return;
    char buf[65536];
    for (int i = 0; i < n; ++i) {
        if (!(pf[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
        if (pf[i].fd == err_fd_) {
            ssize_t r = ::read(err_fd_, buf, sizeof(buf));
            if (r > 0) {
                take_stderr_bytes(buf, static_cast<size_t>(r));
            } else {
                if (!partial_.empty()) take_stderr_bytes("\n", 1);
                ::close(err_fd_);
                err_fd_ = -1;
            }
        } else {
            ssize_t r;
            while ((r = ::recv(log_fd_, buf, sizeof(buf), MSG_DONTWAIT)) > 0)
                take_syslog_datagram(buf, static_cast<size_t>(r));
        }
    }
}

std::optional<LoggedLine> Daemon::wait_for(const std::string& needle, std::chrono::milliseconds timeout) {
    return wait_for_after(0, needle, timeout);
}

std::optional<LoggedLine> Daemon::wait_for_after(size_t mark, const std::string& needle,
                                              std::chrono::milliseconds timeout) {
    auto deadline = Clock::now() + timeout;
    size_t i = mark;
    for (;;) {
        for (; i < lines_.size(); ++i)
            if (lines_[i].message.find(needle) != std::string::npos) return lines_[i];
        auto now = Clock::now();
        if (now >= deadline) return std::nullopt;
        if (err_fd_ < 0 && log_fd_ < 0 && exited_) return std::nullopt;
        pump(std::min(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now),
                      std::chrono::milliseconds(50)));
    }
}

size_t Daemon::mark() {
    pump(std::chrono::milliseconds(0));
    return lines_.size();
}

const std::vector<LoggedLine>& Daemon::lines() {
    pump(std::chrono::milliseconds(0));
    return lines_;
}

std::vector<std::string> Daemon::matching(const std::string& needle) {
    std::vector<std::string> out;
    for (const auto& l : lines())
        if (l.message.find(needle) != std::string::npos) out.push_back(l.message);
    return out;
}

std::optional<pid_t> Daemon::wait_pid_file(const std::string& path,
                                           std::chrono::milliseconds timeout) {
    auto deadline = Clock::now() + timeout;
    while (Clock::now() < deadline) {
        std::string text = read_file(path);
        if (text.size() > 1 && text.back() == '\n') {
            pid_t pid = std::stoi(text);
            if (pid != child_) detached_.push_back(pid);
            return pid;
        }
        pump(std::chrono::milliseconds(5));
    }
    return std::nullopt;
}

bool Daemon::wait_gone(pid_t pid, std::chrono::milliseconds timeout) {
    std::string stat = "/proc/" + std::to_string(pid) + "/stat";
    auto deadline = Clock::now() + timeout;
    while (Clock::now() < deadline) {
        std::string text = read_file(stat);
        size_t paren = text.rfind(')');
        if (text == "<missing>" || (paren != std::string::npos && paren + 2 < text.size() &&
                                    text[paren + 2] == 'Z'))
            return true;
        pump(std::chrono::milliseconds(5));
    }
    return false;
}

bool Daemon::wait_handler(int sig, pid_t pid, std::chrono::milliseconds timeout) {
    std::string status = "/proc/" + std::to_string(pid ? pid : child_) + "/status";
    auto deadline = Clock::now() + timeout;
    while (Clock::now() < deadline) {
        std::ifstream in(status);
        std::string line;
        while (std::getline(in, line)) {
            if (line.rfind("SigCgt:", 0) != 0) continue;
            unsigned long long mask = std::stoull(line.substr(7), nullptr, 16);
            if (mask & (1ULL << (sig - 1))) return true;
        }
        pump(std::chrono::milliseconds(5));
    }
    return false;
}

void Daemon::signal(int sig, pid_t pid) { ::kill(pid ? pid : child_, sig); }

std::optional<int> Daemon::wait_exit(std::chrono::milliseconds timeout) {
    auto deadline = Clock::now() + timeout;
    while (!exited_) {
        int st;
        pid_t r = ::waitpid(child_, &st, WNOHANG);
        if (r == child_) {
            exited_ = true;
            status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
            break;
        }
        if (Clock::now() >= deadline) return std::nullopt;
        pump(std::chrono::milliseconds(10));
    }
    // Whatever the child wrote before it ended.
    while (err_fd_ >= 0 && Clock::now() < deadline) pump(std::chrono::milliseconds(50));
    pump(std::chrono::milliseconds(0));
    return status_;
}

RunResult run_to_exit(const std::vector<std::string>& args, std::chrono::milliseconds timeout) {
    TempDir dir;
    Daemon d(args, dir);
    RunResult res;
    auto st = d.wait_exit(timeout);
    res.status = st ? *st : -1;
    for (const auto& l : d.lines()) res.err += l.raw + "\n";
    return res;
}

}  // namespace corvald::test
