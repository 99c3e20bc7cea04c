// corvalctl: the operator's view of a corvald store and a client of its
// control port. It reads the daemon's configuration file to find both,
// never writes a record, and takes each record's path lock while it reads.
#include <signal.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <iterator>

#include "base/config.h"
#include "base/config_internal.h"
#include "base/version.h"
#include "check_config.h"
#include "net/netlib.h"
#include "render.h"
#include "send.h"
#include "view.h"

#ifdef CORVALD_HAVE_SODIUM
#include <sodium.h>
#endif

namespace {

using namespace corvald;

void keep_line(int pri, const char* fmt, va_list ap) {
    if (LOG_PRI(pri) > LOG_ERR)
        return;
    const int saved = errno;
    char line[1024];
    std::vsnprintf(line, sizeof line, fmt, ap);
    ctl::note_error(line);
    errno = saved;
}

int usage_error(const CLI::App& app, const std::string& what) {
    std::cerr << "corvalctl: " << ctl::escape(what) << "\n"
              << app.help(app.get_parent() ? "corvalctl" : "");
    return 1;
}

// Enters the store as the daemon runs: inside it, with the store's absolute
// path as its root. The other files of the configuration may be relative to
// it, and the index lists documents by the absolute paths the daemon built.
// 0, or 2 with the reason on standard error.
int enter_store() {
    struct stat st;
    errno = 0;
    if (::stat(cfg_work_directory.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        std::cerr << "corvalctl: store " << cfg_work_directory << ": "
                  << (errno ? std::strerror(errno) : "not a directory") << "\n";
        return 2;
    }
    char* root = ::chdir(cfg_work_directory.c_str()) == 0 ? ::getcwd(nullptr, 0) : nullptr;
    if (root == nullptr) {
        std::cerr << "corvalctl: store " << cfg_work_directory << ": " << std::strerror(errno)
                  << "\n";
        return 2;
    }
    cfg_work_directory = root;
    std::free(root);
    return 0;
}

// Every lock file and its holder; with break_dead, those whose holder is gone
// are removed (each checked again just before). 2 when the store cannot be
// read or a removal failed.
int locks(bool json, bool break_dead) {
    if (int rc = enter_store(); rc != 0)
        return rc;
    const time_t now = std::time(nullptr);
    const std::vector<LockFileInfo> v = LockFileList();
    std::vector<int> broken;
    int rc = 0;
    if (break_dead) {
        for (const LockFileInfo& l : v) {
            broken.push_back(l.pid > 0 && !l.alive ? LockFileBreak(l.name.c_str(), l.pid) : 0);
            if (broken.back() < 0)
                rc = 2;
        }
    }
    std::cout << (json ? ctl::locks_json(v, broken, now) : ctl::locks_table(v, broken, now));
    return rc;
}

// The store's records, one listing; 2 when the store cannot be read.
int list(const std::string& what, const std::string& uuid, bool json) {
    if (int rc = enter_store(); rc != 0)
        return rc;
    const time_t now = std::time(nullptr);
    std::string why, out;
    int rc = 0;
    if (what == "nodes") {
        std::vector<ctl::NodeView> v;
        rc = ctl::load_nodes(now, &v, &why);
        out = json ? ctl::nodes_json(v) : ctl::nodes_table(v);
    } else if (what == "datastores") {
        std::vector<ctl::DatastoreView> v;
        rc = ctl::load_datastores(&v, &why);
        out = json ? ctl::datastores_json(v) : ctl::datastores_table(v);
    } else if (what == "docs") {
        std::vector<ctl::DocView> v;
        rc = ctl::load_docs(now, &v, &why);
        out = json ? ctl::docs_json(v) : ctl::docs_table(v);
    } else if (uuid.empty()) {
        std::vector<ctl::VDiskView> v;
        rc = ctl::load_vdisks(&v, &why);
        out = json ? ctl::vdisks_json(v) : ctl::vdisks_table(v);
    } else {
        struct stat vst;
        if (::lstat((cfg_work_directory + "/VDisk/" + uuid).c_str(), &vst) != 0) {
            std::cerr << "corvalctl: no VDisk " << ctl::escape(uuid) << " in the store\n";
            return 1;
        }
        ctl::VDiskView v = ctl::load_vdisk(uuid);
        out = json ? ctl::vdisks_json({v}) : ctl::vdisk_details(v);
    }
    if (rc < 0) {
        std::cerr << "corvalctl: cannot read the store: " << ctl::escape(why) << "\n";
        return 2;
    }
    std::cout << out;
    return 0;
}

// One new line for a key file, "ID HEX", from the system's random source; 2
// when the tool was built without libsodium.
int keygen(int id) {
#ifdef CORVALD_HAVE_SODIUM
    if (sodium_init() < 0) {
        std::cerr << "corvalctl: sodium_init() failed\n";
        return 2;
    }
    unsigned char key[32];
    randombytes_buf(key, sizeof key);
    char hex[2 * sizeof key + 1];
    sodium_bin2hex(hex, sizeof hex, key, sizeof key);
    sodium_memzero(key, sizeof key);
    std::cout << id << ' ' << hex << '\n';
    sodium_memzero(hex, sizeof hex);
    return 0;
#else
    (void)id;
    std::cerr << "corvalctl: keygen needs a corvalctl built with libsodium\n";
    return 2;
#endif
}

}  // namespace

// The store loaders report through syslog(3). An operator's reads are no
// event for the machine's log: keep the last error line for the record
// that failed instead.
extern "C" void syslog(int pri, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    keep_line(pri, fmt, ap);
    va_end(ap);
}

// The same for code built with _FORTIFY_SOURCE.
extern "C" void __syslog_chk(int pri, int, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    keep_line(pri, fmt, ap);
    va_end(ap);
}

int main(int argc, char** argv) {
    CLI::App app{"The operator tool of corvald: the store's records and the control commands.",
                 "corvalctl"};
    std::string config = opt_config, uuid;
    bool json = false;
    app.add_option("-C,--config", config, "configuration file of the daemon")
        ->capture_default_str();
    app.add_flag("--json", json, "one JSON document instead of tables (listings)");
    app.set_version_flag("--version", "corvalctl " CORVALD_VERSION);
    app.require_subcommand(1);
    app.fallthrough();
    for (const char* name : {"nodes", "datastores", "docs"})
        app.add_subcommand(name, std::string("list the ") + name);
    app.add_subcommand("vdisks", "list the VDisks, or show one in full")
        ->add_option("UUID", uuid, "the VDisk to show");
    int key_id = 1;
    app.add_subcommand("keygen", "print a new key line \"ID HEX\" for auth_key_file")
        ->add_option("ID", key_id, "the key's id")
        ->check(CLI::Range(1, 255));
    bool break_dead = false;
    app.add_subcommand("locks", "list the lock files and their holders")
        ->add_flag("--break-dead", break_dead, "remove the lock files whose holder is gone");
    std::string check_file;
    app.add_subcommand("check-config", "read a configuration as the daemon does and check it")
        ->add_option("FILE", check_file, "the file to check (default: the one -C names)");

    // The control commands: keyword of the line, then its arguments.
    const std::vector<std::pair<const char*, std::vector<const char*>>> commands = {
        {"ds-ping", {"NODE"}},
        {"single-vdisk-ping", {"NODE", "VDISK"}},
        {"vdisk-deleted", {"NODE", "VDISK"}},
        {"store-json", {"NODE", "PATH", "FILE", "TEXT"}},
        {"delete-json", {"NODE", "PATH", "FILE", "TEXT"}}};
    ctl::Command cmd;
    cmd.args.resize(4);
    for (const auto& [name, args] : commands) {
        CLI::App* sub = app.add_subcommand(name, "send one control command to the daemon");
        for (size_t i = 0; i < args.size(); ++i) sub->add_option(args[i], cmd.args[i])->required();
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& e) {  // --help, --version
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        return usage_error(app, e.what());
    }

    const CLI::App* sub = app.get_subcommands().front();
    const std::string name = sub->get_name();
    if (name == "keygen")
        return keygen(key_id);
    auto it = std::find_if(commands.begin(), commands.end(),
                           [&](const auto& c) { return name == c.first; });
    // A VDisk uuid names a directory of the store, and nothing beside it.
    if (!uuid.empty() && (uuid.size() > 14 || !uuid_is_safe(uuid.c_str(), uuid.size())))
        return usage_error(*sub, "UUID must be a VDisk uuid of 1 to 14 characters: " + uuid);
    if (it != commands.end()) {
        cmd.keyword = name;
        std::replace(cmd.keyword.begin(), cmd.keyword.end(), '-', '_');
        cmd.args.resize(it->second.size());
        if (cmd.args.back() == "-" && cmd.args.size() == 4) {
            cmd.args.back().assign(std::istreambuf_iterator<char>(std::cin), {});
            // A file's own final line feed is not part of the one-line text.
            if (!cmd.args.back().empty() && cmd.args.back().back() == '\n')
                cmd.args.back().pop_back();
        }
        // The text's limit needs the configuration; everything else does not.
        if (std::string why = ctl::check_command(cmd, 1 << 30); !why.empty())
            return usage_error(*sub, why);
    }

    // check-config: the reader's errors as below (2), then its own warnings (1).
    if (!check_file.empty())
        config = check_file;
    opt_config = config.c_str();
    config_module_setup();
    if (std::string error; config_read(opt_config, error) < 0) {
        std::cerr << error;
        return 2;
    }
    if (name == "check-config") {
        const std::vector<std::string> warnings = ctl::config_warnings();
        for (const std::string& w : warnings) std::cout << ctl::escape(w) << "\n";
        if (warnings.empty())
            std::cout << ctl::escape(config) << ": ok\n";
        return warnings.empty() ? 0 : 1;
    }
    cfg_node_lock_timeout_ms = cfg_datastore_lock_timeout_ms = cfg_vdisk_lock_timeout_ms =
        cfg_path_lock_timeout_ms = ctl::kLockWaitMs;

    if (name == "locks")
        return locks(json, break_dead);
    if (it == commands.end())
        return list(name, uuid, json);
    if (std::string why = ctl::check_command(cmd, cfg_msg_buffer_size); !why.empty())
        return usage_error(*sub, why);
    ::signal(SIGPIPE, SIG_IGN);
    const std::string line = ctl::command_line(cmd);
    if (std::string why; ctl::send_line(line, &why) < 0) {
        std::cerr << "corvalctl: " << why << "\n";
        return 2;
    }
    std::cout << "sent: " << line;
    return 0;
}
