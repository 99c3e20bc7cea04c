#include "store/object.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "base/log.h"

namespace corvald {

namespace {

// The text of a fixed-width wire field up to its first zero byte, as a
// terminated string in a 16-byte buffer.
void field_text(char (&out)[16], const char* field, size_t width) {
    size_t len = ::strnlen(field, width);
    std::memcpy(out, field, len);
    out[len] = '\0';
}

// "%u" into a 16-byte text; a 32-bit number has at most ten digits.
void decimal_text(char (&out)[16], uint32_t value) {
    *std::to_chars(out, out + sizeof out - 1, value).ptr = '\0';
}

}  // namespace

void NodeInit(Node* node, uint32_t nodeid) {
    node->nodeid = nodeid;
    decimal_text(node->nodeuuid, nodeid);
}

void MemberInit(Member* member, const MemberEntry* mbe) {
    if (mbe != nullptr) member->mbe.node = mbe->node;
    // Not snprintf: this runs for every member of every received VDisk.
    decimal_text(member->uuid, member->mbe.node);
}

Member* MemberLookup(MemberList* mblp, unsigned int nodeid) {
    for (Member& m : *mblp) {
        if (m.mbe.node == nodeid) return &m;
    }
    return nullptr;
}

int VDiskInit(VDisk* vdisk, const VDiskEntry* vde) {
    if (vde != nullptr) vdisk->vde = *vde;
    vdisk->vdiskuuid[0] = '\0';
    vdisk->parentuuid[0] = '\0';
    // The texts become store paths: nothing is derived from a refused entry.
    if (vde_check_uuids(&vdisk->vde) < 0) return -1;
    field_text(vdisk->vdiskuuid, vdisk->vde.uuid, sizeof vdisk->vde.uuid);
    if (vdisk->vde.snapshot != 0) {
        field_text(vdisk->parentuuid, vdisk->vde.description.snap.parent,
                   sizeof vdisk->vde.description.snap.parent);
    }
    return 0;
}

int VDiskRead(DatagramReader* rd, std::unique_ptr<VDisk>* vdiskp) {
    VDiskEntry vde;
    if (!rd->read(&vde)) {
        // The caller checks for a whole entry; should it not, the rest of
        // the datagram is dropped like a refused entry.
        rd->seek(rd->length());
        return -1;
    }
    // One look at the log mask for the whole block.
    const bool trace = record_traces_on();
    if (trace) vde_dump(&vde);
    const size_t nmembers = vde.members;
    const size_t nfrontends = vde.frontends;

    if (vde_check_uuids(&vde) < 0) {
        // Skip the refused block whole so the next entry is read where it
        // begins; a block that overruns the datagram ends the walk.
        size_t block = (nmembers + nfrontends) * sizeof(MemberEntry);
        if (!rd->seek(rd->offset() + block)) rd->seek(rd->length());
        return -1;
    }

    auto vdisk = std::make_unique<VDisk>();
    VDiskInit(vdisk.get(), &vde);

    // A count can claim more records than the datagram holds: reserve no
    // more than the bytes left could carry.
    const size_t room = rd->remaining() / sizeof(MemberEntry);
    vdisk->members.reserve(std::min(nmembers, room));
    for (size_t i = 0; i < nmembers; ++i) {
        MemberEntry mbe;
        if (!rd->read(&mbe)) {
            rd->seek(rd->length());
            return -2;
        }
        if (trace) mbe_dump(&mbe);
        MemberInit(&vdisk->members.emplace_back(), &mbe);
    }
    vdisk->members_count = static_cast<int>(nmembers);

    vdisk->frontends.reserve(std::min(nfrontends, rd->remaining() / sizeof(FrontendEntry)));
    for (size_t i = 0; i < nfrontends; ++i) {
        FrontendEntry fee;
        if (!rd->read(&fee)) {
            rd->seek(rd->length());
            return -3;
        }
        if (trace) fee_dump(&fee);
        Frontend& fe = vdisk->frontends.emplace_back();
        fe.fee = fee;
        if (addr_number_to_text(fee.node, fe.ipaddr) < 0) {
            CV_ERROR("inet_ntop(): %s", std::strerror(errno));
            rd->seek(rd->length());
            return -3;
        }
    }
    vdisk->frontends_count = static_cast<int>(nfrontends);

    *vdiskp = std::move(vdisk);
    return 0;
}

VDisk* VDiskTree_RB_INSERT(VDiskTree* head, std::unique_ptr<VDisk>* elm) {
    auto [it, inserted] = head->try_emplace((*elm)->vdiskuuid);
    if (!inserted) return it->second.get();
    it->second = std::move(*elm);
    return nullptr;
}

VDisk* VDiskTree_RB_FIND(VDiskTree* head, std::string_view uuid) {
    auto it = head->find(uuid);
    return it == head->end() ? nullptr : it->second.get();
}

void VDiskTreeFlush(VDiskTree* head) { head->clear(); }

}  // namespace corvald
