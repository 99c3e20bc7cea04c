// JSON documents through the real binary: "store_json" and "delete_json" on
// the control port, STORE_JSON and DELETE_JSON datagrams from a peer, the
// re-announcement and the expiry on the JSON timer. The store's own rules
// (names refused, failures, the sweep's ages) are unit/json_store_test.cc's.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "support/daemon.h"
#include "support/seed_store.h"
#include "support/udp.h"
#include "support/wire.h"
#include "util/unique_fd.h"

namespace corvald::test {
namespace {

using Files = std::map<std::string, std::string>;

// A datagram as the tests compare it: its type, the header's node id and
// everything after the header, with the entry's lastping cleared; sent()
// is one from node 1, the seed's.
std::string seen(const std::optional<std::string>& d) {
    if (!d || d->size() < 353)
        return "<none or short>";
    return (d->substr(2, 1) + d->substr(4, 4) + d->substr(207)).replace(5 + 114, 8, 8, '\0');
}
std::string sent(char type, const std::string& e) {
    return std::string{type, 1, 0, 0, 0} + e;
}

// Node 1 of the seed on a daemon whose one destination is the sink at
// 127.0.0.2, with an open control connection.
struct Host {
    SeedStore s;
    UdpSink sink{"127.0.0.2", s.cfg.bind_port()};
    std::optional<Daemon> d;
    UniqueFd ctrl{::socket(AF_INET, SOCK_STREAM, 0)};
    uint32_t marker = 900000;

    explicit Host(const char* json_ping_interval = "90") {
        s.cfg.values["json_ping_interval"] = json_ping_interval;
        d.emplace(std::vector<std::string>{"-dd", "-C", s.conf()}, s.dir);
        for (int i = 0; i < 3; ++i) EXPECT_TRUE(sink.next());  // the start-up announcements
        sockaddr_in sa = {
            AF_INET, htons(uint16_t(s.cfg.ctrl_port())), {htonl(INADDR_LOOPBACK)}, {}};
        EXPECT_EQ(::connect(ctrl.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
    }
    std::string v2(const std::string& rel) const { return s.db() + "/v2/" + rel; }

    // The error lines logged for a control line or a datagram (which begins
    // with its version byte, 1). A turn takes its datagram before the control
    // reads, so the marker of unknown type goes only once a line is being
    // handled; its trace then comes after all of it.
    std::vector<std::string> in(const std::string& bytes) {
        const size_t m = d->mark(), before = d->matching("error:").size();
        if (bytes[0] != 1) {
            EXPECT_EQ(::write(ctrl.get(), bytes.data(), bytes.size()), ssize_t(bytes.size()));
            EXPECT_TRUE(d->wait_for_after(m, "MSG from CTRL client"));
        } else {
            EXPECT_TRUE(send_datagram(bytes, s.cfg.bind_port()));
        }
        EXPECT_TRUE(send_datagram(header(5, ++marker).b, s.cfg.bind_port()));
        EXPECT_TRUE(d->wait_for_after(m, "hdr_dump(): uid=" + std::to_string(marker)));
        std::vector<std::string> errors = d->matching("error:");
        return {errors.begin() + ptrdiff_t(before), errors.end() - 1};  // not the marker's
    }
    // Each file's contents, a metadata file's with its lastping cleared.
    void expect(const Files& files) const {
        for (auto [path, want] : files) {
            std::string got = look(path);
            if (path.ends_with(".mtd") && got.size() == 146)
                got.replace(114, 8, 8, '\0');
            EXPECT_EQ(got, want) << path;
        }
    }
};

// Both ways in on one daemon: the control lines, which also announce and
// list (a refused name neither), then a peer's datagrams, never listed.
TEST(Json, CommandsAndDatagramsStoreListAndDelete) {
    Host h;
    const std::string idx = h.v2("local_files"), cfg = h.v2("apps/cfg.json"),
                      doc = h.v2("peer/d.json"), hdr = header(36, 7).b, pipe = "{\"a\":\"b|c\"}",
                      parse = "error: json_cmd_handler(): STORE JSON failed to parse parameters",
                      malformed = "error: controller_thread_loop(): Malformed JSON ping ";
    const std::string e = json_entry("1", "apps/", "cfg.json", pipe), e99 = json_entry("99", "", "n", "[9]"),
                      d = json_entry("7", "peer/", "d.json", "[5]", 2);
    // Each thing handed in, the error lines it logs, the datagram it sends
    // (a datagram too many shifts every later one) and the files it leaves.
    // clang-format off
    const struct { std::string in; std::vector<std::string> errors; std::string sent = "";
                   Files files = {}; } rows[] = {
        {"store_json|1|apps/|cfg.json|" + pipe + "\n", {}, sent(36, e),
         {{cfg, pipe}, {cfg + ".mtd", e.substr(0, 146)}, {idx, cfg + "\n"}}},
        {"store_json|1|../|keep|{}\n",
         {"error: json_cmd_handler(): Refused JSON path ../ filename keep: outside the JSON tree"}},
        {"store_json|1|apps/|cfg.json|\n",
         {"error: parse_json_params(): Failed to get json param CTRL store_json", parse}},
        {"store_json|1|apps/\n", {parse}},
        {"store_json|0123456789abcdef|apps/|n.json|[9]\n",
         {"error: copyParam(): Too big parameter max size 16",
          "error: parse_json_params(): Failed to handle uuid param CTRL store_json", parse}},
        {"store_json|99||n|[9]\n", {}, sent(36, e99), {{h.v2("n.mtd"), e99.substr(0, 146)}}},
        {"delete_json|1|apps/|cfg.json|x\n", {}, sent(37, json_entry("1", "apps/", "cfg.json", "x")),
         {{cfg, "<missing>"}, {cfg + ".mtd", "<missing>"}, {idx, h.v2("n") + "\n"}}},
        {hdr + d, {}, "",
         {{doc, "[5]"}, {doc + ".mtd", d.substr(0, 146)}, {idx, h.v2("n") + "\n"}}},
        {header(37, 7).b + json_entry("7", "peer/", "d.json", "x"), {}, "",
         {{doc, "<missing>"}, {doc + ".mtd", "<missing>"}}},
        {(hdr + json_entry("7", "", "h.json", "")).substr(0, 352), {malformed + "header"}, "",
         {{h.v2("h.json"), "<missing>"}}},
        {(hdr + json_entry("7", "", "e.json", "[1]", 100)).substr(0, 356),
         {malformed + "empty payload"}, "", {{h.v2("e.json"), "<missing>"}}},
    };
    // clang-format on
    for (const auto& [in, errors, sent, files] : rows) {
        EXPECT_EQ(h.in(in), errors) << in;
        if (!sent.empty()) {
            EXPECT_EQ(seen(h.sink.next()), sent) << in;
        }
        h.expect(files);
    }
    EXPECT_EQ(h.d->matching("Node 99 not found in local DB use local node instead").size(), 1u);
}

// One daemon at a JSON ping interval of a second; its first JSON timer comes
// 12 s after its start, re-announces the listed document and sweeps both it
// and a peer's one made over five intervals old.
TEST(Json, ListedDocumentsReannouncedAndOldOnesSwept) {
    Host h("1");
    const std::string live = h.v2("apps/live.json"), old = h.v2("peer/old.json");
    ASSERT_TRUE(h.in("store_json|1|apps/|live.json|[1]\n").empty() && h.sink.next());
    ASSERT_TRUE(h.in(header(36, 7).b + json_entry("7", "peer/", "old.json", "[2]")).empty());
    const time_t t = std::time(nullptr) - 100;
    ASSERT_EQ(::pwrite(UniqueFd(::open((old + ".mtd").c_str(), O_WRONLY)).get(), &t, 8, 114), 8);
    EXPECT_EQ(seen(h.sink.next(40s)), sent(36, json_entry("1", "apps/", "live.json", "[1]")));
    for (const char* f : {"old.json", "live.json"})
        EXPECT_TRUE(h.d->wait_for(std::string("Delete local files ") + f + " due to timeout", 40s));
    h.in(header(5, 1).b);  // the sweep has ended
    h.expect({{old, "<missing>"},
              {old + ".mtd", "<missing>"},
              {live, "<missing>"},
              {h.v2("local_files"), ""}});
}

}  // namespace
}  // namespace corvald::test
