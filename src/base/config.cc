// The C library publishes its facility and priority name tables only to the
// unit that asks for them, and its header needs NULL declared first.
#include <cstddef>
#define SYSLOG_NAMES
#include <syslog.h>

#include "base/config.h"

#include <regex.h>
#include <strings.h>

#include <cassert>
#include <cstdarg>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/config_internal.h"
#include "base/syslog.h"
#include "base/unique_file.h"
#include "base/version.h"

namespace corvald {

const char* opt_config = "/velloran/etc/corvald.conf";
int opt_debug = 0;

std::string cfg_syslog_ident;
int cfg_syslog_facility;
int cfg_syslog_priority;
std::string cfg_pid_file;
std::string cfg_work_directory;
std::string cfg_local_nodes;
int cfg_unicast_mode;
std::string cfg_unicast_hosts;
std::string cfg_bind_interface;
int cfg_bind_port;
std::string cfg_ctrl_address;
int cfg_ctrl_port;
std::string cfg_multicast_address;
int cfg_node_lock_timeout_ms;
int cfg_datastore_lock_timeout_ms;
int cfg_vdisk_lock_timeout_ms;
std::string cfg_fence_check;
int cfg_ping_interval;
int cfg_heartbeat_interval;
int cfg_stats_interval;
int cfg_msg_buffer_size;
int cfg_path_lock_timeout_ms;
std::string cfg_local_files;
int cfg_json_ping_interval;
int cfg_ctrl_idle_timeout;
std::string cfg_metrics_file;
std::string cfg_auth_mode;
std::string cfg_auth_key_file;
int cfg_auth_window;

namespace {

int config_module_initialized = 0;

const char patt_comment[] = "^(#|;)|^[[:blank:]]*$";
const char patt_keyval[] =
    "^[[:blank:]]*([[:alnum:]_.]+)[[:blank:]]*=[[:blank:]]*([[:graph:]]+)[[:blank:]]*$";
const char patt_quoted[] =
    "^[[:blank:]]*([[:alnum:]_.]+)[[:blank:]]*=[[:blank:]]*\"([[:print:]]*)\"[[:blank:]]*$";

regex_t preg_comment;
regex_t preg_keyval;
regex_t preg_quoted;

// Range tests of the integer keys. The timeouts and intervals are compared
// as unsigned 32-bit numbers, so a negative value is out of range too.
bool not_negative(int v) { return v >= 0; }
bool port_range(int v) { return v >= 1 && v <= 65535; }
bool timeout_range(int v) { return static_cast<uint32_t>(v) <= 60000; }
bool interval_range(int v) { return static_cast<uint32_t>(v) <= 3600; }
bool stats_range(int v) { return static_cast<uint32_t>(v) <= 86400; }
bool buffer_range(int v) { return v >= 65536; }
bool window_range(int v) { return v >= 1 && v <= 86400; }

// In the order config_dump prints them, each with its default.
const ConfigKey keys[] = {
    {"syslog_ident", ConfigKind::Ident, &cfg_syslog_ident, nullptr, nullptr, "corvald", 0},
    {"syslog_facility", ConfigKind::Facility, nullptr, &cfg_syslog_facility, nullptr, nullptr, LOG_DAEMON},
    {"syslog_priority", ConfigKind::Priority, nullptr, &cfg_syslog_priority, nullptr, nullptr, LOG_INFO},
    {"pid_file", ConfigKind::String, &cfg_pid_file, nullptr, nullptr, "/var/run/corvald.pid", 0},
    {"work_directory", ConfigKind::String, &cfg_work_directory, nullptr, nullptr, "/velloran/DB", 0},
    {"local_nodes", ConfigKind::String, &cfg_local_nodes, nullptr, nullptr, "/velloran/local_nodes", 0},
    {"unicast_mode", ConfigKind::Int, nullptr, &cfg_unicast_mode, not_negative, nullptr, 0},
    {"unicast_hosts", ConfigKind::String, &cfg_unicast_hosts, nullptr, nullptr, "/velloran/unicast_hosts", 0},
    {"bind_interface", ConfigKind::Interface, &cfg_bind_interface, nullptr, nullptr, "eth0", 0},
    {"bind_port", ConfigKind::Int, nullptr, &cfg_bind_port, port_range, nullptr, 8000},
    {"ctrl_address", ConfigKind::String, &cfg_ctrl_address, nullptr, nullptr, "127.0.0.1", 0},
    {"ctrl_port", ConfigKind::Int, nullptr, &cfg_ctrl_port, port_range, nullptr, 31337},
    {"multicast_address", ConfigKind::String, &cfg_multicast_address, nullptr, nullptr, "224.123.123.123", 0},
    {"node_lock_timeout_ms", ConfigKind::Int, nullptr, &cfg_node_lock_timeout_ms, timeout_range, nullptr, 750},
    {"datastore_lock_timeout_ms", ConfigKind::Int, nullptr, &cfg_datastore_lock_timeout_ms, timeout_range, nullptr, 750},
    {"vdisk_lock_timeout_ms", ConfigKind::Int, nullptr, &cfg_vdisk_lock_timeout_ms, timeout_range, nullptr, 750},
    {"fence_check", ConfigKind::String, &cfg_fence_check, nullptr, nullptr, "/usr/marrowctl/fencecheck", 0},
    {"ping_interval", ConfigKind::Int, nullptr, &cfg_ping_interval, interval_range, nullptr, 90},
    {"heartbeat_interval", ConfigKind::Int, nullptr, &cfg_heartbeat_interval, interval_range, nullptr, 30},
    {"stats_interval", ConfigKind::Int, nullptr, &cfg_stats_interval, stats_range, nullptr, 60},
    {"msg_buffer_size", ConfigKind::Int, nullptr, &cfg_msg_buffer_size, buffer_range, nullptr, 65536},
    {"path_lock_timeout_ms", ConfigKind::Int, nullptr, &cfg_path_lock_timeout_ms, timeout_range, nullptr, 750},
    {"local_files", ConfigKind::String, &cfg_local_files, nullptr, nullptr, "/v2/local_files", 0},
    {"json_ping_interval", ConfigKind::Int, nullptr, &cfg_json_ping_interval, interval_range, nullptr, 90},
    {"ctrl_idle_timeout", ConfigKind::Int, nullptr, &cfg_ctrl_idle_timeout, stats_range, nullptr, 30},
    {"metrics_file", ConfigKind::String, &cfg_metrics_file, nullptr, nullptr, "", 0},
    {"auth_mode", ConfigKind::String, &cfg_auth_mode, nullptr, nullptr, "off", 0},
    {"auth_key_file", ConfigKind::String, &cfg_auth_key_file, nullptr, nullptr, "", 0},
    {"auth_window", ConfigKind::Int, nullptr, &cfg_auth_window, window_range, nullptr, 60},
};

// Longest bind_interface name the kernel's interface requests can carry.
constexpr size_t kMaxInterfaceName = 15;

void install_defaults() {
    for (const ConfigKey& k : keys) {
        if (k.str != nullptr)
            *k.str = k.text_default;
        else
            *k.num = k.int_default;
    }
}

void compile(regex_t* preg, const char* pattern, int flags) {
    int rc = ::regcomp(preg, pattern, flags);
    if (rc == 0) return;
    char why[1024];
    ::regerror(rc, preg, why, sizeof(why));
    std::fprintf(stderr, "regcomp(%s): %s\n", pattern, why);
    std::exit(1);
}

int lookup(const CODE* table, const char* name) {
    for (const CODE* c = table; c->c_name != nullptr; ++c)
        if (::strcasecmp(c->c_name, name) == 0) return c->c_val;
    return -1;
}

const char* name_of(const CODE* table, int value) {
    for (const CODE* c = table; c->c_name != nullptr; ++c)
        if (c->c_val == value) return c->c_name;
    return nullptr;
}

__attribute__((format(printf, 2, 3))) int fail(std::string& error, const char* fmt, ...) {
    char msg[2048];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(msg, sizeof(msg), fmt, ap);
    va_end(ap);
    error = msg;
    return -1;
}

// Applies one key's value; the value has passed one of the line patterns.
int apply(const char* key, const char* value, std::string& error) {
    const ConfigKey* k = nullptr;
    for (const ConfigKey& candidate : keys)
        if (std::strcmp(candidate.name, key) == 0) k = &candidate;
    if (k == nullptr) return fail(error, "error: %s(): Unknown config option `%s'\n", "config_load", key);

    switch (k->kind) {
        case ConfigKind::Interface:
            if (std::strlen(value) > kMaxInterfaceName)
                return fail(error, "error: %s(): Incorrect %s value: `%s'\n", "config_load", key, value);
            *k->str = value;
            break;
        case ConfigKind::String:
            *k->str = value;
            break;
        case ConfigKind::Ident:
            // The log still holds the old ident's pointer: reopen before
            // anything can be logged.
            *k->str = value;
            syslog_module_setup();
            break;
        case ConfigKind::Facility:
        case ConfigKind::Priority: {
            int v = lookup(k->kind == ConfigKind::Facility ? facilitynames : prioritynames, value);
            if (v < 0)
                return fail(error, "error: %s(): Incorrect %s value: `%s'\n", "config_load", key, value);
            *k->num = v;
            syslog_module_setup();
            break;
        }
        case ConfigKind::Int: {
            // strtol's leniency is part of the file format: leading blanks
            // and a sign are accepted, digits end at the first non-digit, no
            // digits read as 0; only the low 32 bits are kept.
            int v = static_cast<int>(static_cast<uint32_t>(std::strtol(value, nullptr, 10)));
            if (!k->ok(v))
                return fail(error, "error: %s(): Incorrect %s value: %d\n", "config_load", key, v);
            *k->num = v;
            break;
        }
    }
    return 0;
}

}  // namespace

void config_module_setup() {
    assert(!config_module_initialized);
    compile(&preg_comment, patt_comment, REG_EXTENDED | REG_NOSUB);
    compile(&preg_keyval, patt_keyval, REG_EXTENDED);
    compile(&preg_quoted, patt_quoted, REG_EXTENDED);
    install_defaults();
    config_module_initialized = 1;
}

int config_read(const char* path, std::string& error) {
    assert(config_module_initialized);
    UniqueFile f(std::fopen(path, "r"));
    if (!f)
        return fail(error, "error: %s(): fopen(%s): %s\n", "config_load", path, std::strerror(errno));

    char line[1024];
    int rc = 0;
    while (rc == 0) {
        if (std::fgets(line, sizeof(line), f.get()) == nullptr) {
            if (std::ferror(f.get())) rc = fail(error, "error: %s(): Error reading config\n", "config_load");
            break;
        }
        char* nl = std::strchr(line, '\n');
        if (nl == nullptr) {
            rc = fail(error, "error: %s(): Config line too long\n", "config_load");
            break;
        }
        *nl = '\0';
        if (::regexec(&preg_comment, line, 0, nullptr, 0) == 0) continue;

        regmatch_t m[3];
        if (::regexec(&preg_quoted, line, 3, m, 0) != 0 &&
            ::regexec(&preg_keyval, line, 3, m, 0) != 0) {
            rc = fail(error, "error: %s(): Broken config line `%s'\n", "config_load", line);
            break;
        }
        line[m[1].rm_eo] = '\0';
        line[m[2].rm_eo] = '\0';
        rc = apply(line + m[1].rm_so, line + m[2].rm_so, error);
    }
    return rc;
}

void config_load() {
    std::string error;
    if (config_read(opt_config, error) < 0) {
        std::fputs(error.c_str(), stderr);
        std::exit(1);
    }
}

const char* config_facility_name(int value) { return name_of(facilitynames, value); }
const char* config_priority_name(int value) { return name_of(prioritynames, value); }

std::span<const ConfigKey> config_keys() { return keys; }

void config_dump() {
    assert(config_module_initialized);
    std::string line;
    for (const ConfigKey& k : keys) {
        line += line.empty() ? "" : " ";
        line += k.name;
        line += '=';
        if (k.str != nullptr) {
            line += *k.str;
        } else if (k.kind == ConfigKind::Facility || k.kind == ConfigKind::Priority) {
            const char* name = k.kind == ConfigKind::Facility ? config_facility_name(*k.num)
                                                              : config_priority_name(*k.num);
            line += name ? name : "?";
        } else {
            line += std::to_string(*k.num);
        }
    }
    // The start-up line, so it also says which build runs: after the keys,
    // which keep their order.
    line += " version=" CORVALD_VERSION;
    ::syslog(LOG_INFO, "%s", line.c_str());
}

void config_module_teardown() {
    assert(config_module_initialized);
    for (const ConfigKey& k : keys) {
        if (k.str != nullptr) {
            k.str->clear();
            k.str->shrink_to_fit();
        }
    }
    ::regfree(&preg_quoted);
    ::regfree(&preg_keyval);
    ::regfree(&preg_comment);
    config_module_initialized = 0;
}

}  // namespace corvald
