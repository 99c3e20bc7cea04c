#include "support/wire.h"

#include <cstdio>

namespace corvald::test {

Golden& Golden::num(size_t off, uint64_t v, int width) {
    for (int i = 0; i < width; ++i) b[off + i] = static_cast<char>(v >> (8 * i));
    return *this;
}

Golden& Golden::text(size_t off, const std::string& s) {
    b.replace(off, s.size(), s);
    return *this;
}

Golden& Golden::demo_node(uint32_t backup) {
    num(3, backup ? 1 : 2, 1).text(8, "CORVAL STORAGE SYSTEMS DEMO UNIT").text(40, "Demo Node");
    num(72, 81920, 4).num(76, 37, 4).text(80, "1.8.0").text(104, "DEMO-0001").text(168, "0:0:1:0");
    return num(200, backup ? backup : 102400, 4).num(204, 3, 1).num(205, 513, 2);
}

Golden header(uint8_t type, uint32_t uid, size_t len, uint8_t major, uint8_t minor) {
    Golden g(len);
    g.num(0, major, 1).num(1, minor, 1).num(2, type, 1).num(4, uid, 4);
    return g;
}

Golden& Golden::vdisk(const VDiskBlock& v) {
    const size_t off = b.size();
    b.resize(off + 125 + 4 * (v.members.size() + v.frontends.size()));
    char two[3];
    std::snprintf(two, sizeof two, "%02u", v.gen % 100);
    num(off, v.transaction_id, 4).text(off + 4, v.uuid).text(off + 18, two).text(off + 20, v.name);
    // Peers from 1.8 on also carry the whole count, big-endian.
    if (b[0] > 1 || (b[0] == 1 && b[1] >= 8))
        num(off + 48, ((v.gen & 0xff) << 8) | ((v.gen >> 8) & 0xff), 2);
    num(off + 50, 512, 4).num(off + 62, v.sectors, 8).num(off + 70, v.seqno, 8);
    const bool snap = v.snapshot || !v.parent.empty();
    if (!snap) {
        text(off + 78, v.description);
    } else {
        num(off + 78, 26, 1).num(off + 79, 11, 1).num(off + 80, 23, 2).num(off + 82, 9, 1);
        num(off + 83, 30, 1).text(off + 85, v.parent);
    }
    num(off + 110, 1, 1).num(off + 111, 3260, 2).num(off + 113, 1, 2).num(off + 116, 1, 1);
    num(off + 117, 64, 2).num(off + 119, snap, 2);
    num(off + 121, v.members.size(), 2).num(off + 123, v.frontends.size(), 2);
    size_t at = off + 125;
    for (uint32_t m : v.members) num(at, m, 4), at += 4;
    for (uint32_t f : v.frontends) num(at, f, 4), at += 4;
    return *this;
}

Golden& Golden::datastore(const std::string& uuid, const std::string& name,
                          const std::string& description, uint16_t replicas, uint16_t stripes) {
    const size_t off = b.size();
    b.resize(off + 87);
    text(off, uuid).text(off + 14, name).text(off + 46, description).num(off + 78, 512, 4);
    return num(off + 82, replicas, 2).num(off + 84, stripes, 2);
}

Golden& Golden::aux() {
    size_t off = b.size() + 1;
    b.resize(off + 28);
    for (uint32_t figure : {28, 20480, 2, 3, 64, 16384, 9216}) num(off, figure, 4), off += 4;
    return *this;
}

Golden& Golden::vdisk_deleted(uint32_t node, const std::string& uuid) {
    const size_t off = b.size();
    b.resize(off + 18);
    return num(off, node, 4).text(off + 4, uuid);
}

std::string json_entry(const std::string& node, const std::string& path, const std::string& file,
                       const std::string& text, uint64_t offset) {
    Golden g(146);
    g.num(0, 1, 1).num(1, 8, 1).text(2, node).text(18, path).text(82, file);
    return g.num(122, text.size(), 8).num(138, offset, 8).b + std::string(offset, '~') + text;
}

}  // namespace corvald::test
