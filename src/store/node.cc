#include "store/beneath.h"
#include "store/node.h"

#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "base/config.h"
#include "base/list_file.h"
#include "base/log.h"
#include "store/attr.h"

namespace corvald {

namespace {

// The header attributes that NodeCreate writes and NodeLoad reads back in
// the same order. nodestatus, size and backupchannel stand outside: the
// loader sets uid between nodestatus and vendor, and the two others follow
// the backup channel rule.
constexpr AttrField kNodeHeader[] = {
    CV_ATTR("vendor", Hdr, vendor),
    CV_ATTR("model", Hdr, model),
    CV_ATTR("freespace", Hdr, revision.freespace),
    CV_ATTR("utilization", Hdr, revision.utilization),
    CV_ATTR("revision", Hdr, revision.rev),
    CV_ATTR("serial", Hdr, serial),
    CV_ATTR("hbtl", Hdr, hbtl),
};

// Written right after hbtl but read after the backup channel.
constexpr AttrField kNodeHost[] = {
    CV_ATTR("performance", Hdr, performance),
    CV_ATTR("hostid", Hdr, hostid),
};

// The capacity figures of an AUX_PING; length is never stored.
constexpr AttrField kNodeCapacity[] = {
    CV_ATTR("allocatedspace", AuxPingData, allocatedspace),
    CV_ATTR("curvdisks", AuxPingData, curvdisks),
    CV_ATTR("curvdisksforctrl", AuxPingData, curvdisksforctrl),
    CV_ATTR("maxvdisksforctrl", AuxPingData, maxvdisksforctrl),
    CV_ATTR("memtotal", AuxPingData, memtotal),
    CV_ATTR("memavail", AuxPingData, memavail),
};

// A node with this status announces the address of its backup channel in
// the header's size field instead of a size.
constexpr uint8_t kBackupChannelStatus = 1;

// The first VDisk link name that is too long for a vdiskuuid (14 characters
// of the wire uuid, so 15 and more cannot come from an announcement).
constexpr size_t kVDiskLinkNameMax = 14;

bool announcing_type(uint8_t type) {
    switch (type) {
        case msg::PING:
        case msg::DS_PING:
        case msg::SINGLE_VDISK_PING:
        case msg::VDISK_DELETED:
        case msg::AUX_PING:
        case msg::STORE_JSON:
        case msg::DELETE_JSON:
            return true;
        default:
            return false;
    }
}

// Opens the record of uid for an update that must not create it: a
// heartbeat or capacity figures of a node whose announcement has not been
// stored yet are dropped, and the next announcement creates the record.
// 0; -1 silently when there is no record (or its path does not fit); -1
// after "open(<path>): <error>" under dir's operation otherwise.
int open_existing_node(RecordDir* dir, uint32_t uid) {
    if (dir->set_path("%s/Node/%u", cfg_work_directory.c_str(), uid) < 0)
        return -1;
    for (;;) {
        int fd = store_open(dir->path(), O_RDONLY | O_DIRECTORY);
        if (fd >= 0) {
            dir->adopt(fd);
            return 0;
        }
        if (errno == ENOENT)
            return -1;
        if (errno != EINTR) {
            CV_ERROR_AS(dir->op(), "open(%s): %s", dir->path(), std::strerror(errno));
            return -1;
        }
        CV_WARN_AS(dir->op(), "open(%s): %s", dir->path(), std::strerror(errno));
    }
}

constexpr const char* kLoadLocalNodes = "load_local_nodes";

int add_local_node(const char* path, const char* line, NodeList* list) {
    uint32_t nodeid = static_cast<uint32_t>(std::strtoul(line, nullptr, 10));
    if (nodeid == 0) {
        CV_ERROR_AS(kLoadLocalNodes, "Malformed file %s", path);
        return -1;
    }
    auto node = std::make_unique<Node>();
    NodeInit(node.get(), nodeid);
    CV_DEBUG_AS(kLoadLocalNodes, "LOCAL_NODE: %u (%s)", nodeid, line);
    list->push_back(std::move(node));
    return 0;
}

struct DirCloser {
    void operator()(DIR* d) const { ::closedir(d); }
};
using UniqueDir = std::unique_ptr<DIR, DirCloser>;

}  // namespace

int NodeCreate(const Hdr* hdr, const char* ipaddr) {
    assert(announcing_type(hdr->type));
    CV_INFO("Create Node %u", hdr->uid);

    RecordDir dir(__func__);
    const char* root = cfg_work_directory.c_str();
    if (dir.set_path("%s/Node/%u", root, hdr->uid) < 0)
        return -1;
    // From here on every way out flushes the directory once.
    int there = dir.create();
    if (there < 0 || dir.mkdir("vdisks") < 0)
        return -1;
    // Each announcement rewrites every attribute below in place, so a crash
    // or a full disk in the middle of one can leave any of them empty or
    // missing, not only the last; the rewrite completes the record, and an
    // existing record that had such a gap says so once it is whole.
    if (there == 1)
        dir.watch_gaps();

    if (dir.store("version", "v%u.%u", unsigned{hdr->major}, unsigned{hdr->minor}) < 0 ||
        dir.store("uuid", "%u", hdr->uid) < 0 || dir.store("status", "%d", 1) < 0 ||
        dir.store("nodestatus", "%u", unsigned{hdr->nodestatus}) < 0 ||
        dir.store_fields(kNodeHeader, hdr) < 0 || dir.store_fields(kNodeHost, hdr) < 0) {
        return -1;
    }

    uint32_t size = hdr->size;
    char backupchannel[INET_ADDRSTRLEN] = "0.0.0.0";
    if (hdr->nodestatus == kBackupChannelStatus) {
        size = 0;
        if (addr_number_to_text(hdr->size, backupchannel) < 0) {
            CV_ERROR("inet_ntop(): %s", std::strerror(errno));
            return -1;
        }
    }
    if (dir.store("size", "%u", size) < 0 || dir.store("backupchannel", "%s", backupchannel) < 0 ||
        dir.store("ipaddr", "%s", ipaddr) < 0 ||
        dir.store("lastping", "%lu", static_cast<unsigned long>(std::time(nullptr))) < 0) {
        return -1;
    }
    if (dir.had_gaps()) {
        char nodeuuid[16];
        std::snprintf(nodeuuid, sizeof nodeuuid, "%u", hdr->uid);
        ReportCompleted(__func__, "Node", nodeuuid, nodeuuid);
    }
    return 0;
}

int NodeUpdate_AuxPing(const Hdr* hdr, const AuxPingData* aux) {
    assert(hdr->type == msg::AUX_PING);
    CV_INFO("Update Node %u", hdr->uid);
    RecordDir dir(__func__);
    if (open_existing_node(&dir, hdr->uid) < 0)
        return -1;
    dir.begin_batch();
    return dir.store_fields(kNodeCapacity, aux);
}

int NodeUpdate_HEARTBEAT(const Hdr* hdr) {
    assert(hdr->type == msg::HEARTBEAT);
    auto now = static_cast<unsigned long>(std::time(nullptr));
    CV_INFO("Update Node %u set lastping=%lu", hdr->uid, now);
    RecordDir dir(__func__);
    if (open_existing_node(&dir, hdr->uid) < 0)
        return -1;
    dir.begin_batch();
    return dir.store("lastping", "%lu", now) < 0 ? -1 : 0;
}

int NodeUpdate_RefDatastore(const Hdr* hdr, const DatastoreEntry* dse) {
    assert(hdr->type == msg::DS_PING);
    int width = sizeof dse->uuid;
    CV_INFO("Update Node %u set datastoremember=%.*s", hdr->uid, width, dse->uuid);
    RecordDir dir(__func__);
    if (dir.set_path("%s/Node/%u", cfg_work_directory.c_str(), hdr->uid) < 0 || dir.open() < 0) {
        return -1;
    }
    dir.begin_batch();
    // Written as announced: the text only becomes a path once it is read
    // back, and NodeLoad_DSMember refuses it there if it cannot be one.
    return dir.store("datastoremember", "%.*s", width, dse->uuid) < 0 ? -1 : 0;
}

int NodeUpdate_UnrefDatastore(const Hdr* hdr) {
    assert(hdr->type == msg::DS_PING);
    CV_INFO("Update Node %u remove datastoremember", hdr->uid);
    StorePath path;
    if (!store_path(path, "%s/Node/%u/datastoremember", cfg_work_directory.c_str(), hdr->uid))
        return -1;
    TraceUnlink(__func__, path);
    if (store_unlink(path) < 0 && errno != ENOENT) {
        CV_ERROR("unlink(%s): %s", path, std::strerror(errno));
        return -1;
    }
    return 0;
}

int NodeLoad(Node* np) {
    CV_INFO("Load Node %u", np->nodeid);
    RecordDir dir(__func__);
    if (dir.set_path("%s/Node/%u", cfg_work_directory.c_str(), np->nodeid) < 0 || dir.open() < 0) {
        return -1;
    }
    Hdr* hdr = &np->hdr;
    std::memset(hdr, 0, sizeof *hdr);

    // "v<major>.<minor>" in at most 7 characters (v1.8, v10.12): a longer
    // text is no version this daemon speaks and fails the load.
    char version[8] = {};
    if (dir.load_text("version", version, sizeof version - 1, TextTrace::kNone) < 0)
        return -1;
    int major, minor;
    if (std::sscanf(version, "v%d.%d", &major, &minor) != 2) {
        CV_ERROR("Malformed %s/version: %s", dir.path(), version);
        return -1;
    }
    hdr->major = static_cast<uint8_t>(major);
    hdr->minor = static_cast<uint8_t>(minor);
    CV_DEBUG("%s/version=v%d.%d", dir.path(), major, minor);

    uint32_t nodestatus;
    if (dir.load_u32("nodestatus", &nodestatus) < 0)
        return -1;
    hdr->nodestatus = static_cast<uint8_t>(nodestatus);
    hdr->uid = np->nodeid;
    if (dir.load_fields(kNodeHeader, hdr) < 0)
        return -1;

    uint32_t size;
    if (dir.load_u32("size", &size) < 0)
        return -1;
    char backupchannel[INET_ADDRSTRLEN] = {};
    if (dir.load_text("backupchannel", backupchannel, sizeof backupchannel - 1) < 0)
        return -1;
    if (hdr->nodestatus == kBackupChannelStatus) {
        int r = addr_text_to_number(backupchannel, &size);
        if (r != 1) {
            CV_ERROR("inet_pton(%s): %d", backupchannel, r);
            return -1;
        }
    }
    hdr->size = size;

    if (dir.load_fields(kNodeHost, hdr) < 0)
        return -1;
    return dir.load_fields(kNodeCapacity, &np->aux);
}

int NodeLoad_DSMember(const char* nodeuuid, char* dsuuid, size_t ds_len) {
    assert(ds_len >= 2 && ds_len <= kAttrFileMax + 1);
    RecordDir dir(__func__);
    if (dir.set_path("%s/Node/%s", cfg_work_directory.c_str(), nodeuuid) < 0 || dir.open() < 0) {
        return -1;
    }
    struct stat st;
    if (::fstatat(dir.fd(), "datastoremember", &st, AT_SYMLINK_NOFOLLOW) < 0) {
        // No data store is the usual case and not worth a line; anything
        // else (a permission problem, say) is, or it would look the same.
        if (errno == ENOENT)
            return -1;
        CV_ERROR("fstatat(%s/datastoremember): %s", dir.path(), std::strerror(errno));
        return -1;
    }
    std::memset(dsuuid, 0, ds_len);
    if (dir.load_text("datastoremember", dsuuid, ds_len - 1, TextTrace::kNone) < 0)
        return -1;
    // The text comes from a file any program on the host may write, and the
    // sender turns it into a Datastore path and a lock name. Refused here,
    // with its own result, so the sender skips this node's DS_PING for the
    // cycle: announcing "no data store" instead would make every peer drop
    // the node from its data store. An empty text stays "no data store".
    if (dsuuid[0] != '\0' && !uuid_is_safe(dsuuid, ds_len)) {
        CV_ERROR("Malformed %s/datastoremember: %s", dir.path(), dsuuid);
        std::memset(dsuuid, 0, ds_len);
        return -2;
    }
    CV_DEBUG("%s/datastoremember=%s", dir.path(), dsuuid);
    CV_INFO("Load Node %s datastoremember=%s", nodeuuid, dsuuid);
    return 0;
}

int NodeLoad_VDisks(unsigned int nodeid, VDiskTree* vdtp) {
    assert(vdtp->empty());
    StorePath dirpath;
    if (!store_path(dirpath, "%s/Node/%u/vdisks", cfg_work_directory.c_str(), nodeid))
        return -1;
    int dirfd = store_open(dirpath, O_RDONLY | O_DIRECTORY);
    UniqueDir dir(dirfd < 0 ? nullptr : ::fdopendir(dirfd));
    if (!dir && dirfd >= 0)
        ::close(dirfd);
    if (!dir) {
        CV_ERROR("opendir(%s): %s", dirpath, std::strerror(errno));
        return -1;
    }
    for (;;) {
        errno = 0;
        const dirent* ent = ::readdir(dir.get());
        if (ent == nullptr) {
            if (errno == 0)
                return 0;
            // The message keeps the readdir_r wording that operators' log
            // filters match.
            CV_ERROR("readdir_r(%s): %d", dirpath, errno);
            VDiskTreeFlush(vdtp);
            return -1;
        }
        StorePath path;
        if (!store_path(path, "%s/%s", dirpath, ent->d_name)) {
            // What was read so far is still a usable (partial) view.
            CV_ERROR("Path %s/%s too long!!!", dirpath, ent->d_name);
            return 0;
        }
        struct stat st;
        if (::fstatat(::dirfd(dir.get()), ent->d_name, &st, AT_SYMLINK_NOFOLLOW) < 0) {
            CV_ERROR("lstat(%s): %s", path, std::strerror(errno));
            return 0;
        }
        // "." and ".." are directories, and a name in a directory is never
        // empty nor holds "/": every link name is a safe uuid text.
        if (!S_ISLNK(st.st_mode))
            continue;
        const size_t name_len = std::strlen(ent->d_name);
        if (name_len > kVDiskLinkNameMax) {
            CV_ERROR("Malformed symlink %s", path);
            continue;
        }
        // Running out of memory here ends the process, as for every
        // container of objects.
        auto vdisk = std::make_unique<VDisk>();
        static_assert(kVDiskLinkNameMax < sizeof VDisk::vdiskuuid);
        std::memcpy(vdisk->vdiskuuid, ent->d_name, name_len + 1);
        if (VDiskTree_RB_INSERT(vdtp, &vdisk) != nullptr) {
            CV_ERROR("Duplicate VDisk Link %s", path);
        } else {
            CV_INFO("Load Node %u attach VDisk %s", nodeid, ent->d_name);
        }
    }
}

int read_local_nodes(const char* path, NodeList* nodes) {
    assert(nodes->empty());
    int rc = read_list_file(kLoadLocalNodes, path, nodes, [path](const char* line, NodeList* list) {
        return add_local_node(path, line, list);
    });
    if (rc < 0)
        nodes->clear();
    return rc;
}

}  // namespace corvald
