// The uuid check's bounds, the record traces' bounds and an old sender's
// generation count. (The count both ways at each version is checked end to
// end: the announcement tests send it, the receive tables read it.) (Record layouts are pinned by the static_asserts of netlib.h; the
// bytes of every datagram kind are checked end to end by the integration
// tests; address numbers both ways by the VDisk load, list-file and
// multicast group tests.)
#include "net/netlib.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "support/log_capture.h"

// Records are built with designated initializers: unnamed fields are zero.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace corvald {
namespace {

using Lines = std::vector<std::string>;

// An old sender's stray full count is ignored; non-digits decode to a
// defined value: ('A' - '0') * 10 + (0x80 as -128) - '0', kept to 16 bits.
TEST(GenerationCount, OldSendersBytesDecodeAsSigned) {
    Hdr old{.major = 1, .minor = 0};
    VDiskEntry v{.name = {.old_mshipgencnt = {'A', static_cast<char>(0x80)}, .mshipgencnt = 0xFFFF}};
    vde_decode_mshipgencnt(&v, &old);
    EXPECT_EQ(vde_mshipgencnt(&v), static_cast<uint16_t>(17 * 10 + (-128 - 48)));
}

// The texts the receive tables refuse are test::kHostileNames; here the
// field's bounds and the full-width lines.
TEST(UuidNames, FieldBoundsAndFullWidthLines) {
    const std::pair<std::string, bool> cases[] = {
        {"...", true},
        {"abcdefghijklmn", true},          // 14 bytes, no terminator
        {std::string("\0/..", 4), false},  // empty: nothing after a zero counts
        {std::string("ok\0/", 4), true},   // bytes after the zero are ignored
    };
    for (const auto& [text, safe] : cases) {
        char field[14] = {};
        std::memcpy(field, text.data(), text.size());
        EXPECT_EQ(uuid_is_safe(field, sizeof field), safe) << '"' << text << '"';
    }
    const char wide[16] = "abcdefghijklmn/";  // a "/" just past the width is not seen
    EXPECT_TRUE(uuid_is_safe(wide, 14) && !uuid_is_safe(wide, 15));
    test::LogCapture log;
    VDiskEntry v{};
    std::memcpy(v.uuid, "abcdefghij/lmn", 14);  // full width: printed within it
    EXPECT_EQ(vde_check_uuids(&v), -1);
    EXPECT_EQ(log.lines(), Lines{"error: vde_check_uuids(): Refused VDisk uuid \"abcdefghij/lmn\""});

    // The traces too print a text that fills its field whole and no further.
    const int mask = setlogmask(LOG_UPTO(LOG_DEBUG));
    Hdr h{.type = msg::PING};
    std::memset(h.serial, 'S', sizeof h.serial);
    std::memset(h.hbtl, 'H', sizeof h.hbtl);
    hdr_dump(&h);
    EXPECT_TRUE(log.contains("debug: hdr_dump(): serial=" + std::string(sizeof h.serial, 'S')))
        << log.dump();
    v = VDiskEntry{.uuid = "vd-0001", .snapshot = 2};
    v.description.snap = {.y = 24, .m = 1, .d = 5, .H = 7, .M = 8, .S = 9};
    std::memcpy(v.description.snap.parent, "parent-uuid-14", 14);
    std::memset(v.name.name, 'N', sizeof v.name.name);
    vde_dump(&v);
    for (const std::string& line : Lines{"parent=parent-uuid-14", "snaptime=24-01-05_07.08.09",
                                         "name=" + std::string(sizeof v.name.name, 'N')})
        EXPECT_TRUE(log.contains("debug: vde_dump(): " + line)) << line << log.dump();
    setlogmask(mask);
}

}  // namespace
}  // namespace corvald
