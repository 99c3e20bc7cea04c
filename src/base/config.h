// Every tunable of the daemon, read once from the configuration file at
// start-up. Other modules read the cfg_<key> variables directly; the values
// never change after config_load returns.
#pragma once

#include <string>

namespace corvald {

// Command line (set by main before config_load).
extern const char* opt_config;  // path of the configuration file
extern int opt_debug;           // count of -d

extern std::string cfg_syslog_ident;
extern int cfg_syslog_facility;
extern int cfg_syslog_priority;
extern std::string cfg_pid_file;
extern std::string cfg_work_directory;
extern std::string cfg_local_nodes;
extern int cfg_unicast_mode;
extern std::string cfg_unicast_hosts;
extern std::string cfg_bind_interface;
extern int cfg_bind_port;
extern std::string cfg_ctrl_address;
extern int cfg_ctrl_port;
extern std::string cfg_multicast_address;
extern int cfg_node_lock_timeout_ms;
extern int cfg_datastore_lock_timeout_ms;
extern int cfg_vdisk_lock_timeout_ms;
extern std::string cfg_fence_check;
extern int cfg_ping_interval;
extern int cfg_heartbeat_interval;
extern int cfg_stats_interval;
extern int cfg_msg_buffer_size;
extern int cfg_path_lock_timeout_ms;
extern std::string cfg_local_files;
extern int cfg_json_ping_interval;
// Seconds a control connection may stay silent before it is closed; 0: never.
extern int cfg_ctrl_idle_timeout;
// The metrics file rewritten at every statistics report; empty: none.
extern std::string cfg_metrics_file;
// off, accept, sign or require: whether datagrams are signed and checked.
extern std::string cfg_auth_mode;
// The cluster's keys ("ID HEX" lines, the first signs); empty: none.
extern std::string cfg_auth_key_file;
// Seconds a signed datagram's timestamp may differ from the clock.
extern int cfg_auth_window;

// Compiles the line patterns and installs every default; exits 1 if a
// pattern does not compile.
void config_module_setup();
// Reads opt_config and applies it; returns only on success, every error in
// the file ends the process with status 1 after a message on stderr.
void config_load();
// Logs the effective configuration in one info line.
void config_dump();
// Releases the string values and the compiled patterns.
void config_module_teardown();

// Name of the first facility / priority table entry with this value, or
// nullptr (exposed for the dump and its tests).
const char* config_facility_name(int value);
const char* config_priority_name(int value);

}  // namespace corvald
