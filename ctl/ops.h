// The commands of corvalctl beyond the listings and the control lines: the
// daemon's status and health check, watching the store, waiting for one
// condition, and running a command under a store lock.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "send.h"

namespace corvald::ctl {

// Enters the store as the daemon runs it (main.cc); 0, or 2 with the
// reason in *why (on standard error without why).
int enter_store(std::string* why = nullptr);

// The ids of the local-nodes file; false with *why when it cannot be read.
bool local_node_ids(std::set<uint32_t>* ids, std::string* why);

// Keeps every setting as read, before corvalctl changes any for itself.
void remember_settings();
// The value of the text setting key as read from the configuration ("" when
// this build has no such setting).
std::string setting(const char* key);

// Prints events as the store changes, one line each, until killed; 2 when
// the store cannot be watched.
int watch(bool json);

// What `wait` waits for: "node" ID (alive), "vdisk" UUID (a readable
// record), "doc" PATH FILE (a stored document). 0 when it holds, 1 after
// timeout_s seconds, 2 when the store cannot be watched.
int wait_for(const std::string& what, const std::vector<std::string>& args, int timeout_s);

// After a store_json or delete_json line was sent: waits until this host's
// JSON tree shows the document with exactly its text, or shows it gone.
// 0, 1 on timeout (with the reason), 2 when the store cannot be watched.
int wait_json(const Command& c, int timeout_s);

// Thresholds of `check`; a count threshold of 0 is never reached.
struct CheckLimits {
    int local_warn = -1, local_crit = -1;  // seconds; -1: 2 and 5 heartbeat intervals
    int late_warn = 1, late_crit = 0;      // peers late
    int silent_warn = 1, silent_crit = 0;  // peers silent
    int dead_locks_warn = 1;
    int store_errors_warn = 1;  // new store errors since the last check
};

int status(bool json, const std::string& config_path, const std::string& metrics_file);
int check(const CheckLimits& l, const std::string& metrics_file, std::string state_file);

// Runs argv in the directory cwd holding the lock name, waiting up to
// timeout_s for it; the command's exit status (128 + signal when it was
// killed), 75 when the lock stayed held elsewhere, 2 when it failed.
int lock_run(const std::string& name, int timeout_s, const std::vector<std::string>& argv,
             int cwd);

}  // namespace corvald::ctl
