// corvalctl: the operator's view of a corvald store and a client of its
// control port. It reads the daemon's configuration file to find both,
// never writes a record, and takes each record's path lock while it reads.
#include <fcntl.h>
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
#include <tuple>

#include <nlohmann/json.hpp>
#include <set>

#include "base/config.h"
#include "base/config_internal.h"
#include "base/version.h"
#include "check_config.h"
#include "net/netlib.h"
#include "ops.h"
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

// One line and where to read more: the whole help would bury the line.
int usage_error(const std::string& what) {
    std::cerr << "corvalctl: " << ctl::escape(what) << "\n"
              << "Run with --help for more information.\n";
    return 1;
}

}  // namespace

// Enters the store as the daemon runs: inside it, with the store's absolute
// path as its root. The other files of the configuration may be relative to
// it, and the index lists documents by the absolute paths the daemon built.
int ctl::enter_store(std::string* why) {
    struct stat st;
    errno = 0;
    std::string error;
    char* root = nullptr;
    if (::stat(cfg_work_directory.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        error = errno ? std::strerror(errno) : "not a directory";
    else if (::chdir(cfg_work_directory.c_str()) != 0 || (root = ::getcwd(nullptr, 0)) == nullptr)
        error = std::strerror(errno);
    if (!error.empty()) {
        error = "store " + cfg_work_directory + ": " + error;
        if (why == nullptr)
            std::cerr << "corvalctl: " << error << "\n";
        else
            *why = error;
        return 2;
    }
    cfg_work_directory = root;
    std::free(root);
    return 0;
}

namespace {

// Every lock file and its holder; with break_dead, those whose holder is gone
// are removed (each checked again just before). 2 when the store cannot be
// read or a removal failed.
int locks(bool json, bool break_dead) {
    if (int rc = ctl::enter_store(); rc != 0)
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

// What a listing keeps: the nodes in one state, the VDisks with a member on
// one node, the documents of one node (empty, 0: all).
struct Filter {
    std::string state;
    int64_t node = 0;
};

template <class T, class Keep>
void keep_only(std::vector<T>* v, Keep keep) {
    v->erase(std::remove_if(v->begin(), v->end(), [&](const T& x) { return !keep(x); }), v->end());
}

// The store's records, one listing; 2 when the store cannot be read.
int list(const std::string& what, const std::string& uuid, bool json, const Filter& f) {
    if (int rc = ctl::enter_store(); rc != 0)
        return rc;
    const time_t now = std::time(nullptr);
    const std::string node = std::to_string(f.node);
    std::string why, out;
    int rc = 0;
    if (what == "nodes") {
        std::vector<ctl::NodeView> v;
        rc = ctl::load_nodes(now, &v, &why);
        if (!f.state.empty())
            keep_only(&v, [&](const ctl::NodeView& n) { return n.state == f.state; });
        out = json ? ctl::nodes_json(v) : ctl::nodes_table(v);
    } else if (what == "datastores") {
        std::vector<ctl::DatastoreView> v;
        rc = ctl::load_datastores(&v, &why);
        out = json ? ctl::datastores_json(v) : ctl::datastores_table(v);
    } else if (what == "docs") {
        std::vector<ctl::DocView> v;
        rc = ctl::load_docs(now, &v, &why);
        if (f.node)
            keep_only(&v, [&](const ctl::DocView& d) { return d.node == node; });
        out = json ? ctl::docs_json(v) : ctl::docs_table(v);
    } else if (uuid.empty()) {
        std::vector<ctl::VDiskView> v;
        rc = ctl::load_vdisks(&v, &why);
        if (f.node)
            keep_only(&v, [&](const ctl::VDiskView& d) {
                return std::any_of(d.members.begin(), d.members.end(),
                                   [&](const ctl::MemberView& m) { return m.node == f.node; });
            });
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

// A control command names a node of this host: the daemon announces for
// its local nodes only, and a line for another one would be taken without
// a word and do nothing. 0, 1 for another node, 2 when the local-nodes file
// cannot be read.
int check_local(const std::string& node) {
    std::set<uint32_t> ids;
    std::string why;
    if (!ctl::local_node_ids(&ids, &why)) {
        std::cerr << "corvalctl: " << why << "\n";
        return 2;
    }
    for (uint32_t id : ids)
        if (node == std::to_string(id))
            return 0;
    std::cerr << "corvalctl: node " << ctl::escape(node) << " is not local (not in "
              << ctl::escape(cfg_local_nodes) << ")\n";
    return 1;
}

// Why TEXT is no JSON document ("" when it is one): every host would store
// it as it is.
std::string check_json_text(const std::string& text) {
    try {
        [[maybe_unused]] const auto parsed = nlohmann::json::parse(text);
    } catch (const nlohmann::json::parse_error& e) {
        std::string what = e.what();
        const size_t at = what.find("] ");
        return "TEXT is not JSON: " + (at == std::string::npos ? what : what.substr(at + 2));
    }
    return "";
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
    app.add_flag("--json", json, "one JSON document instead of tables (listings, status, watch)");
    app.set_version_flag("--version", "corvalctl " CORVALD_VERSION);
    app.require_subcommand(1);
    app.fallthrough();
    Filter filter;
    app.add_subcommand("nodes", "list the nodes")
        ->add_option("--state", filter.state, "only the nodes in this state")
        ->check(CLI::IsMember({"alive", "late", "silent"}));
    app.add_subcommand("datastores", "list the datastores");
    app.add_subcommand("docs", "list the documents")
        ->add_option("--node", filter.node, "only the documents of this node")
        ->check(CLI::Range(int64_t{1}, int64_t{UINT32_MAX}));
    CLI::App* vdisks = app.add_subcommand("vdisks", "list the VDisks, or show one in full");
    vdisks->add_option("UUID", uuid, "the VDisk to show");
    vdisks->add_option("--node", filter.node, "only the VDisks with a member on this node")
        ->check(CLI::Range(int64_t{1}, int64_t{UINT32_MAX}));
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

    // status and check: where the metrics file is (the daemon's setting
    // unless given) and where check keeps the last store-error count.
    std::string metrics, state_file;
    bool metrics_given = false;
    CLI::App* status = app.add_subcommand("status", "the daemon, its nodes, peers, locks, metrics");
    CLI::App* check = app.add_subcommand("check", "a health check for monitoring systems");
    for (CLI::App* s : {status, check})
        s->add_option("--metrics-file", metrics, "the daemon's metrics file")
            ->each([&](const std::string&) { metrics_given = true; });
    ctl::CheckLimits limits;
    check->add_option("--state-file", state_file, "the last store-error count (<metrics>.check)");
    check->add_option("--local-warn", limits.local_warn,
                      "seconds since a local node's last announcement (2 heartbeats)");
    check->add_option("--local-crit", limits.local_crit, "the same, critical (5 heartbeats)");
    check->add_option("--late-warn", limits.late_warn, "peers late (0: off)")->capture_default_str();
    check->add_option("--late-crit", limits.late_crit, "peers late, critical")->capture_default_str();
    check->add_option("--silent-warn", limits.silent_warn, "peers silent")->capture_default_str();
    check->add_option("--silent-crit", limits.silent_crit, "peers silent, critical")
        ->capture_default_str();
    check->add_option("--dead-locks-warn", limits.dead_locks_warn, "locks of dead holders")
        ->capture_default_str();
    check->add_option("--store-errors-warn", limits.store_errors_warn,
                      "store errors since the last check")
        ->capture_default_str();

    app.add_subcommand("watch", "print the store's changes as they happen");
    int timeout = 30;
    std::vector<std::string> wait_args(2);
    CLI::App* wait = app.add_subcommand("wait", "wait until a node, VDisk or document is there");
    wait->require_subcommand(1);
    for (auto [what, args, help] :
         {std::tuple{"node", std::vector<const char*>{"ID"}, "the node is alive"},
          {"vdisk", {"UUID"}, "the VDisk record can be read"},
          {"doc", {"PATH", "FILE"}, "the document is stored here"}}) {
        CLI::App* w = wait->add_subcommand(what, help);
        for (size_t i = 0; i < args.size(); ++i) w->add_option(args[i], wait_args[i])->required();
        w->add_option("--timeout", timeout, "seconds")->capture_default_str();
    }
    std::string lock_name;
    std::vector<std::string> lock_command;
    int lock_timeout = 60;
    CLI::App* lock = app.add_subcommand("lock", "run a command holding a store lock");
    lock->add_option("NAME", lock_name, "the lock name (NODE-1, VDISK-<uuid>, ...)")->required();
    lock->add_option("COMMAND", lock_command, "the command and its arguments, after --")
        ->required();
    lock->add_option("--timeout", lock_timeout, "seconds to wait for the lock")
        ->capture_default_str();

    // The control commands: keyword of the line, then its arguments.
    const std::vector<std::pair<const char*, std::vector<const char*>>> commands = {
        {"ds-ping", {"NODE"}},
        {"single-vdisk-ping", {"NODE", "VDISK"}},
        {"vdisk-deleted", {"NODE", "VDISK"}},
        {"store-json", {"NODE", "PATH", "FILE", "TEXT"}},
        {"delete-json", {"NODE", "PATH", "FILE", "TEXT"}}};
    ctl::Command cmd;
    cmd.args.resize(4);
    bool wait_json = false;
    for (const auto& [name, args] : commands) {
        CLI::App* sub = app.add_subcommand(name, "send one control command to the daemon");
        for (size_t i = 0; i < args.size(); ++i) sub->add_option(args[i], cmd.args[i])->required();
        if (args.size() == 4) {
            sub->add_flag("--wait", wait_json, "wait until this host's store shows the result");
            sub->add_option("--timeout", timeout, "seconds to wait")->capture_default_str();
        }
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& e) {  // --help, --version
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        return usage_error(e.what());
    }

    const CLI::App* sub = app.get_subcommands().front();
    const std::string name = sub->get_name();
    if (name == "keygen")
        return keygen(key_id);
    auto it = std::find_if(commands.begin(), commands.end(),
                           [&](const auto& c) { return name == c.first; });
    // A VDisk uuid names a directory of the store, and nothing beside it.
    if (!uuid.empty() && (uuid.size() > 14 || !uuid_is_safe(uuid.c_str(), uuid.size())))
        return usage_error("UUID must be a VDisk uuid of 1 to 14 characters: " + uuid);
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
            return usage_error(why);
    }

    // check-config: the reader's errors as below (2), then its own warnings (1).
    if (!check_file.empty())
        config = check_file;
    opt_config = config.c_str();
    config_module_setup();
    if (std::string error; config_read(opt_config, error) < 0) {
        if (name == "check") {
            std::cout << "CORVALD UNKNOWN - " << ctl::escape(error.substr(0, error.find('\n')))
                      << " | \n";
            return 3;
        }
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
    ctl::remember_settings();
    cfg_node_lock_timeout_ms = cfg_datastore_lock_timeout_ms = cfg_vdisk_lock_timeout_ms =
        cfg_path_lock_timeout_ms = ctl::kLockWaitMs;
    // Files named on the command line are taken from the current directory;
    // a relative metrics_file setting, like the daemon's, from the store.
    for (std::string* f : {&metrics, &state_file}) {
        if (f->empty() || f->front() == '/')
            continue;
        if (char* here = ::getcwd(nullptr, 0)) {
            *f = std::string(here) + "/" + *f;
            std::free(here);
        }
    }
    if (!metrics_given)
        metrics = ctl::setting("metrics_file");

    if (name == "locks")
        return locks(json, break_dead);
    if (name == "status")
        return ctl::status(json, config, metrics);
    if (name == "check")
        return ctl::check(limits, metrics, state_file);
    if (name == "lock" || name == "watch" || name == "wait") {
        // The command runs where corvalctl was started, not in the store.
        const int cwd = ::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (int rc = ctl::enter_store(); rc != 0)
            return rc;
        if (name == "lock")
            return ctl::lock_run(lock_name, lock_timeout, lock_command, cwd);
        if (name == "watch")
            return ctl::watch(json);
        return ctl::wait_for(sub->get_subcommands().front()->get_name(), wait_args, timeout);
    }
    if (it == commands.end())
        return list(name, uuid, json, filter);
    if (std::string why = ctl::check_command(cmd, cfg_msg_buffer_size); !why.empty())
        return usage_error(why);
    if (name == "store-json")
        if (std::string why = check_json_text(cmd.args.back()); !why.empty())
            return usage_error(why);
    if (int rc = check_local(cmd.args[0]); rc != 0)
        return rc;
    // The store is entered before the line goes: a store that cannot be
    // watched must not leave a command sent with nobody waiting for it.
    if (wait_json)
        if (int rc = ctl::enter_store(); rc != 0)
            return rc;
    ::signal(SIGPIPE, SIG_IGN);
    const std::string line = ctl::command_line(cmd);
    if (std::string why; ctl::send_line(line, &why) < 0) {
        std::cerr << "corvalctl: " << why << "\n";
        return 2;
    }
    std::cout << "sent: " << line << std::flush;
    return wait_json ? ctl::wait_json(cmd, timeout) : 0;
}
