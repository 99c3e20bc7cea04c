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

enum class Kind { String, Ident, Interface, Facility, Priority, Int };

struct Key {
    const char* name;
    Kind kind;
    std::string* str;
    int* num;
    bool (*ok)(int);
};

// In the order config_dump prints them.
const Key keys[] = {
    {"syslog_ident", Kind::Ident, &cfg_syslog_ident, nullptr, nullptr},
    {"syslog_facility", Kind::Facility, nullptr, &cfg_syslog_facility, nullptr},
    {"syslog_priority", Kind::Priority, nullptr, &cfg_syslog_priority, nullptr},
    {"pid_file", Kind::String, &cfg_pid_file, nullptr, nullptr},
    {"work_directory", Kind::String, &cfg_work_directory, nullptr, nullptr},
    {"local_nodes", Kind::String, &cfg_local_nodes, nullptr, nullptr},
    {"unicast_mode", Kind::Int, nullptr, &cfg_unicast_mode, not_negative},
    {"unicast_hosts", Kind::String, &cfg_unicast_hosts, nullptr, nullptr},
    {"bind_interface", Kind::Interface, &cfg_bind_interface, nullptr, nullptr},
    {"bind_port", Kind::Int, nullptr, &cfg_bind_port, port_range},
    {"ctrl_address", Kind::String, &cfg_ctrl_address, nullptr, nullptr},
    {"ctrl_port", Kind::Int, nullptr, &cfg_ctrl_port, port_range},
    {"multicast_address", Kind::String, &cfg_multicast_address, nullptr, nullptr},
    {"node_lock_timeout_ms", Kind::Int, nullptr, &cfg_node_lock_timeout_ms, timeout_range},
    {"datastore_lock_timeout_ms", Kind::Int, nullptr, &cfg_datastore_lock_timeout_ms, timeout_range},
    {"vdisk_lock_timeout_ms", Kind::Int, nullptr, &cfg_vdisk_lock_timeout_ms, timeout_range},
    {"fence_check", Kind::String, &cfg_fence_check, nullptr, nullptr},
    {"ping_interval", Kind::Int, nullptr, &cfg_ping_interval, interval_range},
    {"heartbeat_interval", Kind::Int, nullptr, &cfg_heartbeat_interval, interval_range},
    {"stats_interval", Kind::Int, nullptr, &cfg_stats_interval, stats_range},
    {"msg_buffer_size", Kind::Int, nullptr, &cfg_msg_buffer_size, buffer_range},
    {"path_lock_timeout_ms", Kind::Int, nullptr, &cfg_path_lock_timeout_ms, timeout_range},
    {"local_files", Kind::String, &cfg_local_files, nullptr, nullptr},
    {"json_ping_interval", Kind::Int, nullptr, &cfg_json_ping_interval, interval_range},
};

// Longest bind_interface name the kernel's interface requests can carry.
constexpr size_t kMaxInterfaceName = 15;

void install_defaults() {
    cfg_syslog_ident = "corvald";
    cfg_syslog_facility = LOG_DAEMON;
    cfg_syslog_priority = LOG_INFO;
    cfg_pid_file = "/var/run/corvald.pid";
    cfg_work_directory = "/velloran/DB";
    cfg_local_nodes = "/velloran/local_nodes";
    cfg_unicast_mode = 0;
    cfg_unicast_hosts = "/velloran/unicast_hosts";
    cfg_bind_interface = "eth0";
    cfg_bind_port = 8000;
    cfg_ctrl_address = "127.0.0.1";
    cfg_ctrl_port = 31337;
    cfg_multicast_address = "224.123.123.123";
    cfg_node_lock_timeout_ms = 750;
    cfg_datastore_lock_timeout_ms = 750;
    cfg_vdisk_lock_timeout_ms = 750;
    cfg_fence_check = "/usr/marrowctl/fencecheck";
    cfg_ping_interval = 90;
    cfg_heartbeat_interval = 30;
    cfg_stats_interval = 60;
    cfg_msg_buffer_size = 65536;
    cfg_path_lock_timeout_ms = 750;
    cfg_local_files = "/v2/local_files";
    cfg_json_ping_interval = 90;
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
    const Key* k = nullptr;
    for (const Key& candidate : keys)
        if (std::strcmp(candidate.name, key) == 0) k = &candidate;
    if (k == nullptr) return fail(error, "error: %s(): Unknown config option `%s'\n", "config_load", key);

    switch (k->kind) {
        case Kind::Interface:
            if (std::strlen(value) > kMaxInterfaceName)
                return fail(error, "error: %s(): Incorrect %s value: `%s'\n", "config_load", key, value);
            *k->str = value;
            break;
        case Kind::String:
            *k->str = value;
            break;
        case Kind::Ident:
            // The log still holds the old ident's pointer: reopen before
            // anything can be logged.
            *k->str = value;
            syslog_module_setup();
            break;
        case Kind::Facility:
        case Kind::Priority: {
            int v = lookup(k->kind == Kind::Facility ? facilitynames : prioritynames, value);
            if (v < 0)
                return fail(error, "error: %s(): Incorrect %s value: `%s'\n", "config_load", key, value);
            *k->num = v;
            syslog_module_setup();
            break;
        }
        case Kind::Int: {
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

void config_dump() {
    assert(config_module_initialized);
    const char* facility = config_facility_name(cfg_syslog_facility);
    const char* priority = config_priority_name(cfg_syslog_priority);
    ::syslog(LOG_INFO,
             "syslog_ident=%s syslog_facility=%s syslog_priority=%s pid_file=%s work_directory=%s "
             "local_nodes=%s unicast_mode=%d unicast_hosts=%s bind_interface=%s bind_port=%d "
             "ctrl_address=%s ctrl_port=%d multicast_address=%s node_lock_timeout_ms=%d "
             "datastore_lock_timeout_ms=%d vdisk_lock_timeout_ms=%d fence_check=%s "
             "ping_interval=%d heartbeat_interval=%d stats_interval=%d msg_buffer_size=%d "
             "path_lock_timeout_ms=%d local_files=%s json_ping_interval=%d",
             cfg_syslog_ident.c_str(), facility ? facility : "?", priority ? priority : "?",
             cfg_pid_file.c_str(), cfg_work_directory.c_str(), cfg_local_nodes.c_str(),
             cfg_unicast_mode, cfg_unicast_hosts.c_str(), cfg_bind_interface.c_str(), cfg_bind_port,
             cfg_ctrl_address.c_str(), cfg_ctrl_port, cfg_multicast_address.c_str(),
             cfg_node_lock_timeout_ms, cfg_datastore_lock_timeout_ms, cfg_vdisk_lock_timeout_ms,
             cfg_fence_check.c_str(), cfg_ping_interval, cfg_heartbeat_interval, cfg_stats_interval,
             cfg_msg_buffer_size, cfg_path_lock_timeout_ms, cfg_local_files.c_str(),
             cfg_json_ping_interval);
}

void config_module_teardown() {
    assert(config_module_initialized);
    for (std::string* s : {&cfg_fence_check, &cfg_multicast_address, &cfg_ctrl_address,
                           &cfg_bind_interface, &cfg_unicast_hosts, &cfg_local_nodes,
                           &cfg_work_directory, &cfg_pid_file, &cfg_syslog_ident, &cfg_local_files}) {
        s->clear();
        s->shrink_to_fit();
    }
    ::regfree(&preg_quoted);
    ::regfree(&preg_keyval);
    ::regfree(&preg_comment);
    config_module_initialized = 0;
}

}  // namespace corvald
