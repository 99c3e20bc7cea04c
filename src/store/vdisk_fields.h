// Attribute tables of the VDisk record, for the VDisk record code only. The
// loader and the writer go through the same tables, so the two can never
// disagree on a key, a field, its width or the order of the batch.
#pragma once

#include <array>

#include "net/netlib.h"
#include "store/attr.h"

namespace corvald {

// The shared attributes of VDisk/<uuid>, in the order they are written at
// creation and read back. The snapshot's or plain disk's own attributes
// (parent and snaptime, or description) follow them, each in its own step:
// which of them exists depends on "snapshot".
inline constexpr std::array kVDiskSharedFields = {
    CV_ATTR("uuid", VDiskEntry, uuid),
    CV_ATTR("name", VDiskEntry, name.name),
    CV_ATTR("sector_size", VDiskEntry, sector_size),
    CV_ATTR("sectors", VDiskEntry, sectors),
    CV_ATTR("replicas", VDiskEntry, replicas),
    CV_ATTR("st_mems", VDiskEntry, st_mems),
    CV_ATTR("st_size", VDiskEntry, st_size),
    CV_ATTR("snapshot", VDiskEntry, snapshot),
};

// What one member node announced about the VDisk, in memberinfo/<node id>.
// "membership_gen_count" is not in the table: the entry carries it in two
// encodings that depend on the reader's version, and the writer puts it
// first while the loader reads it last.
inline constexpr std::array kVDiskMemberFields = {
    CV_ATTR("numkeys", VDiskEntry, numkeys), CV_ATTR("seqno", VDiskEntry, seqno),
    CV_ATTR("status", VDiskEntry, status),   CV_ATTR("port", VDiskEntry, port),
    CV_ATTR("st_mem", VDiskEntry, st_mem),
};

}  // namespace corvald
