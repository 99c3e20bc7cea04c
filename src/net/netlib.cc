#include "net/netlib.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <charconv>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/log.h"

namespace corvald {

const char* const Msg_Types[MSG_TYPES_COUNT] = {
    "READ_REQ",
    "WRITE_REQ",
    "READ_RSP",
    "WRITE_RSP",
    "PING",
    "INFO_REQ",
    "INFO_RSP",
    "HASH_BROADCAST",
    "CREATE_REQ",
    "ACTIVATE_REQ",
    "DEACTIVATE_REQ",
    "DELETE_REQ",
    "SNAPSHOT_REQ",
    "SESSION_PING",
    "ACTIVATE_HEAD_REQ",
    "DEACTIVATE_HEAD_REQ",
    "DS_PING",
    "DSCREATE_REQ",
    "DSDELETE_REQ",
    "UPDATE_REQ",
    "START_VDISK_TXN_REQ",
    "END_VDISK_TXN_REQ",
    "FAIL_VDISK_TXN_REQ",
    "GET_VDISK_INFO_REQ",
    "ENABLE_VDISK_SYNC_MASTER",
    "ENABLE_VDISK_SYNC_SLAVE",
    "DISABLE_VDISK_SYNC",
    "PAUSE_VDISK_HEAD_REQ",
    "UNPAUSE_VDISK_HEAD_REQ",
    "SET_SEQNO",
    "SET_NODEMEMS",
    "SET_VDISK_SIZE",
    "HEARTBEAT",
    "SINGLE_VDISK_PING",
    "VDISK_DELETED",
    "UNKNOWN",
};

const char* msg_type(const Hdr* hdr) {
    // The last entry doubles as the name of every code from there on, so
    // AUX_PING and the JSON pings show as UNKNOWN in traces.
    if (hdr->type < MSG_TYPES_COUNT - 1) return Msg_Types[hdr->type];
    return Msg_Types[MSG_TYPES_COUNT - 1];
}

bool record_traces_on() { return (::setlogmask(0) & LOG_MASK(LOG_DEBUG)) != 0; }

// Fields of a packed record are copied into locals before they go to a
// variadic call, so no unaligned reference is ever formed.
void hdr_dump(const Hdr* hdr) {
    if (!record_traces_on()) return;
    const Hdr h = *hdr;
    CV_DEBUG("major=%u", unsigned{h.major});
    CV_DEBUG("minor=%u", unsigned{h.minor});
    CV_DEBUG("type=%u [%s]", unsigned{h.type}, msg_type(&h));
    CV_DEBUG("nodestatus=%u", unsigned{h.nodestatus});
    CV_DEBUG("uid=%u", unsigned{h.uid});
    CV_DEBUG("vendor=%.*s", int{sizeof h.vendor}, h.vendor);
    CV_DEBUG("model=%.*s", int{sizeof h.model}, h.model);
    CV_DEBUG("revision.freespace=%u", unsigned{h.revision.freespace});
    CV_DEBUG("revision.utilization=%u", unsigned{h.revision.utilization});
    CV_DEBUG("revision.rev=%.*s", int{sizeof h.revision.rev}, h.revision.rev);
    CV_DEBUG("serial=%.*s", int{sizeof h.serial}, h.serial);
    CV_DEBUG("hbtl=%.*s", int{sizeof h.hbtl}, h.hbtl);
    CV_DEBUG("size=%u", unsigned{h.size});
    CV_DEBUG("performance=%u", unsigned{h.performance});
    CV_DEBUG("hostid=%u", unsigned{h.hostid});
}

void dse_dump(const DatastoreEntry* dse) {
    if (!record_traces_on()) return;
    const DatastoreEntry d = *dse;
    CV_DEBUG("uuid=%.*s", int{sizeof d.uuid}, d.uuid);
    CV_DEBUG("name=%.*s", int{sizeof d.name}, d.name);
    CV_DEBUG("description=%.*s", int{sizeof d.description}, d.description);
    // Signed on purpose: the trace has always shown the sector size that way.
    CV_DEBUG("sector_size=%d", static_cast<int>(d.sector_size));
    CV_DEBUG("replicas=%u", unsigned{d.replicas});
    CV_DEBUG("stripes=%u", unsigned{d.stripes});
    CV_DEBUG("overcommit=%u", unsigned{d.overcommit});
}

void vde_dump(const VDiskEntry* vde) {
    if (!record_traces_on()) return;
    const VDiskEntry v = *vde;
    CV_DEBUG("transaction_id=%u", unsigned{v.transaction_id});
    CV_DEBUG("uuid=%.*s", int{sizeof v.uuid}, v.uuid);
    CV_DEBUG("membership_gen_count=%u", vde_mshipgencnt(&v));
    CV_DEBUG("name=%.*s", int{sizeof v.name.name}, v.name.name);
    CV_DEBUG("sector_size=%u", unsigned{v.sector_size});
    CV_DEBUG("numkeys=%llu", static_cast<unsigned long long>(v.numkeys));
    CV_DEBUG("sectors=%llu", static_cast<unsigned long long>(v.sectors));
    CV_DEBUG("seqno=%llu", static_cast<unsigned long long>(v.seqno));
    CV_DEBUG("snapshot=%u", unsigned{v.snapshot});
    if (v.snapshot != 0) {
        const SnapDescr& s = v.description.snap;
        CV_DEBUG("parent=%.*s", int{sizeof s.parent}, s.parent);
        CV_DEBUG("snaptime=%02d-%02d-%02d_%02d.%02d.%02d", int{s.y}, int{s.m}, int{s.d}, int{s.H},
                 int{s.M}, int{s.S});
    } else {
        CV_DEBUG("description=%.*s", int{sizeof v.description.descr}, v.description.descr);
    }
    CV_DEBUG("status=%u", unsigned{v.status});
    CV_DEBUG("port=%u", unsigned{v.port});
    CV_DEBUG("replicas=%u", unsigned{v.replicas});
    CV_DEBUG("st_mem=%u", unsigned{v.st_mem});
    CV_DEBUG("st_mems=%u", unsigned{v.st_mems});
    CV_DEBUG("st_size=%u", unsigned{v.st_size});
    CV_DEBUG("members=%u", unsigned{v.members});
    CV_DEBUG("frontends=%u", unsigned{v.frontends});
}

void mbe_dump(const MemberEntry* mbe) {
    if (!record_traces_on()) return;
    const MemberEntry m = *mbe;
    CV_DEBUG("node=%u", unsigned{m.node});
}

void fee_dump(const FrontendEntry* fee) {
    const FrontendEntry f = *fee;
    char text[INET_ADDRSTRLEN];
    if (addr_number_to_text(f.node, text) < 0) {
        CV_ERROR("inet_ntop(): %s", std::strerror(errno));
        return;
    }
    CV_DEBUG("node=%s", text);
}

bool hdr_has_full_mshipgencnt(const Hdr* hdr) {
    return hdr->major > 1 || (hdr->major == 1 && hdr->minor >= 8);
}

void vde_encode_mshipgencnt(VDiskEntry* vde, const Hdr* hdr, unsigned int count) {
    // Two digits and no terminator: the field is exactly two bytes wide.
    unsigned int low = count % 100;
    vde->name.old_mshipgencnt[0] = static_cast<char>('0' + low / 10);
    vde->name.old_mshipgencnt[1] = static_cast<char>('0' + low % 10);
    // The 16-bit field keeps the low 16 bits of a larger count.
    vde->name.mshipgencnt = hdr_has_full_mshipgencnt(hdr) ? htons(static_cast<uint16_t>(count)) : 0;
}

void vde_decode_mshipgencnt(VDiskEntry* vde, const Hdr* hdr) {
    if (hdr_has_full_mshipgencnt(hdr)) return;
    // Each byte is taken as a signed 8-bit character code minus that of
    // "0" and the sum is kept to 16 bits, so bytes that are not digits give
    // a defined (if meaningless) count rather than anything undefined.
    int d0 = static_cast<int8_t>(vde->name.old_mshipgencnt[0]) - '0';
    int d1 = static_cast<int8_t>(vde->name.old_mshipgencnt[1]) - '0';
    vde->name.mshipgencnt = htons(static_cast<uint16_t>(d0 * 10 + d1));
}

unsigned int vde_mshipgencnt(const VDiskEntry* vde) {
    uint16_t be = vde->name.mshipgencnt;
    return ntohs(be);
}

int addr_text_to_number(const char* text, uint32_t* number) {
    struct in_addr in = {};
    int r = ::inet_pton(AF_INET, text, &in);
    if (r == 1) *number = ntohl(in.s_addr);
    return r;
}

int addr_number_to_text(uint32_t number, char* text) {
    // The dotted form inet_ntop gives, without its printf machinery: this
    // runs once per frontend of every received VDisk.
    char* p = text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        p = std::to_chars(p, text + INET_ADDRSTRLEN, (number >> shift) & 0xFF).ptr;
        if (shift != 0) *p++ = '.';
    }
    *p = '\0';
    return 0;
}

bool uuid_is_safe(const char* field, size_t width) {
    // One pass over at most `width` bytes: this runs for every received entry.
    size_t len = 0;
    bool slash = false;
    for (; len < width && field[len] != '\0'; ++len) slash |= field[len] == '/';
    if (len == 0 || slash) return false;
    if (field[0] == '.' && (len == 1 || (len == 2 && field[1] == '.'))) return false;
    return true;
}

bool uuid_refused(const char* op, const char* kind, const char* field, size_t width) {
    if (uuid_is_safe(field, width))
        return false;
    CV_ERROR_AS(op, "Refused %s uuid \"%.*s\"", kind, static_cast<int>(::strnlen(field, width)),
                field);
    return true;
}

int vde_check_uuids(const VDiskEntry* vde) {
    // These texts become directory names of the store, whose removal is
    // recursive: an empty name would address the VDisk directory itself,
    // "/", "." and ".." would leave it.
    if (uuid_refused(__func__, "VDisk", vde->uuid, sizeof vde->uuid))
        return -1;
    if (vde->snapshot != 0) {
        const char* parent = vde->description.snap.parent;
        if (!uuid_is_safe(parent, sizeof vde->description.snap.parent)) {
            CV_ERROR("Refused parent uuid \"%.*s\" of VDisk %.*s",
                     int{sizeof vde->description.snap.parent}, parent, int{sizeof vde->uuid},
                     vde->uuid);
            return -2;
        }
    }
    return 0;
}

}  // namespace corvald
