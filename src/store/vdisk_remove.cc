// Removal side of the VDisk record: one member's record and its node's link,
// and, with the last member, the record with the links that point at it from
// its parent and its data store. Every step counts an entry that is already
// gone as removed, so a removal cut short is finished by the next one.
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/config.h"
#include "base/log.h"
#include "net/netlib.h"
#include "store/beneath.h"
#include "store/attr.h"
#include "store/lock.h"
#include "store/vdisk.h"
#include "util/misc.h"

namespace corvald {

namespace {

// These operations remove recursively, and every uuid here becomes a path
// component: an empty one addresses the directory above it, "." and ".."
// address the record itself or lead out of it, and a "/" leads anywhere.
// The receive path refuses such uuids before it calls in, but the texts
// also come from the store, which other programs write, so each operation
// refuses them again before it builds a single path.
bool vdisk_refused(const char* op, const VDisk* vdisk) {
    return uuid_refused(op, "VDisk", vdisk->vdiskuuid, sizeof vdisk->vdiskuuid);
}

bool parent_refused(const char* op, const VDisk* vdisk) {
    return uuid_refused(op, "parent", vdisk->parentuuid, sizeof vdisk->parentuuid);
}

// Unlinks path; one that is already gone counts as removed. 0, or -1 after
// "unlink(<path>): <error>" under op's name.
int unlink_gone_ok(const char* op, const char* path) {
    if (store_unlink(path) == 0 || errno == ENOENT)
        return 0;
    CV_ERROR_AS(op, "unlink(%s): %s", path, std::strerror(errno));
    return -1;
}

// Drops the node's link to the VDisk, under the node's lock. The caller
// holds the VDisk lock, so this is the second (and only other) lock held.
int NodeUpdate_UnrefVDisk(const char* nodeuuid, const char* vdiskuuid) {
    CV_INFO("Update Node %s unref VDisk %s", nodeuuid, vdiskuuid);
    HeldLock node;
    if (node.take(NodeLockNameStr(nodeuuid)) < 0)
        return -1;
    StorePath link;
    if (!store_path(link, "%s/Node/%s/vdisks/%s", cfg_work_directory.c_str(), nodeuuid, vdiskuuid))
        return -1;
    struct stat st;
    if (store_lstat(link, &st) < 0) {
        if (errno == ENOENT)
            return 0;
        CV_ERROR("lstat(%s): %s", link, std::strerror(errno));
        return -1;
    }
    TraceUnlink(__func__, link);
    if (store_unlink(link) < 0) {
        CV_ERROR("unlink(%s): %s", link, std::strerror(errno));
        return -1;
    }
    return 0;
}

// Drops the link to the VDisk from the data store its "datastore" link
// names. A record without that link never had a data store to update.
int DatastoreUpdate_UnrefVDisk(const char* vdiskuuid) {
    const char* root = cfg_work_directory.c_str();
    StorePath link;
    if (!store_path(link, "%s/VDisk/%s/datastore", root, vdiskuuid))
        return -1;
    char target[64] = {};
    if (store_readlink(link, target, sizeof target - 1) < 0) {
        if (errno == ENOENT)
            return 0;
        CV_ERROR("readlink(%s): %s", link, std::strerror(errno));
        return -1;
    }
    // The target is "../../Datastore/<uuid>" as this daemon writes it, but any
    // program may have put the link there. Its last component becomes a path
    // component and a lock name, so "." and ".." are as unusable as nothing.
    const char* slash = std::strrchr(target, '/');
    const char* dsuuid = slash == nullptr ? "" : slash + 1;
    if (!uuid_is_safe(dsuuid, std::strlen(dsuuid))) {
        CV_ERROR("Malformed symlink %s: %s", link, target);
        return -1;
    }
    StorePath dslink;
    if (!store_path(dslink, "%s/Datastore/%s/vdisks/%s", root, dsuuid, vdiskuuid))
        return -1;
    HeldLock ds;
    if (ds.take(DatastoreLockNameStr(dsuuid)) < 0)
        return -1;
    CV_INFO("Update Datastore %s unref VDisk %s", dsuuid, vdiskuuid);
    return unlink_gone_ok(__func__, dslink);
}

}  // namespace

int MemberinfoDelete(const VDisk* vdisk, const char* nodeuuid) {
    if (vdisk_refused(__func__, vdisk) ||
        uuid_refused(__func__, "Node", nodeuuid, std::strlen(nodeuuid))) {
        return -1;
    }
    CV_INFO("Update VDisk %s delete Member %s", vdisk->vdiskuuid, nodeuuid);
    StorePath member;
    if (!store_path(member, "%s/VDisk/%s/memberinfo/%s", cfg_work_directory.c_str(),
                    vdisk->vdiskuuid, nodeuuid)) {
        return -1;
    }
    if (store_rm_fr(member) != 0) {
        // The node keeps its link: it still points at a member that exists.
        CV_ERROR("Could not remove %s", member);
        return -1;
    }
    return NodeUpdate_UnrefVDisk(nodeuuid, vdisk->vdiskuuid);
}

int VDiskGone(const Hdr* hdr, const VDisk* vdisk) {
    // A parent that cannot be unlinked safely is refused before the member
    // goes: a removal that cannot finish must not start. MemberinfoDelete
    // refuses the VDisk's own uuid, before it removes anything either.
    if (vdisk->vde.snapshot != 0 && parent_refused(__func__, vdisk))
        return -1;
    char nodeuuid[16];
    std::snprintf(nodeuuid, sizeof nodeuuid, "%u", hdr->uid);
    if (MemberinfoDelete(vdisk, nodeuuid) < 0)
        return -1;

    // A member record that is still there keeps the whole record.
    const char* root = cfg_work_directory.c_str();
    StorePath members;
    if (!store_path(members, "%s/VDisk/%s/memberinfo", root, vdisk->vdiskuuid))
        return -1;
    int left = RemoveEmptyDir(__func__, members);
    if (left != 0)
        return left > 0 ? 0 : -1;

    // The links into the record go before the record, each under its own
    // lock and each lock given up before the next is taken.
    if (vdisk->vde.snapshot != 0) {
        HeldLock parent;
        if (parent.take(VDiskLockName(vdisk->parentuuid)) < 0)
            return -1;
        if (ParentUpdate_UnrefSnapshot(vdisk) < 0)
            return -1;
        parent.release();
    }
    if (DatastoreUpdate_UnrefVDisk(vdisk->vdiskuuid) < 0)
        return -1;

    StorePath record;
    if (!store_path(record, "%s/VDisk/%s", root, vdisk->vdiskuuid))
        return -1;
    CV_INFO("Delete VDisk %s", vdisk->vdiskuuid);
    int rc = store_rm_fr(record);
    if (rc != 0) {
        CV_ERROR("Could not remove %s", record);
        return rc;
    }
    return 0;
}

int ParentUpdate_UnrefSnapshot(const VDisk* vdisk) {
    assert(vdisk->vde.snapshot != 0);
    if (vdisk_refused(__func__, vdisk) || parent_refused(__func__, vdisk))
        return -1;
    StorePath link;
    if (!store_path(link, "%s/VDisk/%s/snapshots/%s", cfg_work_directory.c_str(), vdisk->parentuuid,
                    vdisk->vdiskuuid)) {
        return -1;
    }
    CV_INFO("Update VDisk %s unref Snapshot %s", vdisk->parentuuid, vdisk->vdiskuuid);
    return unlink_gone_ok(__func__, link);
}

}  // namespace corvald
