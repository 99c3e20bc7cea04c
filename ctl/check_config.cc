#include "check_config.h"

#include <net/if.h>
#include <netinet/in.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "base/config.h"
#include "base/config_internal.h"
#include "net/socket.h"

namespace corvald::ctl {

namespace {

// Numbers the reader accepts at 0 (a value of letters reads as 0) where 0
// cannot be what the operator meant, and what 0 would do.
constexpr struct {
    const char* key;
    const char* why;
} kNotZero[] = {
    {"node_lock_timeout_ms", "a node record held elsewhere is given up at once"},
    {"datastore_lock_timeout_ms", "a data store record held elsewhere is given up at once"},
    {"vdisk_lock_timeout_ms", "a VDisk record held elsewhere is given up at once"},
    {"path_lock_timeout_ms", "a document held elsewhere is given up at once"},
    {"ping_interval", "pings go out on every turn of the loop"},
    {"heartbeat_interval", "heartbeats go out on every turn of the loop"},
    {"json_ping_interval", "documents go out on every turn and expire at once"},
    {"stats_interval", "the statistics are logged every second"},
};

const ConfigKey* key_named(const char* name) {
    for (const ConfigKey& k : config_keys())
        if (std::strcmp(k.name, name) == 0)
            return &k;
    return nullptr;
}

// The daemon opens every path but its root from inside the root.
std::string as_daemon_sees(const std::string& path) {
    return path.empty() || path[0] == '/' ? path : cfg_work_directory + "/" + path;
}

void warn(std::vector<std::string>* out, const char* key, const std::string& why) {
    out->push_back(std::string("warning: ") + key + ": " + why);
}

// A file the daemon reads at start or on SIGHUP must be a regular file.
void want_file(std::vector<std::string>* out, const char* key, const std::string& value) {
    struct stat st;
    if (::stat(as_daemon_sees(value).c_str(), &st) != 0)
        warn(out, key, value + ": " + std::strerror(errno));
    else if (!S_ISREG(st.st_mode))
        warn(out, key, value + ": not a regular file");
}

}  // namespace

std::vector<std::string> config_warnings() {
    std::vector<std::string> out;
    struct stat st;
    if (::stat(cfg_work_directory.c_str(), &st) != 0)
        warn(&out, "work_directory", cfg_work_directory + ": " + std::strerror(errno));
    else if (!S_ISDIR(st.st_mode))
        warn(&out, "work_directory", cfg_work_directory + ": not a directory");

    want_file(&out, "local_nodes", cfg_local_nodes);
    if (cfg_unicast_mode != 0)
        want_file(&out, "unicast_hosts", cfg_unicast_hosts);
    // A key file is read only when one is named (and only by builds that
    // know the key).
    if (const ConfigKey* k = key_named("auth_key_file"); k && k->str && !k->str->empty())
        want_file(&out, k->name, *k->str);
    if (!cfg_metrics_file.empty()) {
        const std::string path = as_daemon_sees(cfg_metrics_file);
        const std::string dir = path.substr(0, path.find_last_of('/') + 1);
        if (!dir.empty() && (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)))
            warn(&out, "metrics_file", cfg_metrics_file + ": its directory is missing");
    }

    // The start fails without the interface's IPv4 address, in unicast
    // mode too.
    struct sockaddr_in addr;
    if (::if_nametoindex(cfg_bind_interface.c_str()) == 0)
        warn(&out, "bind_interface", cfg_bind_interface + ": no such interface on this host");
    else if (get_interface_addr(cfg_bind_interface.c_str(), &addr) < 0)
        warn(&out, "bind_interface", cfg_bind_interface + ": no IPv4 address");

    for (const auto& z : kNotZero) {
        const ConfigKey* k = key_named(z.key);
        if (k != nullptr && k->num != nullptr && *k->num == 0)
            warn(&out, z.key, std::string("0: ") + z.why);
    }
    return out;
}

}  // namespace corvald::ctl
