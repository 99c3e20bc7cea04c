// The metrics file: every counter of the daemon in the Prometheus text
// exposition format, rewritten whole at every statistics report.
#include "controller/metrics.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "base/config.h"
#include "base/counters.h"
#include "base/log.h"
#include "controller/controller_internal.h"
#include "controller/stats.h"
#include "util/unique_fd.h"

namespace corvald {

ControllerCounters controller_counters;

namespace {

// Label values of the datagram types: the names the statistics lines use,
// lowercased, so that a figure of the file can be found in the log and back.
// Index 0 (ALL) is left out of the labelled families: it is their sum.
constexpr const char* kTypeNames[counter::RX_COUNT] = {"all",       "ping",    "ds_ping",
                                                       "aux_ping",  "sv_ping", "vdisk_del",
                                                       "heartbeat", "st_json", "unknown"};

// Appends a family's HELP and TYPE lines.
void family(std::string* out, const char* name, const char* type, const char* help) {
    char line[512];
    std::snprintf(line, sizeof line, "# HELP %s %s\n# TYPE %s %s\n", name, help, name, type);
    *out += line;
}

// Appends one sample; label is "" for a family without labels.
void sample(std::string* out, const char* name, const char* label, const char* value, double v) {
    char line[512];
    if (*label)
        std::snprintf(line, sizeof line, "%s{%s=\"%s\"} %.17g\n", name, label, value, v);
    else
        std::snprintf(line, sizeof line, "%s %.17g\n", name, v);
    *out += line;
}

// A family of one sample per label value, counts[i] for names[i].
void labelled(std::string* out, const char* name, const char* help, const char* label,
              const char* const* names, const long long* counts, size_t n) {
    family(out, name, "counter", help);
    for (size_t i = 0; i < n; ++i)
        sample(out, name, label, names[i], static_cast<double>(counts[i]));
}

void single(std::string* out, const char* name, const char* type, const char* help, double v) {
    family(out, name, type, help);
    sample(out, name, "", "", v);
}

// Writes text whole; false with errno set. Not buf_tx: its own error line
// would escape the rate limit of metrics_report.
bool write_all(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

std::string metrics_text() {
    std::string out;
    const ControllerCounters& c = controller_counters;
    const StoreCounters& s = store_counters;
    single(&out, "corvald_start_time_seconds", "gauge",
           "Start time of the daemon since the Unix epoch.", static_cast<double>(c.start_time));
    labelled(&out, "corvald_datagrams_received_total",
             "Datagrams received with a whole header, by type.", "type", kTypeNames + 1,
             stats_rx_long + 1, counter::RX_COUNT - 1);
    labelled(&out, "corvald_datagrams_sent_total",
             "Datagrams sent, one per destination that took it whole, by type.", "type",
             kTypeNames + 1, stats_tx_long + 1, counter::TX_COUNT - 1);
    labelled(&out, "corvald_datagrams_dropped_total",
             "Datagrams dropped before or while they were handled, by reason.", "reason",
             drop_reason_names, stats_drop_long, drop::COUNT);
    labelled(&out, "corvald_lock_timeouts_total",
             "Record locks still held elsewhere when the wait for them ended, by record kind.",
             "kind", kLockKindNames, s.lock_timeouts, kLockKinds);
    single(&out, "corvald_store_errors_total", "counter",
           "Store operations of received datagrams and announcements that failed.",
           static_cast<double>(c.store_errors));
    single(&out, "corvald_fence_checks_total", "counter", "Fence-check programs run.",
           static_cast<double>(s.fence_checks));
    single(&out, "corvald_fence_check_seconds_total", "counter",
           "Time spent waiting for fence-check programs.", s.fence_check_seconds);
    single(&out, "corvald_control_connections_total", "counter", "Control connections accepted.",
           static_cast<double>(c.ctrl_connections));
    family(&out, "corvald_control_commands_total", "counter",
           "Control lines received, by command; ignored: no command matched.");
    ctrl_command_counts([&](const char* name, long long n) {
        sample(&out, "corvald_control_commands_total", "command", name, static_cast<double>(n));
    });
    single(&out, "corvald_documents_stored_total", "counter",
           "JSON documents written to the store with their metadata.",
           static_cast<double>(s.documents_stored));
    single(&out, "corvald_documents_expired_total", "counter",
           "JSON documents the expiry sweep found too old and deleted.",
           static_cast<double>(s.documents_expired));
    single(&out, "corvald_loop_late_turns_total", "counter",
           "Turns of the main loop whose work took longer than its one-second wait.",
           static_cast<double>(c.late_turns));
    return out;
}

int metrics_write_file(const char* path, const std::string& text) {
    const std::string tmp = std::string(path) + ".tmp";
    // The directory is normally the collector's, outside the store: a plain
    // open that follows no final link is all the care it needs. 0644: the
    // collector runs as another user.
    UniqueFd fd(::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!fd)
        return -1;
    if (!write_all(fd.get(), text) || ::fsync(fd.get()) < 0 || ::close(fd.release()) < 0 ||
        ::rename(tmp.c_str(), path) < 0) {
        const int saved = errno;
        ::unlink(tmp.c_str());
        errno = saved;
        return -1;
    }
    return 0;
}

void metrics_report() {
    if (cfg_metrics_file.empty())
        return;
    // A file that cannot be written (a full disk, a directory gone) fails at
    // every report: the first failure is logged, then one line at most every
    // ten minutes until a write succeeds again.
    constexpr time_t kQuietSeconds = 600;
    static bool failing = false;
    static time_t last_logged = 0;
    if (metrics_write_file(cfg_metrics_file.c_str(), metrics_text()) == 0) {
        failing = false;
        return;
    }
    const time_t now = monotonic_now();
    if (failing && now - last_logged < kQuietSeconds)
        return;
    failing = true;
    last_logged = now;
    CV_ERROR("Failed to write metrics file %s: %s", cfg_metrics_file.c_str(), std::strerror(errno));
}

}  // namespace corvald
