// Receive rate of the daemon's main loop next to a bare recvfrom loop, and
// what the idle daemon costs.
//
//   bench_controller_rx [seconds]     (default 3 seconds per flood)
//
// A flooding child process sends 207-byte datagrams of type 5 (unknown to
// the daemon) from 127.0.0.3 as fast as it can, first to a bare recvfrom
// loop of this program, then to a real corvald in unicast mode on lo. The
// daemon's rate is counted from its own statistics lines (stats_interval 1):
// the growth of the RX ALL total between the first and the last report of
// the flood, over the time between their arrivals. Every datagram makes the
// daemon log one error line ("Received unknown header type 5"), so its rate
// includes one system-logger message per datagram, as it would in service.
//
// The daemon logs to a /dev/log of the benchmark's own: it runs in a private
// mount namespace whose /dev holds only null and the benchmark's socket
// (needs root). Where that cannot be made, it runs with -d and its standard
// error on a pipe instead, and the line "log via" says so.
//
// After the flood the daemon is left idle and the benchmark prints its
// wake-ups per second (context switches from /proc/<pid>/status) and its
// resident size.
#include <arpa/inet.h>
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

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kDatagram = 207;
constexpr size_t kBuffer = 65536;  // the daemon's default msg_buffer_size

[[noreturn]] void die(const char* what) {
    std::fprintf(stderr, "bench_controller_rx: %s: %s\n", what, std::strerror(errno));
    std::exit(1);
}

double seconds_since(Clock::time_point t) {
    return std::chrono::duration<double>(Clock::now() - t).count();
}

int udp_socket(const char* addr, int port) {
    int so = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (so < 0) die("socket");
    struct sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    if (::inet_pton(AF_INET, addr, &sa.sin_addr) != 1) die("inet_pton");
    if (::bind(so, reinterpret_cast<sockaddr*>(&sa), sizeof sa) < 0) die("bind");
    return so;
}

int bound_port(int so) {
    struct sockaddr_in sa = {};
    socklen_t len = sizeof sa;
    if (::getsockname(so, reinterpret_cast<sockaddr*>(&sa), &len) < 0) die("getsockname");
    return ntohs(sa.sin_port);
}

// A port free for UDP on any address and TCP on 127.0.0.1 when asked.
int free_port() {
    int so = udp_socket("0.0.0.0", 0);
    int port = bound_port(so);
    ::close(so);
    return port;
}

// A child that sends type-5 datagrams to 127.0.0.1:port until killed.
pid_t start_flood(int port) {
    pid_t pid = ::fork();
    if (pid < 0) die("fork");
    if (pid > 0) return pid;
    int so = udp_socket("127.0.0.3", 0);
    struct sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(static_cast<uint16_t>(port));
    char msg[kDatagram] = {};
    msg[2] = 5;
    for (;;) ::sendto(so, msg, sizeof msg, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
}

void stop_child(pid_t pid) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
}

// Datagrams per second a bare blocking recvfrom loop takes in `secs`.
double bare_rate(double secs) {
    int so = udp_socket("127.0.0.1", 0);
    struct timeval tv = {0, 100000};
    ::setsockopt(so, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    std::vector<char> buf(kBuffer);
    pid_t flood = start_flood(bound_port(so));
    // Let the sender get going, as the daemon's first report does below.
    auto warm = Clock::now();
    while (seconds_since(warm) < 0.5) ::recv(so, buf.data(), buf.size(), 0);
    long long n = 0;
    auto t0 = Clock::now();
    while (seconds_since(t0) < secs) {
        struct sockaddr_in from;
        socklen_t fromlen = sizeof from;
        if (::recvfrom(so, buf.data(), buf.size(), 0, reinterpret_cast<sockaddr*>(&from),
                       &fromlen) == static_cast<ssize_t>(kDatagram))
            ++n;
    }
    double rate = static_cast<double>(n) / seconds_since(t0);
    stop_child(flood);
    ::close(so);
    return rate;
}

// One statistics report as it arrived.
struct Report {
    Clock::time_point at;
    long long all_long;
};

class Daemon {
public:
    Daemon() {
        char templ[] = "/tmp/bench-controller-XXXXXX";
        if (::mkdtemp(templ) == nullptr) die("mkdtemp");
        dir_ = templ;
        port_ = free_port();
        write(dir_ + "/local_nodes", "");
        write(dir_ + "/unicast_hosts", "");
        conf_ = dir_ + "/corvald.conf";
        write(conf_, "work_directory = " + dir_ + "/db\npid_file = " + dir_ +
                         "/corvald.pid\nlocal_nodes = " + dir_ + "/local_nodes\nunicast_hosts = " +
                         dir_ + "/unicast_hosts\nunicast_mode = 1\nbind_interface = lo\nbind_port = " +
                         std::to_string(port_) + "\nctrl_port = " + std::to_string(free_port()) +
                         "\nstats_interval = 1\n");
        start();
    }
    ~Daemon() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            for (int i = 0; i < 200 && ::kill(pid_, 0) == 0; ++i) reap(10);
        }
        if (log_fd_ >= 0) ::close(log_fd_);
        std::string cmd = "rm -rf '" + dir_ + "'";
        if (std::system(cmd.c_str()) != 0) std::fprintf(stderr, "could not remove %s\n", dir_.c_str());
    }

    int port() const { return port_; }
    pid_t pid() const { return pid_; }
    const char* via() const { return syslog_ ? "own /dev/log" : "stderr pipe (-d)"; }

    // Reads the log for up to `secs`, keeping the RX reports. Log messages
    // are taken in batches, so the reader, which shares the two cores with
    // the sender and the daemon, costs as little as it can.
    void pump(double secs) {
        constexpr unsigned kBatch = 64;
        static char bufs[kBatch][1024];
        struct iovec iov[kBatch];
        struct mmsghdr msgs[kBatch];
        auto t0 = Clock::now();
        while (seconds_since(t0) < secs) {
            struct pollfd pf = {log_fd_, POLLIN, 0};
            if (::poll(&pf, 1, 50) <= 0) continue;
            if (!syslog_) {
                ssize_t n = ::read(log_fd_, bufs[0], sizeof bufs[0]);
                if (n > 0) take(bufs[0], static_cast<size_t>(n));
                continue;
            }
            std::memset(msgs, 0, sizeof msgs);
            for (unsigned i = 0; i < kBatch; ++i) {
                iov[i] = {bufs[i], sizeof bufs[i]};
                msgs[i].msg_hdr.msg_iov = &iov[i];
                msgs[i].msg_hdr.msg_iovlen = 1;
            }
            int got = ::recvmmsg(log_fd_, msgs, kBatch, MSG_DONTWAIT, nullptr);
            for (int i = 0; i < got; ++i) take(bufs[i], msgs[i].msg_len);
        }
    }
    std::vector<Report> reports;

    // Waits for the first statistics report.
    void wait_ready() {
        auto t0 = Clock::now();
        while (reports.empty() && seconds_since(t0) < 30) pump(0.1);
        if (reports.empty()) {
            std::fprintf(stderr, "bench_controller_rx: the daemon sent no statistics\n");
            std::exit(1);
        }
    }

private:
    static void write(const std::string& path, const std::string& text) {
        std::ofstream out(path);
        out << text;
        if (!out) die(path.c_str());
    }

    void reap(int ms) {
        ::waitpid(-1, nullptr, WNOHANG);
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    }

    // Both log forms hold "stats(): RX: ALL=<short>/<long>"; a syslog
    // datagram is one message, a pipe read may cut one, so keep the rest.
    void take(const char* p, size_t n) {
        if (syslog_) {
            scan(std::string_view(p, n));
            return;
        }
        partial_.append(p, n);
        size_t nl;
        while ((nl = partial_.find('\n')) != std::string::npos) {
            scan(std::string_view(partial_).substr(0, nl));
            partial_.erase(0, nl + 1);
        }
    }
    void scan(std::string_view line) {
        size_t at = line.find("stats(): RX: ALL=");
        if (at == std::string_view::npos) return;
        size_t slash = line.find('/', at);
        if (slash == std::string_view::npos) return;
        std::string rest(line.substr(slash + 1, 24));
        reports.push_back({Clock::now(), std::atoll(rest.c_str())});
    }

    void start() {
        std::string devroot = dir_ + "/dev";
        ::mkdir(devroot.c_str(), 0755);
        write(devroot + "/null", "");
        int logso = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        struct sockaddr_un su = {};
        su.sun_family = AF_UNIX;
        std::string sock = devroot + "/log";
        std::snprintf(su.sun_path, sizeof su.sun_path, "%s", sock.c_str());
        if (logso < 0 || ::bind(logso, reinterpret_cast<sockaddr*>(&su), sizeof su) < 0)
            die("log socket");
        int rcv = 4 << 20;
        ::setsockopt(logso, SOL_SOCKET, SO_RCVBUF, &rcv, sizeof rcv);

        int pipefd[2];
        if (::pipe2(pipefd, O_CLOEXEC) < 0) die("pipe");
        pid_t child = ::fork();
        if (child < 0) die("fork");
        if (child == 0) {
            // First try the private /dev; the exit status tells the parent
            // whether to fall back.
            std::string null = devroot + "/null";
            bool ns = ::unshare(CLONE_NEWNS) == 0 &&
                      ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                      ::mount("/dev/null", null.c_str(), nullptr, MS_BIND, nullptr) == 0 &&
                      ::mount(devroot.c_str(), "/dev", nullptr, MS_BIND | MS_REC, nullptr) == 0;
            if (ns) {
                ::execl(CORVALD_BIN, CORVALD_BIN, "-C", conf_.c_str(), static_cast<char*>(nullptr));
                ::_exit(127);
            }
            ::dup2(pipefd[1], 1);
            ::dup2(pipefd[1], 2);
            ::execl(CORVALD_BIN, CORVALD_BIN, "-d", "-C", conf_.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ::close(pipefd[1]);
        // Detached: the started process ends at once and the daemon writes
        // its pid file. In the fallback the started process is the daemon.
        std::string pidfile = dir_ + "/corvald.pid";
        long pid = 0;
        auto t0 = Clock::now();
        while (pid <= 0 && seconds_since(t0) < 20) {
            std::ifstream in(pidfile);
            std::string text;
            std::getline(in, text);
            if (!in.eof()) pid = std::atol(text.c_str());  // the line is complete
            else std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        if (pid <= 0) {
            std::fprintf(stderr, "bench_controller_rx: the daemon did not start\n");
            std::exit(1);
        }
        pid_ = static_cast<pid_t>(pid);
        syslog_ = pid_ != child;
        if (syslog_) {
            ::waitpid(child, nullptr, 0);
            ::close(pipefd[0]);
            log_fd_ = logso;
        } else {
            ::close(logso);
            log_fd_ = pipefd[0];
        }
    }

    std::string dir_, conf_, partial_;
    int port_ = 0;
    pid_t pid_ = -1;
    int log_fd_ = -1;
    bool syslog_ = false;
};

long status_field(pid_t pid, const char* key) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    size_t klen = std::strlen(key);
    while (std::getline(in, line))
        if (line.compare(0, klen, key) == 0 && line.size() > klen && line[klen] == ':')
            return std::atol(line.c_str() + klen + 1);
    return -1;
}

// Datagrams per second the daemon counts in its statistics during a flood
// of about `secs`.
double daemon_rate(Daemon& d, double secs) {
    pid_t flood = start_flood(d.port());
    // The first report of the flood may cover a stretch from before it
    // started, so the window starts at the first one after half a second.
    d.pump(0.5);
    size_t first = d.reports.size();
    d.pump(secs + 1.2);
    size_t last = d.reports.size();
    stop_child(flood);
    d.pump(0.5);  // the queue drains
    if (last < first + 2) {
        std::fprintf(stderr, "bench_controller_rx: too few reports during the flood\n");
        std::exit(1);
    }
    const Report& a = d.reports[first];
    const Report& b = d.reports[last - 1];
    double span = std::chrono::duration<double>(b.at - a.at).count();
    return static_cast<double>(b.all_long - a.all_long) / span;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    double secs = argc > 1 ? std::atof(argv[1]) : 2.0;
    if (secs < 2) secs = 2;
    constexpr int kRounds = 3;

    Daemon d;
    d.wait_ready();
    std::printf("controller receive, %zu-byte datagrams of type 5, %.1f s per flood\n", kDatagram,
                secs);
    std::printf("log via:               %s\n", d.via());
    // Alternating rounds, so that load from elsewhere on the machine falls
    // on both sides alike; the medians are compared.
    std::vector<double> bare, daemon;
    for (int r = 0; r < kRounds; ++r) {
        bare.push_back(bare_rate(secs));
        daemon.push_back(daemon_rate(d, secs));
        std::printf("round %d:               bare %10.0f /s   corvald %10.0f /s\n", r + 1,
                    bare.back(), daemon.back());
    }
    double mb = median(bare), md = median(daemon);
    std::printf("bare recvfrom loop:    %10.0f datagrams/s (median)\n", mb);
    std::printf("corvald (statistics):  %10.0f datagrams/s (median)\n", md);
    std::printf("ratio daemon/bare:     %10.2f   (target >= 0.50)\n", md / mb);

    // Idle: let the socket queue drain and the last report pass, then count.
    d.pump(1.5);
    long rss_after_flood = status_field(d.pid(), "VmRSS");
    const double idle = 5.0;
    long v0 = status_field(d.pid(), "voluntary_ctxt_switches");
    long n0 = status_field(d.pid(), "nonvoluntary_ctxt_switches");
    d.pump(idle);
    long v1 = status_field(d.pid(), "voluntary_ctxt_switches");
    long n1 = status_field(d.pid(), "nonvoluntary_ctxt_switches");
    long rss = status_field(d.pid(), "VmRSS");
    long hwm = status_field(d.pid(), "VmHWM");

    // A wake-up is a sleep that ended: one voluntary switch each. Involuntary
    // switches are preemptions by other processes while awake.
    std::printf("idle wake-ups:         %10.2f /s over %.0f s (plus %ld preemptions)"
                "   (target <= 1)\n",
                static_cast<double>(v1 - v0) / idle, idle, n1 - n0);
    std::printf("resident size idle:    %10ld KiB (after flood %ld KiB, peak %ld KiB)"
                "   (target < 4096)\n",
                rss, rss_after_flood, hwm);
    return 0;
}
