#include "support/store_builder.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace corvald::test {

namespace {

namespace fs = std::filesystem;

// Each "key=value" of the ";"-separated list as the file prefix + key.
void attrs(StoreBuilder* b, const std::string& prefix, const std::string& list) {
    std::istringstream in(list);
    for (std::string kv; std::getline(in, kv, ';');)
        b->put(prefix + kv.substr(0, kv.find('=')), kv.substr(kv.find('=') + 1) + "\n");
}

std::string value_at(const Tree& t, const std::string& path) {
    return t.contains(path) ? t.at(path) : "<missing>";
}

}  // namespace

std::string look(const std::string& path) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) return "<missing>";
    if (S_ISDIR(st.st_mode)) return "<dir>";
    if (S_ISLNK(st.st_mode)) return "-> " + fs::read_symlink(path).string();
    return (std::ostringstream() << std::ifstream(path, std::ios::binary).rdbuf()).str();
}

Tree snapshot(const std::string& root) {
    Tree t;
    std::error_code ec;
    for (fs::recursive_directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec))
        t[it->path().lexically_relative(root).string()] = look(it->path());
    return t;
}

Tree changes(const Tree& before, const Tree& after) {
    Tree out;
    for (const Tree* side : {&before, &after}) {
        for (const auto& [path, value] : *side) {
            const std::string now = value_at(after, path), dir = path.substr(0, path.rfind('/'));
            if (now != value_at(before, path) && !path.ends_with("/lastping") &&
                (dir == path || value_at(before, dir) == value_at(after, dir)))
                out[path] = now;
        }
    }
    return out;
}

std::string show(const Tree& t) {
    std::string out;
    for (const auto& [path, value] : t) out += (out.empty() ? "" : " ") + path + "=" + value;
    std::replace(out.begin(), out.end(), '\n', ',');
    return out;
}

StoreBuilder& StoreBuilder::seed() {
    return t.merge(snapshot(CORVALD_SOURCE_DIR "/etc/local/seed")), *this;
}

StoreBuilder& StoreBuilder::put(const std::string& path, const std::string& value) {
    for (size_t at = path.find('/'); at != path.npos; at = path.find('/', at + 1))
        t.emplace(path.substr(0, at), "<dir>");
    return t[path] = value, *this;
}

StoreBuilder& StoreBuilder::node(uint32_t id, const std::string& version, bool full) {
    const std::string n = "Node/" + std::to_string(id) + "/";
    put(n + "vdisks");
    attrs(this, n, "version=" + version + ";uuid=" + std::to_string(id) +
                       ";status=1;nodestatus=2;vendor=CORVAL STORAGE SYSTEMS DEMO UNIT;"
                       "model=Demo Node;freespace=81920;utilization=37;revision=1.8.0;"
                       "serial=DEMO-0001;hbtl=0:0:1:0;performance=3;hostid=513;size=102400;"
                       "backupchannel=0.0.0.0;ipaddr=127.0.0." + std::to_string(id));
    if (full)
        attrs(this, n, "lastping=1795000000;allocatedspace=20480;curvdisks=2;curvdisksforctrl=3;"
                       "maxvdisksforctrl=64;memtotal=16384;memavail=9216");
    return *this;
}

StoreBuilder& StoreBuilder::datastore(const std::string& uuid,
                                      const std::vector<uint32_t>& members) {
    const std::string d = "Datastore/" + uuid + "/";
    attrs(this, d, "uuid=" + uuid + ";name=demo store;description=one-host demo;sector_size=512;"
                   "replicas=1;stripes=1;overcommit=0");
    put(d + "vdisks").put(d + "members");
    for (uint32_t m : members)
        put(d + "members/" + std::to_string(m), "-> ../../../Node/" + std::to_string(m))
            .put("Node/" + std::to_string(m) + "/datastoremember", uuid + "\n");
    return *this;
}

StoreBuilder& StoreBuilder::vdisk(const std::string& uuid, const std::vector<uint32_t>& members,
                                  const std::string& parent, const std::string& ds, unsigned gen) {
    const std::string v = "VDisk/" + uuid + "/", g = std::to_string(gen),
                      to = "-> ../../../VDisk/" + uuid;
    std::string membership;
    for (uint32_t m : members) membership += std::to_string(m) + "\n";
    attrs(this, v, "uuid=" + uuid + ";name=demo disk;sector_size=512;sectors=2097152;replicas=1;"
                   "st_mems=1;st_size=64;snapshot=" + (parent.empty() ? "0" : "1") +
                   ";highest_gen_count=" + g);
    put(v + "membership", membership).put(v + "memberinfo");
    if (parent.empty()) {
        attrs(this, v, "description=the demo's plain disk"), put(v + "snapshots");
    } else {
        attrs(this, v, "parent=" + parent + ";snaptime=26-11-23_09.30.00");
        if (t.contains("VDisk/" + parent)) put("VDisk/" + parent + "/snapshots/" + uuid, to);
    }
    if (!ds.empty())
        put(v + "datastore", "-> ../../Datastore/" + ds)
            .put("Datastore/" + ds + "/vdisks/" + uuid, to);
    const std::string limit = parent.empty() ? ";snap_limit=10" : "";
    for (uint32_t m : members) {
        const std::string id = std::to_string(m), mi = v + "memberinfo/" + id + "/";
        attrs(this, mi, "membership_gen_count=" + g + ";numkeys=0;seqno=1;status=1;port=3260;" +
                            "st_mem=0;frontend=127.0.0." + id + limit);
        put(mi + "nodestatus", "-> ../../../../Node/" + id + "/status")
            .put("Node/" + id + "/vdisks/" + uuid, to);
    }
    return *this;
}

bool StoreBuilder::write(const std::string& root) const {
    std::error_code ec;
    fs::create_directories(root, ec);
    for (const auto& [rel, value] : t) {
        const fs::path path = root + "/" + rel;
        if (value == "<dir>")
            fs::create_directory(path, ec);
        else if (value.starts_with("-> "))
            fs::create_symlink(value.substr(3), path, ec);
        else if (!(std::ofstream(path, std::ios::binary) << value))
            return false;
        if (ec) return false;
    }
    return true;
}

}  // namespace corvald::test
