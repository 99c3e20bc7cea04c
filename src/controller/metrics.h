// The controller's counters beyond the statistics lines, and the metrics
// file: every counter of the daemon (these, the statistics arrays and the
// store's) in the Prometheus text format, for node_exporter's textfile
// collector. The statistics log lines stay as they are; these counters show
// only in the file.
#pragma once

#include <cstddef>
#include <ctime>
#include <string>

namespace corvald {

// Drops are counted with the statistics arrays (stats.h, drop::).
struct ControllerCounters {
    long long store_errors = 0;      // store operations of the loop that failed
    long long ctrl_connections = 0;  // control connections accepted and served
    long long late_turns = 0;        // see count_late_turn in controller.cc
    time_t start_time = 0;           // wall clock, at the controller's setup
};
extern ControllerCounters controller_counters;

// Passes a store operation's result on, counting a failure (rc < 0) as a
// store error. The operation has logged why.
inline int store_result(int rc) {
    if (rc < 0)
        ++controller_counters.store_errors;
    return rc;
}

// Every counter of the daemon since start as the text of the metrics file.
std::string metrics_text();
// Replaces the file at path by text: a temporary file beside it (path and
// ".tmp", which the textfile collector does not read), flushed, then renamed
// over it, so a reader sees the old file or the new one whole. Neither is
// opened through a final symbolic link. 0, or -1 with errno set (nothing
// logged, the temporary file removed).
int metrics_write_file(const char* path, const std::string& text);
// Writes metrics_text() to cfg_metrics_file, if one is set. A failure is
// logged once, then at most every ten minutes while it lasts.
void metrics_report();

}  // namespace corvald
