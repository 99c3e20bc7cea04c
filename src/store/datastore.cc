#include "store/beneath.h"
#include "store/datastore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/config.h"
#include "base/log.h"
#include "store/attr.h"
#include "util/misc.h"

namespace corvald {

namespace {

// The announced properties, in the order DatastoreCreate writes them and
// DatastoreLoad reads them.
constexpr AttrField kDatastoreAttrs[] = {
    CV_ATTR("uuid", DatastoreEntry, uuid),
    CV_ATTR("name", DatastoreEntry, name),
    CV_ATTR("description", DatastoreEntry, description),
    CV_ATTR("sector_size", DatastoreEntry, sector_size),
    CV_ATTR("replicas", DatastoreEntry, replicas),
    CV_ATTR("stripes", DatastoreEntry, stripes),
    CV_ATTR("overcommit", DatastoreEntry, overcommit),
};

constexpr int kUuidWidth = sizeof(DatastoreEntry::uuid);

}  // namespace

// The uuid names the record's directory, and the unreference removes that
// directory recursively: an empty one would address "Datastore" itself, "."
// and ".." or a "/" would leave it. Every operation refuses such a uuid
// before any path is made from it, whoever handed it in (a peer's DS_PING,
// a node's datastoremember written by another program).
int DatastoreCreate(const Hdr* hdr, const DatastoreEntry* dse) {
    if (uuid_refused(__func__, "Datastore", dse->uuid, kUuidWidth))
        return -1;
    CV_INFO("Create Datastore %.*s", kUuidWidth, dse->uuid);

    RecordDir dir(__func__);
    const char* root = cfg_work_directory.c_str();
    if (dir.set_path("%s/Datastore/%.*s", root, kUuidWidth, dse->uuid) < 0)
        return -1;
    // From here on every way out flushes the record directory once.
    if (dir.create() < 0)
        return -1;
    if (dir.store_fields(kDatastoreAttrs, dse) < 0 || dir.mkdir("vdisks") < 0 ||
        dir.mkdir("members") < 0) {
        return -1;
    }

    RecordDir members(__func__);
    if (members.open_at(dir, "members") < 0)
        return -1;
    char nodeid[16];
    std::snprintf(nodeid, sizeof nodeid, "%u", hdr->uid);
    struct stat st;
    if (::fstatat(members.fd(), nodeid, &st, AT_SYMLINK_NOFOLLOW) == 0)
        return 0;
    if (errno != ENOENT)
        return -1;

    CV_INFO("Update Datastore %.*s ref Node %s", kUuidWidth, dse->uuid, nodeid);
    char target[32];
    std::snprintf(target, sizeof target, "../../../Node/%s", nodeid);
    TraceSymlink(__func__, members.path(), nodeid, target);
    if (::symlinkat(target, members.fd(), nodeid) < 0) {
        CV_ERROR("symlink(%s/members/%s, %s): %s", dir.path(), nodeid, target,
                 std::strerror(errno));
        return -1;
    }
    return 0;
}

int DatastoreLoad(const char* dsuuid, DatastoreEntry* dse) {
    std::memset(dse, 0, sizeof *dse);
    if (uuid_refused(__func__, "Datastore", dsuuid, std::strlen(dsuuid)))
        return -1;
    CV_INFO("Load Datastore %s", dsuuid);

    RecordDir dir(__func__);
    if (dir.set_path("%s/Datastore/%s", cfg_work_directory.c_str(), dsuuid) < 0)
        return -1;
    TraceOpen(__func__, dir.path());
    if (dir.open() < 0)
        return -1;
    return dir.load_fields(kDatastoreAttrs, dse);
}

int DatastoreUpdate_UnrefNode(const char* dsuuid, const char* nodeuuid) {
    if (uuid_refused(__func__, "Datastore", dsuuid, std::strlen(dsuuid)))
        return -1;
    CV_INFO("Update Datastore %s unref Node %s", dsuuid, nodeuuid);

    // The record and its "members" are prefixes of the link's path: once
    // the link fits, they do, and nothing is touched when it does not.
    const char* root = cfg_work_directory.c_str();
    StorePath link, members, record;
    if (!store_path(link, "%s/Datastore/%s/members/%s", root, dsuuid, nodeuuid) ||
        !store_path(members, "%s/Datastore/%s/members", root, dsuuid) ||
        !store_path(record, "%s/Datastore/%s", root, dsuuid))
        return -1;
    if (store_unlink(link) < 0 && errno != ENOENT) {
        CV_ERROR("unlink(%s): %s", link, std::strerror(errno));
        return -1;
    }

    int left = RemoveEmptyDir(__func__, members);
    if (left != 0)
        return left > 0 ? 0 : -1;

    CV_INFO("Delete Datastore %s", dsuuid);
    if (store_rm_fr(record) != 0) {
        CV_ERROR("Could not remove %s", record);
        return -1;
    }
    return 0;
}

}  // namespace corvald
