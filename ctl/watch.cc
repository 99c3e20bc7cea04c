// Watching the store: inotify on its record trees, each batch of events
// answered by a fresh look at the records, and the looks compared. The
// looks read no record under its lock: a watcher that took locks on every
// change would slow the daemon it watches, and each record is read again
// at its next change anyway.
#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>

#include "base/config.h"
#include "ops.h"
#include "render.h"
#include "store/json_store.h"
#include "store/lock.h"
#include "util/unique_fd.h"
#include "view.h"

namespace corvald::ctl {

namespace {

using J = nlohmann::ordered_json;

const char* const kTrees[] = {"Node", "Datastore", "VDisk", "v2"};

int64_t now_ms(clockid_t clock) {
    struct timespec ts;
    ::clock_gettime(clock, &ts);
    return int64_t{ts.tv_sec} * 1000 + ts.tv_nsec / 1000000;
}

// Seconds of the same clock the waits are measured on: time(2) reads a
// coarser one that may still show the second before a wait's end.
time_t wall() {
    return static_cast<time_t>(now_ms(CLOCK_REALTIME) / 1000);
}

// One inotify instance over the record trees of the store, every directory
// below them included, and the store root for a tree that appears later.
class StoreWatch {
public:
    bool open(std::string* why) {
        fd_.reset(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
        const int wd = fd_ ? ::inotify_add_watch(fd_.get(), cfg_work_directory.c_str(),
                                                 IN_CREATE | IN_MOVED_TO | IN_ONLYDIR)
                           : -1;
        if (wd < 0) {
            *why = "cannot watch " + cfg_work_directory + ": " + std::strerror(errno);
            return false;
        }
        dirs_[wd] = "";
        for (const char* t : kTrees) add(t);
        return true;
    }

    // Waits up to timeout_ms (-1: for ever) for events; the store paths
    // they name go to *touched. 1 events, 0 timeout, -1 failure.
    int read(int64_t timeout_ms, std::set<std::string>* touched) {
        struct pollfd p = {fd_.get(), POLLIN, 0};
        const int n = ::poll(&p, 1, static_cast<int>(std::min<int64_t>(timeout_ms, 1 << 30)));
        if (n <= 0)
            return n < 0 && errno != EINTR ? -1 : 0;
        alignas(struct inotify_event) char buf[65536];
        ssize_t len;
        while ((len = ::read(fd_.get(), buf, sizeof buf)) > 0) {
            for (char* p = buf; p < buf + len;) {
                const auto* e = reinterpret_cast<const struct inotify_event*>(p);
                p += sizeof *e + e->len;
                take(*e, touched);
            }
        }
        return len < 0 && errno != EAGAIN ? -1 : 1;
    }

private:
    void take(const struct inotify_event& e, std::set<std::string>* touched) {
        auto it = dirs_.find(e.wd);
        if (it == dirs_.end())
            return;
        if (e.mask & IN_IGNORED) {
            dirs_.erase(it);
            return;
        }
        const std::string name = e.len ? e.name : "";
        const std::string dir = it->second;
        const std::string rel = dir.empty() ? name : dir + "/" + name;
        if (dir.empty() && std::none_of(std::begin(kTrees), std::end(kTrees),
                                        [&](const char* t) { return name == t; }))
            return;
        if ((e.mask & (IN_CREATE | IN_MOVED_TO)) && (e.mask & IN_ISDIR))
            add(rel);
        if (touched)
            touched->insert(rel);
    }

    // Watches the directory rel and every directory below it; links are not
    // followed, so nothing outside the store is ever watched.
    void add(const std::string& rel) {
        const std::string full = cfg_work_directory + "/" + rel;
        const int wd = ::inotify_add_watch(fd_.get(), full.c_str(),
                                           IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                               IN_CLOSE_WRITE | IN_ATTRIB | IN_ONLYDIR |
                                               IN_DONT_FOLLOW);
        if (wd < 0)
            return;
        dirs_[wd] = rel;
        DIR* d = ::opendir(full.c_str());
        if (d == nullptr)
            return;
        while (const dirent* e = ::readdir(d)) {
            struct stat st;
            if (std::strcmp(e->d_name, ".") && std::strcmp(e->d_name, "..") &&
                ::fstatat(::dirfd(d), e->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
                S_ISDIR(st.st_mode))
                add(rel + "/" + e->d_name);
        }
        ::closedir(d);
    }

    UniqueFd fd_;
    std::map<int, std::string> dirs_;
};

// 1 when it holds, 0 when it does not, -1 when it cannot be told yet (a
// record locked) and must be asked again soon.
using Condition = std::function<int()>;

// How soon a condition that could not be told is asked again: the release
// of a lock is no event of the watched trees.
constexpr int64_t kRetryMs = 50;

int wait_until(const Condition& holds, int timeout_s, const std::string& what) {
    StoreWatch w;
    std::string why;
    if (!w.open(&why)) {
        std::cerr << "corvalctl: " << why << "\n";
        return 2;
    }
    const int64_t deadline = now_ms(CLOCK_MONOTONIC) + int64_t{timeout_s} * 1000;
    for (;;) {
        const int h = holds();
        if (h > 0)
            return 0;
        const int64_t left = deadline - now_ms(CLOCK_MONOTONIC);
        if (left <= 0) {
            std::cerr << "corvalctl: timed out after " << timeout_s << "s: " << escape(what)
                      << "\n";
            return 1;
        }
        if (w.read(h < 0 ? std::min(left, kRetryMs) : left, nullptr) < 0) {
            std::cerr << "corvalctl: watching the store: " << std::strerror(errno) << "\n";
            return 2;
        }
    }
}

std::optional<int64_t> read_lastping(const std::string& id) {
    UniqueFd fd(::open((cfg_work_directory + "/Node/" + id + "/lastping").c_str(),
                       O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    char buf[32] = {};
    if (!fd || ::read(fd.get(), buf, sizeof buf - 1) <= 0)
        return std::nullopt;
    char* end;
    errno = 0;
    const long long v = std::strtoll(buf, &end, 10);
    // Written in place: a text without its line feed is still being written.
    if (errno || end == buf || *end != '\n')
        return std::nullopt;
    return v;
}

bool is_node_id(const std::string& s) {
    return !s.empty() && s.size() <= 10 && s[0] != '0' &&
           s.find_first_not_of("0123456789") == std::string::npos &&
           std::stoull(s) <= UINT32_MAX;
}

std::vector<std::string> subdirs(const std::string& top) {
    std::vector<std::string> out;
    DIR* d = ::opendir((cfg_work_directory + "/" + top).c_str());
    if (d == nullptr)
        return out;
    while (const dirent* e = ::readdir(d)) {
        struct stat st;
        if (std::strcmp(e->d_name, ".") && std::strcmp(e->d_name, "..") &&
            ::fstatat(::dirfd(d), e->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode))
            out.push_back(e->d_name);
    }
    ::closedir(d);
    return out;
}

struct NodeSeen {
    int64_t lastping = 0;
    std::string state;
};

struct DocSeen {
    int64_t lastping = 0;
    std::string node;
    std::string text;
};

struct Look {
    std::map<uint32_t, NodeSeen> nodes;
    std::map<std::string, std::string> vdisks;  // uuid: every file and link of the record
    std::map<std::string, DocSeen> docs;        // by document, relative to the JSON tree
    bool retry = false;  // a record was locked: look again soon
};

std::string node_state(int64_t lastping, time_t now) {
    return liveness(now - lastping, cfg_heartbeat_interval);
}

// The document file's metadata and text, under the document's lock as the
// daemon writes both; 1, 0 when there is no whole document, -1 locked.
int read_document(const std::string& file, DocSeen* d) {
    const LockName name = JsonLockName(file.c_str());
    HeldLock lock;
    if (!name.fits)
        return 0;
    if (const int rc = lock.take(name); rc < 0)
        return rc == -1 ? -1 : 0;
    jsonEntry je = {};
    if (json_load_metadata(file.c_str(), &je) < 0)
        return 0;
    std::string text(static_cast<size_t>(cfg_msg_buffer_size), '\0');
    const ssize_t n = json_read_document(file.c_str(), text.data(), text.size());
    if (n < 0)
        return 0;
    text.resize(static_cast<size_t>(n));
    d->lastping = je.lastping;
    d->node = std::string(je.nodeuuid, strnlen(je.nodeuuid, sizeof je.nodeuuid));
    d->text = std::move(text);
    return 1;
}

// The walks have no way to pass state to their callbacks.
std::vector<std::string>* walked = nullptr;

int walk_entry(const char* fpath, const struct stat*, int, struct FTW*) {
    walked->push_back(fpath);
    return 0;
}

// Every path below dir (dir first), links not followed.
std::vector<std::string> walk(const std::string& dir) {
    std::vector<std::string> out;
    walked = &out;
    ::nftw(dir.c_str(), walk_entry, 16, FTW_PHYS);
    walked = nullptr;
    return out;
}

// What a VDisk record holds, every file's contents and link's target,
// under its lock; false when locked.
bool vdisk_contents(const std::string& uuid, std::string* out) {
    HeldLock lock;
    if (lock.take(VDiskLockName(uuid.c_str())) < 0)
        return false;
    out->clear();
    for (const std::string& p : walk(cfg_work_directory + "/VDisk/" + uuid)) {
        char buf[4096];
        UniqueFd fd(::open(p.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        ssize_t n = fd ? ::read(fd.get(), buf, sizeof buf) : ::readlink(p.c_str(), buf, sizeof buf);
        *out += p + "=" + std::string(buf, static_cast<size_t>(std::max<ssize_t>(n, 0))) + '\0';
    }
    return true;
}

// Whether a path below rel changed in the batch.
bool touched_below(const std::set<std::string>& touched, const std::string& rel) {
    auto t = touched.lower_bound(rel);
    return t != touched.end() && t->rfind(rel, 0) == 0;
}

// The store now, read again only where the batch touched it: a record that
// is being rewritten (a lastping read half-written, a record locked) keeps
// what was seen before.
Look look_at_store(const Look& was, const std::set<std::string>& touched, time_t now) {
    Look l;
    for (const std::string& id : subdirs("Node")) {
        if (!is_node_id(id))
            continue;
        const uint32_t n = static_cast<uint32_t>(std::stoul(id));
        // A record being made has no lastping yet: it joins with its first.
        if (const std::optional<int64_t> lastping = read_lastping(id))
            l.nodes[n] = {*lastping, node_state(*lastping, now)};
        else if (auto it = was.nodes.find(n); it != was.nodes.end())
            l.nodes[n] = {it->second.lastping, node_state(it->second.lastping, now)};
    }
    for (const std::string& uuid : subdirs("VDisk")) {
        auto it = was.vdisks.find(uuid);
        std::string c;
        if (it != was.vdisks.end() && !touched_below(touched, "VDisk/" + uuid + "/"))
            l.vdisks[uuid] = it->second;
        else if (vdisk_contents(uuid, &c))
            l.vdisks[uuid] = c;
        else if (l.retry = true; it != was.vdisks.end())
            l.vdisks[uuid] = it->second;
    }
    const std::string tree = cfg_work_directory + "/v2/";
    for (const std::string& p : walk(tree)) {
        struct stat st;
        if (p.size() <= tree.size() + 4 || p.compare(p.size() - 4, 4, ".mtd") != 0 ||
            ::lstat(p.c_str(), &st) < 0 || !S_ISREG(st.st_mode))
            continue;
        const std::string file = p.substr(0, p.size() - 4), doc = file.substr(tree.size());
        auto it = was.docs.find(doc);
        DocSeen d;
        int rc = 0;
        if (it != was.docs.end() && !touched.count("v2/" + doc) && !touched.count("v2/" + doc + ".mtd"))
            l.docs[doc] = it->second;
        else if ((rc = read_document(file, &d)) > 0)
            l.docs[doc] = std::move(d);
        else if (l.retry |= rc < 0; it != was.docs.end())
            l.docs[doc] = it->second;
    }
    return l;
}

// The next second at which a node's liveness changes by itself, or -1.
time_t next_change(const Look& l, time_t now) {
    time_t next = -1;
    for (const auto& [id, n] : l.nodes) {
        for (int k : {2, 5}) {
            const time_t at = n.lastping + int64_t{k} * cfg_heartbeat_interval + 1;
            if (at > now && (next < 0 || at < next))
                next = at;
        }
    }
    return next;
}

void print(bool json, time_t now, const char* kind, J key, const std::string& event,
           J extra = J::object()) {
    if (json) {
        J line = {{"time", static_cast<int64_t>(now)}, {"kind", kind}};
        const std::string k = kind;
        line[k == "doc" ? "document" : k == "node" ? "id" : k == "vdisk" ? "uuid" : "store"] = key;
        line["event"] = event;
        line.update(extra);
        std::cout << line.dump(-1, ' ', false, J::error_handler_t::replace) << std::endl;
        return;
    }
    char stamp[32];
    struct tm tm;
    std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", ::gmtime_r(&now, &tm));
    const std::string k = key.is_string() ? key.get<std::string>() : key.dump();
    std::cout << stamp << " " << kind << " " << escape(k) << " " << event << std::endl;
}

J node_number(const std::string& node) {
    return is_node_id(node) ? J(std::stoul(node)) : J(nullptr);
}

// The events between two looks; touched are the store paths that changed.
void report(bool json, const Look& was, const Look& is, time_t now) {
    for (const auto& [id, n] : is.nodes) {
        auto it = was.nodes.find(id);
        const J state = {{"state", n.state}};
        if (it == was.nodes.end())
            print(json, now, "node", id, "joined", state);
        else if (it->second.state != n.state)
            print(json, now, "node", id, n.state == "alive" ? "back" : n.state, state);
    }
    for (const auto& [v, c] : is.vdisks)
        if (!was.vdisks.count(v))
            print(json, now, "vdisk", v, "created");
    for (const auto& [v, c] : was.vdisks) {
        if (!is.vdisks.count(v)) {
            print(json, now, "vdisk", v, "removed");
            continue;
        }
        if (is.vdisks.at(v) != was.vdisks.at(v))
            print(json, now, "vdisk", v, "changed");
    }
    for (const auto& [doc, d] : is.docs) {
        auto it = was.docs.find(doc);
        if (it == was.docs.end() || it->second.text != d.text)
            print(json, now, "doc", doc, it == was.docs.end() ? "stored" : "replaced",
                  {{"node", node_number(d.node)}});
    }
    // A document is swept once its last store is five ping intervals old;
    // one that goes before that was deleted by a client.
    for (const auto& [doc, d] : was.docs)
        if (!is.docs.count(doc))
            print(json, now, "doc", doc,
                  now - d.lastping >= 5 * int64_t{cfg_json_ping_interval} ? "expired" : "deleted",
                  {{"node", node_number(d.node)}});
}

}  // namespace

int watch(bool json) {
    StoreWatch w;
    std::string why;
    if (!w.open(&why)) {
        std::cerr << "corvalctl: " << why << "\n";
        return 2;
    }
    Look was = look_at_store({}, {}, wall());
    // Armed: what changes from here on is reported. A script that acts
    // after starting a watch waits for this line.
    print(json, wall(), "watch", cfg_work_directory, "started");
    std::set<std::string> touched;
    for (;;) {
        const time_t next = next_change(was, wall());
        int64_t wait = next < 0 ? -1 : std::max<int64_t>(0, next * 1000 - now_ms(CLOCK_REALTIME));
        if (was.retry)
            wait = wait < 0 ? kRetryMs : std::min(wait, kRetryMs);
        // After a retry the same paths are looked at again.
        if (!was.retry)
            touched.clear();
        if (w.read(wait, &touched) < 0) {
            std::cerr << "corvalctl: watching the store: " << std::strerror(errno) << "\n";
            return 2;
        }
        const time_t now = wall();
        Look is = look_at_store(was, touched, now);
        report(json, was, is, now);
        was = std::move(is);
    }
}

int wait_for(const std::string& what, const std::vector<std::string>& args, int timeout_s) {
    if (what == "node") {
        if (!is_node_id(args[0])) {
            std::cerr << "corvalctl: not a node id: " << escape(args[0]) << "\n";
            return 1;
        }
        return wait_until(
            [&] {
                const std::optional<int64_t> lastping = read_lastping(args[0]);
                return lastping && node_state(*lastping, wall()) == "alive" ? 1 : 0;
            },
            timeout_s, "node " + args[0] + " is not alive");
    }
    if (what == "vdisk") {
        return wait_until(
            [&] {
                const std::string error = load_vdisk(args[0]).error;
                return error.empty() ? 1 : error == "locked" ? -1 : 0;
            },
            timeout_s, "no readable VDisk " + args[0]);
    }
    const std::string file = cfg_work_directory + "/v2/" + args[0] + args[1];
    DocSeen d;
    return wait_until([&] { return read_document(file, &d); }, timeout_s,
                      "no document " + args[0] + args[1]);
}

int wait_json(const Command& c, int timeout_s) {
    const std::string file = cfg_work_directory + "/v2/" + c.args[1] + c.args[2];
    if (c.keyword == "store_json") {
        return wait_until(
            [&] {
                DocSeen d;
                const int rc = read_document(file, &d);
                return rc <= 0 ? rc : d.text == c.args[3] ? 1 : 0;
            },
            timeout_s, "the store does not show " + c.args[1] + c.args[2] + " with this text");
    }
    return wait_until(
        [&] {
            struct stat st;
            return ::lstat(file.c_str(), &st) < 0 && errno == ENOENT &&
                           ::lstat((file + ".mtd").c_str(), &st) < 0 && errno == ENOENT
                       ? 1
                       : 0;
        },
        timeout_s, "the store still shows " + c.args[1] + c.args[2]);
}

}  // namespace corvald::ctl
