// Parse and build rates of a maximal PING (VDisk blocks filling 65,536
// bytes after the header), beside a plain memcpy of the same bytes in the
// same run. Prints MB/s and the ratio to memcpy; passes or fails nothing.
//
//   parse/records  the bounded walk: every record copied out of the buffer
//                  after its length check, uuids checked
//   parse/objects  what the receive path builds: VDiskRead into VDisk
//                  objects with members and frontends, inserted in a tree
//   build          a Node's VDisk tree written block by block (plain VDisks
//                  first, then snapshots) through the bounded writer
#include <syslog.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "net/datagram.h"
#include "net/netlib.h"
#include "store/object.h"

using namespace corvald;

namespace {

constexpr size_t kBlocks = 65536;  // bytes of VDisk blocks at most

void clobber(void* p) { asm volatile("" : : "g"(p) : "memory"); }

// Best time of several runs of `reps` calls, in seconds per call.
double seconds_per_call(const std::function<void()>& fn) {
    using clock = std::chrono::steady_clock;
    int reps = 1;
    for (;;) {  // grow until one run takes a measurable while
        auto t0 = clock::now();
        for (int i = 0; i < reps; ++i) fn();
        double s = std::chrono::duration<double>(clock::now() - t0).count();
        if (s > 0.05) break;
        reps *= 2;
    }
    double best = 1e9;
    for (int run = 0; run < 7; ++run) {
        auto t0 = clock::now();
        for (int i = 0; i < reps; ++i) fn();
        double s = std::chrono::duration<double>(clock::now() - t0).count() / reps;
        if (s < best) best = s;
    }
    return best;
}

// A node whose VDisks (members and frontends each) fill the blocks area.
Node make_node(unsigned members, unsigned frontends) {
    Node node;
    NodeInit(&node, 7);
    node.hdr.major = 1;
    node.hdr.minor = 8;
    const size_t block = sizeof(VDiskEntry) + 4 * (members + frontends);
    for (size_t i = 0; (i + 1) * block <= kBlocks; ++i) {
        auto vd = std::make_unique<VDisk>();
        char uuid[16];
        std::snprintf(uuid, sizeof uuid, "vd-%08zx", i);
        std::memcpy(vd->vde.uuid, uuid, std::strlen(uuid));
        vd->vde.snapshot = i % 5 == 0;  // some snapshots, sent in a second pass
        if (vd->vde.snapshot) std::memcpy(vd->vde.description.snap.parent, "vd-00000001", 11);
        vde_encode_mshipgencnt(&vd->vde, &node.hdr, static_cast<unsigned>(i));
        VDiskInit(vd.get(), nullptr);
        for (unsigned m = 0; m < members; ++m) {
            MemberEntry e{m + 1};
            MemberInit(&vd->members.emplace_back(), &e);
        }
        for (unsigned f = 0; f < frontends; ++f) {
            Frontend& fe = vd->frontends.emplace_back();
            fe.fee.node = 0xC6120000u + f;  // 198.18.0.x
            addr_number_to_text(fe.fee.node, fe.ipaddr);
        }
        vd->vde.members = static_cast<uint16_t>(members);
        vd->vde.frontends = static_cast<uint16_t>(frontends);
        VDiskTree_RB_INSERT(&node.vdisks, &vd);
    }
    return node;
}

size_t build_ping(Node* node, char* buf, size_t buflen) {
    DatagramWriter wr(buf, buflen);
    Hdr hdr = node->hdr;
    hdr.type = msg::PING;
    if (!wr.put(hdr)) return 0;
    for (int pass = 0; pass < 2; ++pass) {
        for (auto& [uuid, vd] : node->vdisks) {
            if ((vd->vde.snapshot != 0) != (pass == 1)) continue;
            if (!wr.put(vd->vde)) return 0;
            for (const Member& m : vd->members) {
                if (!wr.put(m.mbe)) return 0;
            }
            for (const Frontend& f : vd->frontends) {
                if (!wr.put(f.fee)) return 0;
            }
        }
    }
    return wr.length();
}

uint64_t parse_records(const char* buf, size_t len) {
    DatagramReader rd(buf, len);
    Hdr hdr;
    uint64_t sum = 0;
    if (!rd.read(&hdr)) return 0;
    while (rd.remaining() >= sizeof(VDiskEntry)) {
        VDiskEntry vde;
        rd.read(&vde);
        if (vde_check_uuids(&vde) < 0) return 0;
        vde_decode_mshipgencnt(&vde, &hdr);
        sum += vde_mshipgencnt(&vde);
        for (unsigned i = 0; i < vde.members; ++i) {
            MemberEntry m;
            if (!rd.read(&m)) return 0;
            sum += m.node;
        }
        for (unsigned i = 0; i < vde.frontends; ++i) {
            FrontendEntry f;
            if (!rd.read(&f)) return 0;
            sum += f.node;
        }
    }
    return sum;
}

size_t parse_objects(const char* buf, size_t len) {
    DatagramReader rd(buf, len);
    rd.seek(sizeof(Hdr));
    VDiskTree tree;
    while (rd.remaining() >= sizeof(VDiskEntry)) {
        std::unique_ptr<VDisk> vd;
        if (VDiskRead(&rd, &vd) != 0) return 0;
        if (VDiskTree_RB_INSERT(&tree, &vd) != nullptr) return 0;
    }
    return tree.size();
}

void run_shape(const char* name, unsigned members, unsigned frontends) {
    Node node = make_node(members, frontends);
    std::vector<char> buf(sizeof(Hdr) + kBlocks);
    std::vector<char> copy(buf.size());
    const size_t len = build_ping(&node, buf.data(), buf.size());
    if (len == 0 || parse_records(buf.data(), len) == 0 ||
        parse_objects(buf.data(), len) != node.vdisks.size()) {
        std::printf("%s: the PING does not read back\n", name);
        return;
    }

    const double mb = static_cast<double>(len) / 1e6;
    double t_memcpy = seconds_per_call([&] {
        std::memcpy(copy.data(), buf.data(), len);
        clobber(copy.data());
    });
    double t_records = seconds_per_call([&] {
        volatile uint64_t s = parse_records(buf.data(), len);
        (void)s;
    });
    double t_objects = seconds_per_call([&] {
        volatile size_t n = parse_objects(buf.data(), len);
        (void)n;
    });
    double t_build = seconds_per_call([&] {
        volatile size_t n = build_ping(&node, buf.data(), buf.size());
        (void)n;
    });

    std::printf("%s: PING of %zu bytes, %zu VDisks (%u members, %u frontends each)\n", name, len,
                node.vdisks.size(), members, frontends);
    auto row = [&](const char* what, double t) {
        std::printf("  %-15s %9.1f MB/s  %8.2f us  %6.2fx memcpy time\n", what, mb / t, t * 1e6,
                    t / t_memcpy);
    };
    row("memcpy", t_memcpy);
    row("parse/records", t_records);
    row("parse/objects", t_objects);
    row("build", t_build);
}

}  // namespace

int main() {
    // Debug traces off, as in normal operation: each dump is then one look
    // at the log mask.
    ::setlogmask(LOG_UPTO(LOG_INFO));
    run_shape("typical", 2, 1);
    run_shape("bare entries", 0, 0);
    run_shape("member-heavy", 200, 8);
    return 0;
}
