// corvalctl status and check: the daemon's process, its configuration, its
// nodes, its peers, its locks and its metrics file, gathered once and shown
// to a person, a script (JSON) or a monitoring system (check).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "base/config.h"
#include "base/config_internal.h"
#include "ops.h"
#include "render.h"
#include "store/lock_files.h"
#include "store/node.h"
#include "util/unique_fd.h"
#include "view.h"

namespace corvald::ctl {

namespace {

using J = nlohmann::ordered_json;

// One sample line of the metrics file: name{labels} value.
struct Sample {
    std::string line, name;
    std::map<std::string, std::string> labels;
    double value = 0;
};

struct Gathered {
    time_t now = 0;
    // The daemon's process, from its pid file.
    bool running = false;
    pid_t pid = 0;
    time_t started = 0;  // 0: unknown
    std::string daemon_why;
    // The store.
    std::string store_error;
    std::set<uint32_t> local;
    std::vector<NodeView> nodes;
    std::vector<LockFileInfo> locks;
    // The metrics file, when one is named.
    std::string metrics_file, metrics_error;
    bool metrics_missing = false;
    std::vector<Sample> samples;
};

std::vector<std::pair<std::string, J>> settings_read;

// The pid in the daemon's pid file; running only when that process exists
// and started before the file was written (a later process only got the
// number again).
void look_at_daemon(Gathered* g) {
    UniqueFd fd(::open(cfg_pid_file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st;
    char text[16] = {};
    if (!fd || ::fstat(fd.get(), &st) < 0 || ::read(fd.get(), text, sizeof text - 1) < 0) {
        g->daemon_why = "pid file " + cfg_pid_file + ": " + std::strerror(errno);
        return;
    }
    char* end;
    const long pid = std::strtol(text, &end, 10);
    if (pid <= 0 || *end != '\n') {
        g->daemon_why = "pid file " + cfg_pid_file + " holds no pid";
        return;
    }
    g->pid = static_cast<pid_t>(pid);
    g->running = holder_alive(g->pid, st.st_mtime);
    if (!g->running)
        g->daemon_why = "process " + std::to_string(pid) + " of pid file " + cfg_pid_file +
                        " is gone";
    else
        g->started = process_start(g->pid);
}

// Sample lines of the text exposition format; comments and lines that do
// not parse are left out.
std::vector<Sample> parse_metrics(std::istream& in) {
    std::vector<Sample> out;
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#')
            continue;
        Sample s;
        s.line = line;
        size_t i = line.find_first_of("{ ");
        s.name = line.substr(0, i);
        if (i != std::string::npos && line[i] == '{') {
            for (++i; i < line.size() && line[i] != '}';) {
                const size_t eq = line.find("=\"", i);
                if (eq == std::string::npos)
                    break;
                std::string v;
                size_t k = eq + 2;
                for (; k < line.size() && line[k] != '"'; ++k)
                    v += line[k] == '\\' && k + 1 < line.size() ? line[++k] : line[k];
                s.labels[line.substr(i, eq - i)] = v;
                i = k + 1;
                if (i < line.size() && line[i] == ',')
                    ++i;
            }
            i = line.find('}', i);
            i = i == std::string::npos ? i : i + 1;
        }
        if (i == std::string::npos)
            continue;
        std::istringstream rest(line.substr(i));
        std::string value;
        rest >> value;
        char* end;
        s.value = std::strtod(value.c_str(), &end);
        if (!value.empty() && *end == '\0')
            out.push_back(std::move(s));
    }
    return out;
}

Gathered gather(const std::string& metrics_file) {
    Gathered g;
    g.now = std::time(nullptr);
    look_at_daemon(&g);
    std::string why;
    if (!local_node_ids(&g.local, &why))
        g.store_error = why;
    if (enter_store(&why) != 0) {
        g.store_error = why;
    } else if (load_nodes(g.now, &g.nodes, &why) < 0) {
        g.store_error = "cannot read the store: " + why;
    } else {
        g.locks = LockFileList();
    }
    g.metrics_file = metrics_file;
    if (!metrics_file.empty()) {
        std::ifstream in(metrics_file);
        if (!in) {
            g.metrics_missing = errno == ENOENT;
            g.metrics_error = metrics_file + ": " + std::strerror(errno);
        }
        else
            g.samples = parse_metrics(in);
    }
    return g;
}

const NodeView* find_node(const Gathered& g, uint32_t id) {
    for (const NodeView& n : g.nodes)
        if (n.id == std::to_string(id))
            return &n;
    return nullptr;
}

// Peers by liveness; a record that could not be read counts as unknown.
std::map<std::string, std::vector<std::string>> peers(const Gathered& g) {
    std::map<std::string, std::vector<std::string>> by;
    for (const char* s : {"alive", "late", "silent", "unknown"}) by[s];
    for (const NodeView& n : g.nodes)
        if (!n.local)
            by[n.state.empty() ? "unknown" : n.state].push_back(n.id);
    return by;
}

std::vector<const LockFileInfo*> dead_locks(const Gathered& g) {
    std::vector<const LockFileInfo*> out;
    for (const LockFileInfo& l : g.locks)
        if (l.pid > 0 && !l.alive)
            out.push_back(&l);
    return out;
}

J id_number(const std::string& id) {
    char* end;
    const unsigned long v = std::strtoul(id.c_str(), &end, 10);
    return *end == '\0' && !id.empty() ? J(v) : J(nullptr);
}

J status_json(const Gathered& g, const std::string& config_path) {
    J settings = J::object();
    for (const auto& [k, v] : settings_read) settings[k] = v;
    J local = J::array();
    for (uint32_t id : g.local) {
        const NodeView* n = find_node(g, id);
        local.push_back({{"id", id},
                         {"lastping", n && n->lastping ? J(*n->lastping) : J(nullptr)},
                         {"age", n && n->age ? J(*n->age) : J(nullptr)},
                         {"state", n ? J(n->state.empty() ? "unknown" : n->state) : J(nullptr)}});
    }
    J by = J::object();
    for (const auto& [state, ids] : peers(g)) {
        by[state] = J::array();
        for (const std::string& id : ids) by[state].push_back(id_number(id));
    }
    J dead = J::array();
    for (const LockFileInfo* l : dead_locks(g)) dead.push_back({{"name", l->name}, {"pid", l->pid}});
    J samples = J::array();
    for (const Sample& s : g.samples)
        samples.push_back({{"name", s.name}, {"labels", s.labels}, {"value", s.value}});
    return {{"daemon",
             {{"running", g.running},
              {"pid", g.running ? J(g.pid) : J(nullptr)},
              {"pid_file", cfg_pid_file},
              {"started", g.started ? J(int64_t{g.started}) : J(nullptr)},
              {"uptime_seconds", g.started ? J(int64_t{g.now - g.started}) : J(nullptr)},
              {"error", g.daemon_why.empty() ? J(nullptr) : J(g.daemon_why)}}},
            {"config", {{"file", config_path}, {"settings", settings}}},
            {"store",
             {{"work_directory", cfg_work_directory},
              {"error", g.store_error.empty() ? J(nullptr) : J(g.store_error)}}},
            {"local_nodes", local},
            {"peers", by},
            {"locks", {{"held", g.locks.size() - dead_locks(g).size()}, {"dead", dead}}},
            {"metrics",
             {{"file", g.metrics_file.empty() ? J(nullptr) : J(g.metrics_file)},
              {"error", g.metrics_error.empty() ? J(nullptr) : J(g.metrics_error)},
              {"samples", samples}}}};
}

std::string duration(int64_t s) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%lldd %02lld:%02lld:%02lld", static_cast<long long>(s / 86400),
                  static_cast<long long>(s / 3600 % 24), static_cast<long long>(s / 60 % 60),
                  static_cast<long long>(s % 60));
    return buf;
}

std::string status_text(const Gathered& g, const std::string& config_path) {
    std::ostringstream o;
    o << "daemon: ";
    if (g.running) {
        o << "running, pid " << g.pid;
        if (g.started)
            o << ", up " << duration(g.now - g.started);
    } else {
        o << "not running (" << escape(g.daemon_why) << ")";
    }
    o << "\nconfiguration: " << escape(config_path) << "\n";
    for (const auto& [k, v] : settings_read)
        o << "  " << k << " = " << escape(v.is_string() ? v.get<std::string>() : v.dump()) << "\n";
    if (!g.store_error.empty())
        o << "store: " << escape(g.store_error) << "\n";
    o << "local nodes:\n";
    for (uint32_t id : g.local) {
        const NodeView* n = find_node(g, id);
        o << "  " << id << "  ";
        if (n == nullptr)
            o << "never announced\n";
        else if (!n->error.empty())
            o << "error: " << escape(n->error) << "\n";
        else
            o << "announced " << (n->age ? fmt_age(*n->age) : "-") << "  " << n->state << "\n";
    }
    o << "peers:";
    for (const auto& [state, ids] : peers(g)) {
        std::string list;
        for (const std::string& id : ids) list += (list.empty() ? "" : ",") + escape(id);
        o << "  " << state << " " << ids.size() << (ids.empty() ? "" : " (" + list + ")");
    }
    const auto dead = dead_locks(g);
    o << "\nlocks: " << g.locks.size() - dead.size() << " held, " << dead.size() << " dead-held\n";
    for (const LockFileInfo* l : dead) o << "  " << escape(l->name) << "  pid " << l->pid << " dead\n";
    if (!g.metrics_file.empty()) {
        o << "metrics: " << escape(g.metrics_file) << "\n";
        if (!g.metrics_error.empty())
            o << "  " << escape(g.metrics_error) << "\n";
        for (const Sample& s : g.samples) o << "  " << escape(s.line) << "\n";
    }
    return o.str();
}

// The monitoring plugin's verdict: the worst level any condition reached.
struct Verdict {
    int level = 0;  // 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN
    std::vector<std::string> why;
    std::string perf;

    void raise(int l, const std::string& text) {
        // Worst first: CRITICAL, UNKNOWN, WARNING. A daemon that is down stays
        // CRITICAL even when its store cannot be read either, and a store
        // that cannot be read hides whatever it might have warned of.
        static const int kRank[] = {0, 1, 3, 2};
        if (kRank[l] > kRank[level])
            level = l;
        why.push_back(text);
    }
    // 'label'=value;warn;crit; an empty threshold for one that is off.
    void measure(const std::string& label, double v, const std::string& uom, int warn, int crit) {
        char num[32];
        std::snprintf(num, sizeof num, "%g", v);
        perf += (perf.empty() ? "'" : " '") + label + "'=" + num + uom + ";" +
                (warn > 0 ? std::to_string(warn) : "") + ";" + (crit > 0 ? std::to_string(crit) : "");
    }
};

// Whether a count reached a threshold (0: off).
bool reached(size_t count, int threshold) {
    return threshold > 0 && count >= static_cast<size_t>(threshold);
}

// The last store-error count the check saw, kept between runs; -1 none.
double read_last(const std::string& file) {
    std::ifstream in(file);
    double v = -1;
    return in >> v ? v : -1;
}

void write_last(const std::string& file, double v, Verdict* out) {
    const std::string tmp = file + ".tmp";
    {
        std::ofstream o(tmp, std::ios::trunc);
        o << std::llround(v) << "\n";
        if (!o)
            out->raise(3, "cannot write " + tmp);
    }
    if (std::rename(tmp.c_str(), file.c_str()) != 0)
        out->raise(3, "cannot write " + file + ": " + std::strerror(errno));
}

void check_store_errors(const Gathered& g, const CheckLimits& l, const std::string& state_file,
                        Verdict* v) {
    if (g.metrics_file.empty())
        return;
    if (!g.metrics_error.empty()) {
        // Written at the first statistics report: a daemon that just
        // started has none yet.
        if (!g.metrics_missing)
            v->raise(3, g.metrics_error);
        return;
    }
    double errors = -1;
    for (const Sample& s : g.samples)
        if (s.name == "corvald_store_errors_total")
            errors = std::max(errors, 0.0) + s.value;
    if (errors < 0)
        return;
    const double last = read_last(state_file);
    // A counter that went down belongs to a restarted daemon: all of it is new.
    const double fresh = last < 0 ? 0 : errors >= last ? errors - last : errors;
    write_last(state_file, errors, v);
    v->measure("store_errors", fresh, "c", l.store_errors_warn, 0);
    if (reached(static_cast<size_t>(fresh), l.store_errors_warn))
        v->raise(1, std::to_string(static_cast<long long>(fresh)) + " new store errors");
}

}  // namespace

void remember_settings() {
    for (const ConfigKey& k : config_keys()) {
        J v;
        if (k.str != nullptr)
            v = *k.str;
        else if (k.kind == ConfigKind::Facility || k.kind == ConfigKind::Priority)
            v = (k.kind == ConfigKind::Facility ? config_facility_name(*k.num)
                                                : config_priority_name(*k.num)) ?: "?";
        else
            v = *k.num;
        settings_read.emplace_back(k.name, v);
    }
}

std::string setting(const char* key) {
    for (const ConfigKey& k : config_keys())
        if (k.str != nullptr && std::strcmp(k.name, key) == 0)
            return *k.str;
    return "";
}

bool local_node_ids(std::set<uint32_t>* ids, std::string* why) {
    NodeList nodes;
    if (read_local_nodes(cfg_local_nodes.c_str(), &nodes) < 0) {
        *why = "local nodes " + cfg_local_nodes + " cannot be read";
        return false;
    }
    for (const auto& n : nodes) ids->insert(n->nodeid);
    return true;
}

int status(bool json, const std::string& config_path, const std::string& metrics_file) {
    const Gathered g = gather(metrics_file);
    if (json)
        std::cout << status_json(g, config_path).dump(2, ' ', false, J::error_handler_t::replace)
                  << "\n";
    else
        std::cout << status_text(g, config_path);
    // As an init script's status: 0 running, 3 not running.
    return g.running ? 0 : 3;
}

int check(const CheckLimits& l, const std::string& metrics_file, std::string state_file) {
    const Gathered g = gather(metrics_file);
    Verdict v;
    if (!g.running)
        v.raise(2, "daemon not running: " + g.daemon_why);
    if (!g.store_error.empty())
        v.raise(3, g.store_error);
    const int warn = l.local_warn >= 0 ? l.local_warn : 2 * cfg_heartbeat_interval;
    const int crit = l.local_crit >= 0 ? l.local_crit : 5 * cfg_heartbeat_interval;
    if (g.store_error.empty()) {
        int64_t oldest = 0;
        for (uint32_t id : g.local) {
            const NodeView* n = find_node(g, id);
            const std::string name = "local node " + std::to_string(id);
            if (n == nullptr || !n->age) {
                v.raise(2, name + " never announced");
                continue;
            }
            oldest = std::max(oldest, *n->age);
            if (*n->age > crit || *n->age > warn)
                v.raise(*n->age > crit ? 2 : 1,
                        name + " last announced " + std::to_string(*n->age) + "s ago");
        }
        v.measure("local_age", static_cast<double>(oldest), "s", warn, crit);
        auto by = peers(g);
        for (auto [state, w, c] : {std::tuple{"late", l.late_warn, l.late_crit},
                                   std::tuple{"silent", l.silent_warn, l.silent_crit}}) {
            const size_t n = by[state].size();
            v.measure(std::string("peers_") + state, static_cast<double>(n), "", w, c);
            if (reached(n, c) || reached(n, w))
                v.raise(reached(n, c) ? 2 : 1, std::to_string(n) + " peers " + state);
        }
        v.measure("peers_alive", static_cast<double>(by["alive"].size()), "", 0, 0);
        const size_t dead = dead_locks(g).size();
        v.measure("dead_locks", static_cast<double>(dead), "", l.dead_locks_warn, 0);
        if (reached(dead, l.dead_locks_warn))
            v.raise(1, std::to_string(dead) + " locks held by dead processes");
    }
    if (state_file.empty() && !g.metrics_file.empty())
        state_file = g.metrics_file + ".check";
    check_store_errors(g, l, state_file, &v);

    static const char* const kLevel[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
    std::string text;
    for (const std::string& w : v.why) text += (text.empty() ? "" : "; ") + w;
    if (text.empty())
        text = std::to_string(g.local.size()) + " local nodes announced, " +
               std::to_string(peers(g)["alive"].size()) + " peers alive";
    // The perfdata separator and line breaks belong to the plugin format.
    for (char& c : text)
        if (c == '|' || c == '\n')
            c = ' ';
    std::cout << "CORVALD " << kLevel[v.level] << " - " << escape(text) << " | " << v.perf << "\n";
    return v.level;
}

}  // namespace corvald::ctl
