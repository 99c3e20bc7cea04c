// Datagrams for tests, written from the record layouts (offsets and widths),
// not from the daemon's structures: a test then holds the daemon to the wire
// format itself. Numbers are little-endian but for the generation count.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace corvald::test {

// One VDisk block of a PING. The fixed figures are those of the seed store's
// VDisks (sector size 512, port 3260, one replica, 64 of stripe size...).
struct VDiskBlock {
    VDiskBlock(std::string u, std::vector<uint32_t> m, std::vector<uint32_t> f = {},
               std::string p = "")
        : uuid(std::move(u)), members(std::move(m)), frontends(std::move(f)),
          parent(std::move(p)) {}
    std::string uuid;
    unsigned gen = 1;  // membership generation count, carried as the header's version says
    std::vector<uint32_t> members;
    std::vector<uint32_t> frontends;  // IPv4 addresses, first octet most significant
    std::string parent;               // a snapshot of parent, taken 26-11-23_09.30.00
    bool snapshot = false;            // a snapshot even with an empty parent
    uint32_t transaction_id = 0;
    uint64_t sectors = 2097152;
    uint64_t seqno = 1;
    std::string name = "demo disk";
    std::string description = "the demo's plain disk";  // only when not a snapshot
};

struct Golden {
    std::string b;
    explicit Golden(size_t n) : b(n, '\0') {}
    Golden& num(size_t off, uint64_t v, int width);
    Golden& text(size_t off, const std::string& s);
    // The demo node's header fields (those of support/store_builder.h's
    // node()); with a backup address, status 1 and that address in size.
    Golden& demo_node(uint32_t backup = 0);
    // Records appended at the end of the datagram.
    Golden& vdisk(const VDiskBlock& v);
    Golden& datastore(const std::string& uuid, const std::string& name = "",
                      const std::string& description = "", uint16_t replicas = 1,
                      uint16_t stripes = 1);
    // An AUX_PING's zero byte and capacity record with the demo node's figures.
    Golden& aux();
    Golden& vdisk_deleted(uint32_t node, const std::string& uuid);
};

// A JSON ping's entry (146 bytes) as a node at version 1.8 fills it, then
// offset filler bytes and the text: what STORE_JSON and DELETE_JSON carry
// after their header. Its first 146 bytes with lastping cleared are the
// document's metadata file.
std::string json_entry(const std::string& node, const std::string& path, const std::string& file,
                       const std::string& text, uint64_t offset = 0);

// A header of type from node uid at protocol version major.minor, len bytes
// long, everything else zero.
Golden header(uint8_t type, uint32_t uid, size_t len = 207, uint8_t major = 1, uint8_t minor = 8);

}  // namespace corvald::test
