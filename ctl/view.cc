#include "view.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <set>

#include "base/config.h"
#include "store/json_store.h"
#include "store/attr.h"
#include "store/datastore.h"
#include "store/lock.h"
#include "store/node.h"
#include "store/vdisk.h"
#include "util/unique_fd.h"

namespace corvald::ctl {

namespace {

std::string last_error;

// The loader's message for the failure since the last clear, or fallback
// when it failed without one.
std::string failure(const char* fallback) {
    return last_error.empty() ? fallback : last_error;
}

std::string bounded(const char* field, size_t width) {
    return std::string(field, strnlen(field, width));
}

struct Entry {
    std::string name;
    mode_t type;  // S_IFMT bits of the entry itself, links not followed
};

// The entries of dir but "." and "..". -1 with *why set when dir exists and
// cannot be read; a missing dir has no entries.
int list_dir(const std::string& dir, std::vector<Entry>* out, std::string* why) {
    out->clear();
    DIR* d = ::opendir(dir.c_str());
    if (d == nullptr) {
        if (errno == ENOENT)
            return 0;
        *why = dir + ": " + std::strerror(errno);
        return -1;
    }
    while (const dirent* e = ::readdir(d)) {
        if (!std::strcmp(e->d_name, ".") || !std::strcmp(e->d_name, ".."))
            continue;
        struct stat st;
        mode_t type = ::fstatat(::dirfd(d), e->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0
                          ? st.st_mode & S_IFMT
                          : 0;
        out->push_back({e->d_name, type});
    }
    ::closedir(d);
    return 0;
}

// The entries of the top directory top of the store, which must be a
// directory of its own: through a link every record would be read from
// elsewhere.
int list_top(const char* top, std::vector<Entry>* out, std::string* why) {
    const std::string dir = cfg_work_directory + "/" + top;
    struct stat st;
    if (::lstat(dir.c_str(), &st) != 0 && errno == ENOENT)
        return 0;
    if (!S_ISDIR(st.st_mode)) {
        *why = dir + ": not a directory, not followed";
        return -1;
    }
    return list_dir(dir, out, why);
}

size_t count_links(const std::string& dir) {
    std::vector<Entry> ents;
    std::string ignored;
    list_dir(dir, &ents, &ignored);
    return std::count_if(ents.begin(), ents.end(),
                         [](const Entry& e) { return e.type == S_IFLNK; });
}

// Why path is not a record the loaders may open ("" when it is): the loaders
// follow links, so a link in place of the record directory or of any entry
// they read would lead them out of the store. links_ok names the entries
// that are links by design and that no loader reads.
std::string unsafe_record(const std::string& path, std::initializer_list<const char*> links_ok) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0)
        return path + ": " + std::strerror(errno);
    if (!S_ISDIR(st.st_mode))
        return path + ": not a directory, not followed";
    std::vector<Entry> ents;
    std::string why;
    if (list_dir(path, &ents, &why) < 0)
        return why;
    for (const Entry& e : ents) {
        if (e.type == S_IFLNK && std::none_of(links_ok.begin(), links_ok.end(),
                                              [&](const char* ok) { return e.name == ok; }))
            return path + "/" + e.name + ": link, not followed";
    }
    return "";
}

// The canonical decimal node id (as the daemon names Node records) in name.
bool parse_nodeid(const std::string& name, uint32_t* id) {
    if (name.empty() || name.size() > 10 || name[0] == '0' ||
        name.find_first_not_of("0123456789") != std::string::npos)
        return false;
    unsigned long v = std::stoul(name);
    *id = static_cast<uint32_t>(v);
    return v <= UINT32_MAX;
}

// Node ids sort by number, other keys by their bytes.
bool id_less(const std::string& a, const std::string& b) {
    return a.size() != b.size() ? a.size() < b.size() : a < b;
}

// The taken lock of a record, released by name at the end of the scope.
// *error is "locked" when somebody else kept it past the wait.
bool lock_record(HeldLock* held, const LockName& ln, std::string* error) {
    last_error.clear();
    int rc = held->take(ln);
    if (rc == -1)
        *error = "locked";
    else if (rc < 0)
        *error = failure("lock failed");
    return rc == 0;
}

void load_node(uint32_t id, time_t now, NodeView* v) {
    const std::string path = cfg_work_directory + "/Node/" + v->id;
    if (v->error = unsafe_record(path, {}); !v->error.empty())
        return;
    HeldLock held;
    if (!lock_record(&held, NodeLockName(id), &v->error))
        return;
    Node n;
    NodeInit(&n, id);
    if (NodeLoad(&n) < 0) {
        v->error = failure("Node record could not be loaded");
        return;
    }
    char ver[32];
    std::snprintf(ver, sizeof ver, "v%u.%u", unsigned{n.hdr.major}, unsigned{n.hdr.minor});
    v->version = ver;
    last_error.clear();
    char ds[16] = {};
    if (NodeLoad_DSMember(n.nodeuuid, ds, sizeof ds) < 0 && !last_error.empty()) {
        v->error = last_error;
        return;
    }
    v->datastore = ds;
    if (NodeLoad_VDisks(id, &n.vdisks) < 0) {
        v->error = failure("VDisk links could not be read");
        return;
    }
    v->vdisks = n.vdisks.size();
    // Written for readers like this one and never read back by the daemon:
    // missing, they leave the address empty and the liveness unknown.
    RecordDir rd("corvalctl");
    char ip[16] = {};
    unsigned long long lastping = 0;
    if (rd.set_path("%s", path.c_str()) == 0 && rd.open() == 0) {
        rd.load_text("ipaddr", ip, sizeof ip - 1, TextTrace::kPlain);
        if (rd.load_u64("lastping", &lastping) == 0) {
            v->lastping = static_cast<int64_t>(lastping);
            v->age = now - *v->lastping;
        }
    }
    v->ipaddr = ip;
    v->state = v->age ? liveness(*v->age, cfg_heartbeat_interval) : "unknown";
}

void load_datastore(DatastoreView* v) {
    const std::string path = cfg_work_directory + "/Datastore/" + v->uuid;
    if (v->uuid.size() > 14)
        v->error = "malformed uuid";
    if (v->error.empty())
        v->error = unsafe_record(path, {});
    if (!v->error.empty())
        return;
    HeldLock held;
    if (!lock_record(&held, DatastoreLockNameStr(v->uuid.c_str()), &v->error))
        return;
    DatastoreEntry dse;
    if (DatastoreLoad(v->uuid.c_str(), &dse) < 0) {
        v->error = failure("Datastore record could not be loaded");
        return;
    }
    v->name = bounded(dse.name, sizeof dse.name);
    v->sector_size = dse.sector_size;
    v->replicas = dse.replicas;
    v->stripes = dse.stripes;
    std::vector<Entry> ents;
    std::string ignored;
    list_dir(path + "/members", &ents, &ignored);
    for (const Entry& e : ents)
        if (e.type == S_IFLNK)
            v->members.push_back(e.name);
    std::sort(v->members.begin(), v->members.end(), id_less);
    v->vdisks = count_links(path + "/vdisks");
}

// One member's record of the VDisk, loaded as that member node would load it
// for its own announcement (a 2.0 node, so the full generation count).
MemberView load_member(const std::string& vdpath, const char* uuid, const Member& m) {
    MemberView mv;
    mv.node = m.mbe.node;
    mv.error = unsafe_record(vdpath + "/memberinfo/" + m.uuid, {"nodestatus"});
    if (!mv.error.empty())
        return mv;
    Node n;
    NodeInit(&n, m.mbe.node);
    n.hdr.major = 2;
    VDisk vd;
    std::strcpy(vd.vdiskuuid, uuid);
    last_error.clear();
    if (VDiskLoad(&n, &vd) < 0) {
        mv.error = failure("member record could not be loaded");
        return mv;
    }
    mv.gen_count = vde_mshipgencnt(&vd.vde);
    mv.status = vd.vde.status;
    for (const Frontend& f : vd.frontends) mv.frontends.push_back(f.ipaddr);
    return mv;
}

void load_vdisk_into(VDiskView* v) {
    const std::string path = cfg_work_directory + "/VDisk/" + v->uuid;
    if (v->uuid.size() > 14)
        v->error = "malformed uuid";
    if (v->error.empty())
        v->error = unsafe_record(path, {"datastore"});
    if (!v->error.empty())
        return;
    VDisk vd;
    std::strcpy(vd.vdiskuuid, v->uuid.c_str());
    HeldLock held;
    if (!lock_record(&held, VDiskLockName(vd.vdiskuuid), &v->error))
        return;
    if (VDiskLoad(nullptr, &vd) < 0) {
        v->error = failure("VDisk record could not be loaded");
        return;
    }
    const VDiskEntry& e = vd.vde;
    v->name = bounded(e.name.name, sizeof e.name.name);
    v->snapshot = e.snapshot != 0;
    v->sector_size = e.sector_size;
    v->sectors = e.sectors;
    v->replicas = e.replicas;
    if (v->snapshot) {
        const SnapDescr& s = e.description.snap;
        char t[64];
        std::snprintf(t, sizeof t, "%02d-%02d-%02d_%02d.%02d.%02d", s.y, s.m, int{s.d}, s.H, s.M,
                      s.S);
        v->snaptime = t;
        v->parent = vd.parentuuid;
    } else {
        v->description = bounded(e.description.descr, sizeof e.description.descr);
    }
    RecordDir rd("corvalctl");
    uint32_t gen = 0;
    if (rd.set_path("%s", path.c_str()) < 0 || rd.open() < 0) {
        v->error = failure("VDisk record could not be opened");
        return;
    }
    if (rd.load_u32("highest_gen_count", &gen) == 0)
        v->highest_gen_count = gen;
    MemberList members;
    last_error.clear();
    if (MembershipLoad(&members, nullptr, rd.path(), rd.fd()) < 0) {
        v->error = failure("membership could not be loaded");
        return;
    }
    for (const Member& m : members) v->members.push_back(load_member(path, vd.vdiskuuid, m));
}

// The walk of the JSON tree has no way to pass state to its callback.
struct DocWalk {
    time_t now;
    size_t prefix;  // length of "<root>/v2/"
    std::set<std::string> index;
    std::vector<DocView>* out;
} walk;

void read_doc(const std::string& file, DocView* d) {
    last_error.clear();
    // The daemon's own lock name for the document; one that cannot be made
    // (logged) is a failure, not a lock held elsewhere.
    const LockName name = JsonLockName(file.c_str());
    HeldLock lock;
    const int rc = name.fits ? lock.take(name) : -2;
    if (rc != 0) {
        d->error = rc == -1 ? "locked" : failure("lock failed");
        return;
    }
    // The daemon's own reader: the whole record or nothing, a link at the
    // file's place not followed.
    jsonEntry je = {};
    const int lrc = json_load_metadata(file.c_str(), &je);
    lock.release();
    if (lrc < 0) {
        d->error = failure("metadata unreadable");
        return;
    }
    d->node = bounded(je.nodeuuid, sizeof je.nodeuuid);
    d->path = bounded(je.path, sizeof je.path);
    d->filename = bounded(je.filename, sizeof je.filename);
    const int64_t lastping = je.lastping;  // a copy: the packed field is misaligned
    d->lastping = lastping;
    d->age = walk.now - lastping;
    d->expires_in = lastping + 5 * int64_t{cfg_json_ping_interval} - walk.now;
}

int doc_entry(const char* fpath, const struct stat*, int type, struct FTW*) {
    std::string p = fpath;
    if (p.size() <= walk.prefix + 4 || p.compare(p.size() - 4, 4, ".mtd") != 0)
        return 0;
    if (type == FTW_D || type == FTW_DNR || type == FTW_DP)
        return 0;
    DocView d;
    const std::string file = p.substr(0, p.size() - 4);
    d.document = file.substr(walk.prefix);
    d.local = walk.index.count(file) > 0;
    if (type == FTW_SL || type == FTW_SLN)
        d.error = p + ": link, not followed";
    else if (type != FTW_F)
        d.error = p + ": not a regular file";
    else
        read_doc(file, &d);
    walk.out->push_back(std::move(d));
    return 0;
}

}  // namespace

void note_error(const char* line) {
    const char* text = std::strstr(line, "(): ");
    last_error = text ? text + 4 : line;
}

const char* liveness(int64_t age, int heartbeat_interval) {
    if (age <= 2 * int64_t{heartbeat_interval})
        return "alive";
    if (age <= 5 * int64_t{heartbeat_interval})
        return "late";
    return "silent";
}

int load_nodes(time_t now, std::vector<NodeView>* out, std::string* why) {
    std::vector<Entry> ents;
    if (list_top("Node", &ents, why) < 0)
        return -1;
    std::set<uint32_t> local;
    NodeList local_nodes;
    last_error.clear();
    if (read_local_nodes(cfg_local_nodes.c_str(), &local_nodes) < 0)
        std::fprintf(stderr, "corvalctl: no node shown as local: %s\n", last_error.c_str());
    for (const auto& n : local_nodes) local.insert(n->nodeid);
    std::sort(ents.begin(), ents.end(), [](auto& a, auto& b) { return id_less(a.name, b.name); });
    for (const Entry& e : ents) {
        NodeView v;
        v.id = e.name;
        uint32_t id = 0;
        if (!parse_nodeid(e.name, &id)) {
            v.error = "malformed node id";
        } else {
            v.local = local.count(id) > 0;
            load_node(id, now, &v);
        }
        out->push_back(std::move(v));
    }
    return 0;
}

int load_datastores(std::vector<DatastoreView>* out, std::string* why) {
    std::vector<Entry> ents;
    if (list_top("Datastore", &ents, why) < 0)
        return -1;
    std::sort(ents.begin(), ents.end(), [](auto& a, auto& b) { return a.name < b.name; });
    for (const Entry& e : ents) {
        DatastoreView v;
        v.uuid = e.name;
        load_datastore(&v);
        out->push_back(std::move(v));
    }
    return 0;
}

VDiskView load_vdisk(const std::string& uuid) {
    VDiskView v;
    v.uuid = uuid;
    load_vdisk_into(&v);
    return v;
}

int load_vdisks(std::vector<VDiskView>* out, std::string* why) {
    std::vector<Entry> ents;
    if (list_top("VDisk", &ents, why) < 0)
        return -1;
    std::sort(ents.begin(), ents.end(), [](auto& a, auto& b) { return a.name < b.name; });
    for (const Entry& e : ents) out->push_back(load_vdisk(e.name));
    return 0;
}

int load_docs(time_t now, std::vector<DocView>* out, std::string* why) {
    std::vector<Entry> top;
    if (list_top("v2", &top, why) < 0)
        return -1;
    const std::string tree = cfg_work_directory + "/v2";
    walk = {now, tree.size() + 1, {}, out};
    // The daemon's own reader of the index, but following no link to it.
    StorePath index;
    if (json_index_path("corvalctl", index) == 0) {
        json_index_lines(index, [](char* file) {
            walk.index.insert(file);
            return true;
        });
    }
    if (!top.empty() && ::nftw(tree.c_str(), doc_entry, 16, FTW_PHYS) != 0) {
        *why = tree + ": " + std::strerror(errno);
        return -1;
    }
    std::sort(out->begin(), out->end(),
              [](const DocView& a, const DocView& b) { return a.document < b.document; });
    return 0;
}

}  // namespace corvald::ctl
