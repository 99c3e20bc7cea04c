// Reading side of the VDisk record: the shared attributes, one node's member
// record and the two list files, into an in-memory VDisk. Nothing here
// writes to the store.
#include "store/vdisk.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cassert>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/config.h"
#include "base/log.h"
#include "net/netlib.h"
#include "base/list_file.h"
#include "store/attr.h"
#include "store/beneath.h"
#include "store/object.h"
#include "store/vdisk_fields.h"
#include "util/io.h"
#include "util/unique_fd.h"

namespace corvald {

namespace {


// The entry counts its members and frontends in 16 bits. A longer list
// would be announced with a count that disagrees with the records behind
// it, so a list file that holds more is refused as malformed.
constexpr int kListMax = UINT16_MAX;

// Reads the list file key of dirfd whole into *text (left empty for an
// empty file); the byte count, or -1 after the helpers' messages or, when the
// last line has no line feed, after "Malformed file <shown>" under op's name.
ssize_t load_list(const char* op, int dirfd, const char* key, const char* shown,
                  UniqueChars* text) {
    UniqueFd fd(store_fd_openat(dirfd, key, O_RDONLY));
    if (!fd) return -1;
    // Read whole, so its size is checked first: a list can be no longer
    // than kListMax lines, and a huge file would be read on every
    // announcement.
    struct stat st;
    if (::fstat(fd.get(), &st) == 0 && st.st_size > static_cast<off_t>(kListFileMax)) {
        CV_ERROR_AS(op, "Oversized file %s: %lld bytes", shown, static_cast<long long>(st.st_size));
        return -1;
    }
    char* buf = nullptr;
    ssize_t n = FileLoad(fd.get(), &buf);
    text->reset(buf);
    if (n > 0 && buf[n - 1] != '\n') {
        CV_ERROR_AS(op, "Malformed file %s", shown);
        return -1;
    }
    return n;
}

// Cuts the next line out of [*pos, end) (end[-1] is a line feed) and
// returns it terminated in place of its line feed.
char* next_line(char** pos, char* end) {
    char* line = *pos;
    auto* lf = static_cast<char*>(std::memchr(line, '\n', static_cast<size_t>(end - line)));
    *lf = '\0';
    *pos = lf + 1;
    return line;
}

// A list that failed part-way is handed back empty.
template <class List>
int drop(List* list) {
    list->clear();
    return -1;
}

// Opens name inside parent as the record dir, after its "[OPEN]" trace, so
// that its lines read "<parent>/<name>/<key>". 0 or -1.
int open_traced(RecordDir* dir, const RecordDir& parent, const char* name) {
    // Too long for a store path: nothing is opened and nothing is said,
    // as for every store path that cannot be built.
    if (dir->set_path("%s/%s", parent.path(), name) < 0) return -1;
    TraceOpen(dir->op(), dir->path());
    return dir->open_at(parent, name);
}

// "transaction_id" is written by other programs only; a record without it
// is a record of transaction 0. One that exists must read cleanly.
int load_transaction_id(RecordDir* rec, VDiskEntry* vde) {
    struct stat st;
    if (::fstatat(rec->fd(), "transaction_id", &st, AT_SYMLINK_NOFOLLOW) < 0) {
        if (errno == ENOENT) return 0;
        CV_ERROR_AS(rec->op(), "lstat(%s/transaction_id): %s", rec->path(), std::strerror(errno));
        return -1;
    }
    uint32_t id;
    if (rec->load_u32("transaction_id", &id) < 0) return -1;
    vde->transaction_id = id;
    return 0;
}

// "snaptime" and "parent" of a snapshot record, and the VDisk's parentuuid.
int load_snapshot(RecordDir* rec, VDisk* vdisk) {
    SnapDescr& snap = vdisk->vde.description.snap;
    char text[32] = {};
    if (rec->load_text("snaptime", text, sizeof text - 1, TextTrace::kNone) < 0) return -1;
    int y, m, d, H, M, S;
    if (std::sscanf(text, "%d-%d-%d_%d.%d.%d", &y, &m, &d, &H, &M, &S) != 6) {
        CV_ERROR_AS(rec->op(), "Malformed %s/snaptime: %s", rec->path(), text);
        return -1;
    }
    snap.y = static_cast<uint8_t>(y);
    snap.m = static_cast<uint8_t>(m);
    snap.d = static_cast<uint16_t>(d);
    snap.H = static_cast<uint8_t>(H);
    snap.M = static_cast<uint8_t>(M);
    snap.S = static_cast<uint8_t>(S);
    // Traced from the narrowed fields: the time as it will be announced,
    // and as a rewrite of the record would write it.
    CV_DEBUG_AS(rec->op(), "%s/snaptime=%02d-%02d-%02d_%02d.%02d.%02d", rec->path(), snap.y, snap.m,
                snap.d, snap.H, snap.M, snap.S);

    constexpr size_t kWidth = sizeof snap.parent;
    if (rec->load_text("parent", snap.parent, kWidth, TextTrace::kPlain) < 0) return -1;
    // The parent uuid becomes a lock name and a path of the removal code,
    // which deletes recursively: an empty one would name the VDisk
    // directory itself, and "/", "." or ".." would leave it.
    if (!uuid_is_safe(snap.parent, kWidth)) {
        CV_ERROR_AS(rec->op(), "Malformed %s/parent: %.*s", rec->path(), int{kWidth}, snap.parent);
        return -1;
    }
    size_t len = ::strnlen(snap.parent, kWidth);
    std::memcpy(vdisk->parentuuid, snap.parent, len);
    vdisk->parentuuid[len] = '\0';
    return 0;
}

// The node's member record and the two lists; rec is the open VDisk record.
int load_member(const Node* node, const RecordDir& rec, VDisk* vdisk) {
    VDiskEntry& vde = vdisk->vde;
    // Declared in this order, so the member record is closed before
    // "memberinfo", and both before the caller's record.
    RecordDir topdir(rec.op());
    RecordDir mbdir(rec.op());
    if (open_traced(&topdir, rec, "memberinfo") < 0) return -1;
    if (open_traced(&mbdir, topdir, node->nodeuuid) < 0) return -1;
    if (mbdir.load_fields(kVDiskMemberFields, &vde) < 0) return -1;
    // load_u32 traces the count as read; encoding it logs nothing, so the
    // trace stands where the count is set.
    uint32_t gencnt;
    if (mbdir.load_u32("membership_gen_count", &gencnt) < 0) return -1;
    vde_encode_mshipgencnt(&vde, &node->hdr, gencnt);

    if (MembershipLoad(&vdisk->members, &vdisk->members_count, rec.path(), rec.fd()) < 0) {
        return -1;
    }
    vde.members = static_cast<uint16_t>(vdisk->members_count);
    if (FrontendsLoad(&vdisk->frontends, &vdisk->frontends_count, rec.path(), node->nodeuuid,
                      mbdir.fd()) < 0) {
        return -1;
    }
    vde.frontends = static_cast<uint16_t>(vdisk->frontends_count);
    return 0;
}

}  // namespace

int VDiskLoad(const Node* node, VDisk* vdisk) {
    assert(vdisk->vdiskuuid[0] != '\0' && vdisk->parentuuid[0] == '\0');
    assert(vdisk->members.empty() && vdisk->frontends.empty());
    CV_INFO("Load VDisk %s by Node %s", vdisk->vdiskuuid,
            node != nullptr ? node->nodeuuid : "NONE");

    VDiskEntry& vde = vdisk->vde;
    vde = {};
    RecordDir rec(__func__);
    // Only a store root close to the path limit makes this too long. Like
    // every store path that cannot be built, it fails without a line.
    if (rec.set_path("%s/VDisk/%s", cfg_work_directory.c_str(), vdisk->vdiskuuid) < 0) return -1;
    TraceOpen(__func__, rec.path());
    if (rec.open() < 0) return -1;

    if (load_transaction_id(&rec, &vde) < 0) return -1;
    if (rec.load_fields(kVDiskSharedFields, &vde) < 0) return -1;
    if (vde.snapshot != 0) {
        if (load_snapshot(&rec, vdisk) < 0) return -1;
    } else {
        char* descr = vde.description.descr;
        if (rec.load_text("description", descr, sizeof vde.description.descr) < 0) return -1;
    }
    if (node == nullptr) return 0;
    return load_member(node, rec, vdisk);
}

int MembershipLoad(MemberList* members, int* members_count, const char* vdiskpath, int vdiskfd) {
    assert(members->empty());
    // Only shown in the lines: cut at 255 bytes, it is still as much of the
    // file's path as a store path can say.
    StorePath shown;
    static_cast<void>(store_path(shown, "%s/membership", vdiskpath));
    UniqueChars text;
    ssize_t n = load_list(__func__, vdiskfd, "membership", shown, &text);
    if (n < 0) return -1;
    int count = 0;
    char* pos = text.get();
    char* end = pos + n;
    while (pos < end) {
        // One line at a time: strtoul skips leading white space, line feeds
        // included, and would take an empty line's number from the next.
        const char* line = next_line(&pos, end);
        auto node = static_cast<uint32_t>(std::strtoul(line, nullptr, 10));
        if (node == 0 || count == kListMax) {
            CV_ERROR("Malformed file %s", shown);
            return drop(members);
        }
        Member& member = members->emplace_back();
        member.mbe.node = node;
        MemberInit(&member, nullptr);
        ++count;
        CV_DEBUG("%s/membership=%s [%d]", vdiskpath, member.uuid, count);
    }
    if (members_count != nullptr) *members_count = count;
    return 0;
}

int FrontendsLoad(FrontendList* frontends, int* frontends_count, const char* vdiskpath,
                  const char* nodeuuid, int mbfd) {
    assert(frontends->empty());
    // Reported as the membership file is, with the path of the member
    // record's file, so both list files report alike.
    StorePath shown;
    static_cast<void>(store_path(shown, "%s/memberinfo/%s/frontend", vdiskpath, nodeuuid));
    UniqueChars text;
    ssize_t n = load_list(__func__, mbfd, "frontend", shown, &text);
    if (n < 0) return -1;
    int count = 0;
    char* pos = text.get();
    char* end = pos + n;
    while (pos < end) {
        const char* line = next_line(&pos, end);
        if (count == kListMax) {
            CV_ERROR("Malformed file %s", shown);
            return drop(frontends);
        }
        uint32_t addr = 0;
        int rc = addr_text_to_number(line, &addr);
        if (rc != 1) {
            CV_ERROR("inet_pton(%s): %d", line, rc);
            return drop(frontends);
        }
        Frontend& fe = frontends->emplace_back();
        fe.fee.node = addr;
        if (addr_number_to_text(addr, fe.ipaddr) < 0) {
            CV_ERROR("inet_ntop(): %s", std::strerror(errno));
            return drop(frontends);
        }
        // Only the canonical text is taken, so the file reads back as it
        // will be written again.
        if (std::strcmp(fe.ipaddr, line) != 0) {
            CV_ERROR("IP Conversion failure: %s vs %s", line, fe.ipaddr);
            return drop(frontends);
        }
        ++count;
        CV_DEBUG("%s/memberinfo/%s/frontend=%s [%d]", vdiskpath, nodeuuid, fe.ipaddr, count);
    }
    if (frontends_count != nullptr) *frontends_count = count;
    return 0;
}

}  // namespace corvald
