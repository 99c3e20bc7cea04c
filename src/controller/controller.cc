// The controller module: its state, the signal flags and the one loop of the
// process, which waits in select at most a second at a time, runs the
// periodic work that is due, receives one datagram per turn and serves the
// control connections.
#include "controller/controller.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <cassert>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "base/config.h"
#include "base/log.h"
#include "controller/controller_internal.h"
#include "controller/metrics.h"
#include "controller/stats.h"
#include "net/auth.h"
#include "net/socket.h"
#include "store/json_store.h"
#include "util/io.h"
#include "util/unique_fd.h"

namespace corvald {

NodeList local_nodes;
HostList unicast_hosts;
HostList multicast_groups;

long long stats_rx_long[counter::RX_COUNT];
long long stats_rx_short[counter::RX_COUNT];
long long stats_tx_long[counter::TX_COUNT];
long long stats_tx_short[counter::TX_COUNT];

namespace {

constexpr const char* kLoop = "controller_thread_loop";

int controller_module_initialized = 0;

// Set by the signal handlers, read and cleared by the loop only. Both
// reload and pings start set, so the first turn loads the files and
// announces the local nodes.
volatile sig_atomic_t do_exit = 0;
volatile sig_atomic_t do_reload = 1;
volatile sig_atomic_t force_pings = 1;

// Reference times of the periodic tasks: a task is due once the clock
// reaches its reference time plus its interval. They are read from the
// monotonic clock (monotonic_now), so that a step of the wall clock, back or
// forth, neither stops the announcements nor hurries them; what is written
// to the store (lastping, document times) stays wall-clock time.
time_t ping_ts;
time_t heartbeat_ts;
time_t stats_ts;
time_t json_ping_ts;

void sigint(int) {
    do_exit = 1;
}
void sighup(int) {
    do_reload = 1;
}
void sigusr1(int) {
    force_pings = 1;
}

// No SA_RESTART: a signal must interrupt select so the loop reacts at once.
void set_disposition(int sig, void (*handler)(int)) {
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sigemptyset(&sa.sa_mask);
    sa.sa_handler = handler;
    sa.sa_flags = 0;
    ::sigaction(sig, &sa, nullptr);
}

// What one run of the loop holds. The one message buffer receives every
// datagram and is where every outgoing one is built.
struct LoopRun {
    UniqueChars buf;
    size_t buflen = 0;
    struct sockaddr_in if_addr = {};
    struct sockaddr_in bind_addr = {};
    UniqueFd so;
    UniqueFd ctrlso;
    CtrlConnList ccl;
    // Set when an accept took nothing from the listen queue (out of
    // descriptors or memory): the listener is then left out of the read set
    // until a connection closes or the clock moves past accept_paused_at.
    bool accept_paused = false;
    time_t accept_paused_at = 0;
    fd_set fds;
    int nfds = 0;
    // When the last wait in select ended: the start of the turn's work.
    std::chrono::steady_clock::time_point woke;
};

// Adds fd to the read set and raises *top to it. Every descriptor must fit
// the set: start-up and the accept step refuse one that does not.
void watch_fd(fd_set* fds, int* top, int fd) {
    assert(fd_fits_select_set(fd));
    FD_SET(fd, fds);
    if (fd > *top)
        *top = fd;
}

// Rebuilds the read set from the datagram socket, the listener (unless it is
// -1) and every control connection, and stores one above the highest in
// *nfdsp.
void update_fds(fd_set* fds, int* nfdsp, int so, int ctrlso, const CtrlConnList* cclp) {
    FD_ZERO(fds);
    int top = -1;
    watch_fd(fds, &top, so);
    if (ctrlso >= 0)
        watch_fd(fds, &top, ctrlso);
    for (const CtrlConnPtr& ccp : *cclp) watch_fd(fds, &top, ccp->so);
    *nfdsp = top + 1;
}

void refresh_fds(LoopRun* lp) {
    update_fds(&lp->fds, &lp->nfds, lp->so.get(), lp->accept_paused ? -1 : lp->ctrlso.get(),
               &lp->ccl);
}

// Start-up of the loop in the order of its dependencies; 0, or -1 after the
// failing step has logged.
int loop_start(LoopRun* lp) {
    lp->buflen = static_cast<size_t>(cfg_msg_buffer_size);
    lp->buf.reset(static_cast<char*>(std::malloc(lp->buflen)));
    if (!lp->buf) {
        CV_ERROR_AS(kLoop, "malloc(%zu): %s", lp->buflen, std::strerror(errno));
        return -1;
    }
    // The interface address is needed for multicast only, but a missing
    // interface fails the start in unicast mode too.
    if (get_interface_addr(cfg_bind_interface.c_str(), &lp->if_addr) < 0)
        return -1;

    lp->bind_addr.sin_family = AF_INET;
    lp->bind_addr.sin_addr.s_addr = htonl(INADDR_ANY);
    lp->bind_addr.sin_port = htons(static_cast<uint16_t>(cfg_bind_port));
    lp->so.reset(open_socket(&lp->bind_addr));
    if (!lp->so)
        return -1;
    // The kernel's count of the datagrams it dropped for want of room comes
    // with the next datagram received; without it that figure is missing
    // from the metrics, nothing else.
    const int on = 1;
    if (::setsockopt(lp->so.get(), SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on) < 0)
        CV_WARN_AS(kLoop, "setsockopt(SO_RXQ_OVFL): %s", std::strerror(errno));

    lp->ctrlso.reset(tcp_listen(cfg_ctrl_address.c_str(), cfg_ctrl_port, 0));
    if (!lp->ctrlso)
        return -1;
    if (fd_blocking(lp->ctrlso.get(), 0) < 0)
        return -1;

    if (cfg_unicast_mode == 0) {
        if (parse_mcast_groups(&multicast_groups) < 0)
            return -1;
        // No group means no destination at all in multicast mode: the start
        // fails rather than run a daemon that announces to nobody.
        if (multicast_groups.empty()) {
            CV_ERROR_AS(kLoop, "Multicast groups missing");
            return -1;
        }
        if (join_mcast_groups(lp->so.get(), &lp->if_addr, multicast_groups) < 0)
            return -1;
    }

    // Descriptors inherited open from the parent could push ours past the
    // capacity of a descriptor set.
    for (int fd : {lp->so.get(), lp->ctrlso.get()}) {
        if (!fd_fits_select_set(fd)) {
            CV_ERROR_AS(kLoop, "Descriptor %d beyond select() capacity %d", fd, FD_SETSIZE);
            return -1;
        }
    }
    // The listener is watched from the first turn on: a waiting client makes
    // select return, and the turn accepts it.
    refresh_fds(lp);
    lp->woke = std::chrono::steady_clock::now();
    return 0;
}

// The two statistics lines, short/long pairs, each followed by the reset of
// its short counters.
void stats() {
    const long long* rl = stats_rx_long;
    const long long* rs = stats_rx_short;
    CV_NOTICE(
        "RX: ALL=%lld/%lld PING=%lld/%lld DS_PING=%lld/%lld AUX_PING=%lld/%lld "
        "SV_PING=%lld/%lld VDISK_DEL=%lld/%lld HEARTBEAT=%lld/%lld ST_JSON=%lld/%lld "
        "UNKNOWN=%lld/%lld",
        rs[0], rl[0], rs[1], rl[1], rs[2], rl[2], rs[3], rl[3], rs[4], rl[4], rs[5], rl[5], rs[6],
        rl[6], rs[7], rl[7], rs[8], rl[8]);
    std::memset(stats_rx_short, 0, sizeof stats_rx_short);
    const long long* tl = stats_tx_long;
    const long long* ts = stats_tx_short;
    // The blank before the closing placeholder is part of the line.
    CV_NOTICE(
        "TX: ALL=%lld/%lld PING=%lld/%lld DS_PING=%lld/%lld AUX_PING=%lld/%lld "
        "SV_PING=%lld/%lld VDISK_DEL=%lld/%lld HEARTBEAT=%lld/%lld ST_JSON=%lld/%lld ",
        ts[0], tl[0], ts[1], tl[1], ts[2], tl[2], ts[3], tl[3], ts[4], tl[4], ts[5], tl[5], ts[6],
        tl[6], ts[7], tl[7]);
    std::memset(stats_tx_short, 0, sizeof stats_tx_short);
    // Only a daemon that checks datagrams, or one that has refused a claim
    // of its nodes, has drops to report: the lines above stay the whole
    // report otherwise.
    const long long* dl = stats_drop_long;
    const long long* ds = stats_drop_short;
    static_assert(drop::CHECK_COUNT == 5, "the DROP line names the receive check's reasons");
    if (auth_enabled() || dl[drop::FOREIGN_CLAIM] > 0) {
        CV_NOTICE("DROP: %s=%lld/%lld %s=%lld/%lld %s=%lld/%lld %s=%lld/%lld %s=%lld/%lld",
                  drop_reason_names[0], ds[0], dl[0], drop_reason_names[1], ds[1], dl[1],
                  drop_reason_names[2], ds[2], dl[2], drop_reason_names[3], ds[3], dl[3],
                  drop_reason_names[4], ds[4], dl[4]);
        std::memset(stats_drop_short, 0, sizeof stats_drop_short);
    }
    metrics_report();
}

// A turn is late when its work, from the end of its wait in select (or of
// the start-up) to the start of the next wait, took longer than the wait's
// one second: periodic tasks and datagrams then waited longer than the
// loop's tick for it. The wait itself never makes a turn late.
void count_late_turn(const LoopRun& lp) {
    if (std::chrono::steady_clock::now() - lp.woke > std::chrono::seconds(1))
        ++controller_counters.late_turns;
}

}  // namespace

time_t monotonic_now() {
    struct timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec;
}

namespace {

bool due(time_t ts, int interval) {
    return monotonic_now() >= ts + interval;
}

// Both files (and the key file), in either mode; a failed load keeps the list in force and is
// not retried before the next SIGHUP.
void reload_lists() {
    load_local_nodes();
    dump_local_nodes();
    load_unicast_hosts();
    dump_unicast_hosts();
    // Keys rotate without a restart: a new key file is read here too.
    auth_reload_keys();
}

// The periodic tasks in their order. Each reference time is taken from the
// clock after its task ran, so a period is the interval plus the task's run
// time.
void run_periodic_tasks(LoopRun* lp) {
    if (due(stats_ts, cfg_stats_interval)) {
        stats();
        stats_ts = monotonic_now();
    }
    if (force_pings || due(ping_ts, cfg_ping_interval)) {
        force_pings = 0;
        send_pings(lp->buf.get(), lp->buflen, lp->so.get());
        ping_ts = monotonic_now();
    }
    if (due(heartbeat_ts, cfg_heartbeat_interval)) {
        send_heartbeats(lp->buf.get(), lp->buflen, lp->so.get());
        heartbeat_ts = monotonic_now();
    }
    if (due(json_ping_ts, cfg_json_ping_interval)) {
        send_pings_json(lp->buf.get(), lp->buflen, lp->so.get());
        json_ping_ts = monotonic_now();
        // Document ages are wall-clock times of their metadata.
        json_timeout_check(std::time(nullptr));
    }
}

// One turn of the loop; false when the loop ends, with *error its result.
bool loop_pass(LoopRun* lp, int* error) {
    if (do_exit) {
        CV_NOTICE_AS(kLoop, "Exit...");
        *error = 0;
        return false;
    }
    // The flags are cleared before their task runs: a signal that comes
    // while it runs (a file rewritten during the reload, say) asks for one
    // more run instead of being lost.
    if (do_reload) {
        do_reload = 0;
        reload_lists();
    }

    count_late_turn(*lp);
    fd_set rfds = lp->fds;
    struct timeval tv = {1, 0};
    int ready = ::select(lp->nfds, &rfds, nullptr, nullptr, &tv);
    lp->woke = std::chrono::steady_clock::now();
    if (ready < 0) {
        if (errno != EINTR)
            CV_ERROR_AS(kLoop, "select(): %s", std::strerror(errno));
        return true;
    }

    if (lp->accept_paused && monotonic_now() > lp->accept_paused_at) {
        lp->accept_paused = false;
        refresh_fds(lp);
    }

    run_periodic_tasks(lp);
    // Checked every turn, busy or idle; a connection closed here is out of
    // the list before the readable ones are served below.
    if (close_idle_ctrl_conns(&lp->ccl, monotonic_now())) {
        lp->accept_paused = false;  // descriptors came free
        refresh_fds(lp);
    }
    if (ready == 0) {
        CV_DEBUG_AS(kLoop, "Waiting...");
        return true;
    }

    if (FD_ISSET(lp->so.get(), &rfds)) {
        int rc = receive_datagram(lp->buf.get(), lp->buflen, lp->so.get());
        if (rc < 0) {
            *error = 0;
            return false;
        }
        // A dropped datagram ends the turn: connections wait for the next.
        if (rc > 0)
            return true;
    }
    // The connections select found readable, then at most one new client:
    // one accept per turn keeps a crowd of clients from holding up the
    // datagrams and the timers.
    bool changed = serve_ctrl_conns(&lp->ccl, &rfds, lp->buf.get(), lp->buflen, lp->so.get());
    if (changed && lp->accept_paused)
        lp->accept_paused = false;  // a descriptor came free
    if (FD_ISSET(lp->ctrlso.get(), &rfds)) {
        const int rc = accept_ctrl_conn(lp->ctrlso.get(), &lp->ccl);
        if (rc != 0)
            changed = true;
        // The client is still queued and the listener stays readable:
        // watched, it would turn the one-second wait into a busy loop that
        // logs the same failure on every turn.
        if (rc < 0) {
            lp->accept_paused = true;
            lp->accept_paused_at = monotonic_now();
        }
    }
    if (changed)
        refresh_fds(lp);
    return true;
}

}  // namespace

int controller_module_setup() {
    assert(!controller_module_initialized);
    assert(local_nodes.empty() && unicast_hosts.empty() && multicast_groups.empty());
    // The three lists are members of the module and need no allocation, so
    // the -1..-3 results for a failed list allocation never occur.

    set_disposition(SIGPIPE, SIG_IGN);
    set_disposition(SIGINT, sigint);
    set_disposition(SIGTERM, sigint);
    set_disposition(SIGHUP, sighup);
    set_disposition(SIGUSR1, sigusr1);

    std::memset(stats_rx_long, 0, sizeof stats_rx_long);
    std::memset(stats_rx_short, 0, sizeof stats_rx_short);
    controller_counters.start_time = std::time(nullptr);

    // Staggered so that the periodic tasks do not all fall on one turn.
    const time_t now = monotonic_now();
    ping_ts = now;
    heartbeat_ts = now + 3;
    stats_ts = now + 7;
    json_ping_ts = now + 11;

    controller_module_initialized = 1;
    return 0;
}

int controller_thread_loop() {
    LoopRun lp;
    int error = -1;
    if (loop_start(&lp) == 0) {
        // The file exists from the start, the datagram socket open.
        metrics_report();
        while (loop_pass(&lp, &error)) {
        }
    }
    // In the order the parts were opened, last first; the control
    // connections (each with its closing notice) go before the listener.
    CtrlConnListFlush(&lp.ccl);
    lp.ctrlso.reset();
    lp.so.reset();
    lp.buf.reset();
    return error;
}

void controller_module_teardown() {
    assert(controller_module_initialized);
    CV_NOTICE("Starting shutdown sequence...");
    multicast_groups.clear();
    unicast_hosts.clear();
    local_nodes.clear();
    controller_module_initialized = 0;
    CV_NOTICE("Shutdown sequence finished!");
}

}  // namespace corvald
