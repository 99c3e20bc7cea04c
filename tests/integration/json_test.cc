// JSON documents through the real binary: "store_json" and "delete_json" on
// the control port, STORE_JSON and DELETE_JSON datagrams from a peer, the
// re-announcement and the expiry on the JSON timer, and names that would lead
// out of the JSON tree, by either way in (a leading "/" does not).
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <filesystem>
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

// A jsonEntry (146 bytes) as a node at version 1.8 (node 1 of the seed)
// fills it, then offset filler bytes and the text: what a JSON ping carries
// after its header. Its first 146 bytes with lastping cleared are the
// document's metadata file.
std::string entry(const std::string& node, const std::string& path, const std::string& file,
                  const std::string& text, uint64_t offset = 0) {
    Golden g(146);
    g.num(0, 1, 1).num(1, 8, 1).text(2, node).text(18, path).text(82, file);
    return g.num(122, text.size(), 8).num(138, offset, 8).b + std::string(offset, '~') + text;
}

// A datagram as the tests compare it: its type, the header's node id and
// everything after the header, with the entry's lastping cleared.
std::string seen(const std::optional<std::string>& d) {
    if (!d || d->size() < 353)
        return "<none or short>";
    return (d->substr(2, 1) + d->substr(4, 4) + d->substr(207)).replace(5 + 114, 8, 8, '\0');
}
std::string sent(char type, const std::string& e) {
    return std::string{type, 1, 0, 0, 0} + e;  // from node 1, the seed's
}

// One thing handed in: a control line, or a datagram (which begins with its
// version byte, 1); the error lines it must log, the datagram it must send
// (see sent()) and the files it must leave.
struct Row {
    std::string in;
    std::vector<std::string> errors;
    std::string sent = "";
    Files files = {};
};

// Node 1 of the seed on a daemon whose one destination is the sink at
// 127.0.0.2, with an open control connection.
struct Host {
    const time_t t0 = std::time(nullptr);
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

    // The error lines logged for what is handed in. A turn takes its datagram
    // before the control reads, so the marker of unknown type goes only once
    // a line is being handled; its trace then comes after all of it.
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
        errors.pop_back();  // the marker's "unknown header type"
        return {errors.begin() + ptrdiff_t(before), errors.end()};
    }
    // Each file's contents; a metadata file's lastping must lie within this
    // run and is then cleared.
    void expect(const Files& files) const {
        for (const auto& [path, want] : files) {
            std::string got = look(path);
            if (path.ends_with(".mtd") && got.size() == 146) {
                int64_t t;
                std::memcpy(&t, got.data() + 114, 8);
                EXPECT_TRUE(t >= t0 && t <= std::time(nullptr)) << path << ": lastping " << t;
                got.replace(114, 8, 8, '\0');
            }
            EXPECT_EQ(got, want) << path;
        }
    }
    // A datagram too many shifts every later one: let the last row send.
    void run(const std::vector<Row>& rows) {
        for (const auto& r : rows) {
            SCOPED_TRACE(testing::PrintToString(r.in));
            EXPECT_EQ(in(r.in), r.errors);
            if (!r.sent.empty()) {
                EXPECT_EQ(seen(sink.next()), r.sent);
            }
            expect(r.files);
        }
    }
};

// Both ways in on one daemon: the control lines, which also announce and
// list, then a peer's datagrams.
TEST(Json, CommandsAndDatagramsStoreListAndDelete) {
    Host h;
    const std::string idx = h.v2("local_files"), cfg = h.v2("apps/cfg.json"),
                      x = h.v2("apps/x.json"), doc = h.v2("peer/d.json"), hdr = header(36, 7).b,
                      pipe = "{\"a\":\"b|c\"}",
                      parse = "error: json_cmd_handler(): STORE JSON failed to parse parameters",
                      malformed = "error: controller_thread_loop(): Malformed JSON ping ";
    const std::string e = entry("1", "apps/", "cfg.json", "[1,2,3]"),
                      e99 = entry("99", "apps/", "n.json", "[9]"),
                      d1 = entry("7", "peer/", "d.json", "{\"k\":1}"),
                      d2 = entry("7", "peer/", "d.json", "[5]", 2);
    // clang-format off
    h.run({
        {"store_json|1|apps/|cfg.json|[1,2,3]\n", {}, sent(36, e),
         {{cfg, "[1,2,3]"}, {cfg + ".mtd", e.substr(0, 146)}, {idx, cfg + "\n"}}},
        {"store_json|1|apps/|x.json|{}\n", {}, sent(36, entry("1", "apps/", "x.json", "{}")),
         {{idx, cfg + "\n" + x + "\n"}}},
        {"store_json|1|apps/|cfg.json|\n",
         {"error: parse_json_params(): Failed to get json param CTRL store_json", parse}},
        {"store_json|1|apps/\n", {parse}},
        {"store_json|0123456789abcdef|apps/|n.json|[9]\n",
         {"error: copyParam(): Too big parameter max size 16",
          "error: parse_json_params(): Failed to handle uuid param CTRL store_json", parse}},
        {"delete_json|1|apps/|x.json|x\n", {}, sent(37, entry("1", "apps/", "x.json", "x")),
         {{x, "<missing>"}, {x + ".mtd", "<missing>"}, {idx, cfg + "\n"}}},
        {"store_json|99|apps/|n.json|[9]\n", {}, sent(36, e99),
         {{h.v2("apps/n.json.mtd"), e99.substr(0, 146)}}},
        {"store_json|1|apps/|p.json|" + pipe + "\n", {},
         sent(36, entry("1", "apps/", "p.json", pipe)), {{h.v2("apps/p.json"), pipe}}},
        // From a peer: stored and deleted, never listed.
        {hdr + d1, {}, "", {{doc, "{\"k\":1}"}, {doc + ".mtd", d1.substr(0, 146)}}},
        {header(37, 7).b + entry("7", "peer/", "d.json", "x"), {}, "",
         {{doc, "<missing>"}, {doc + ".mtd", "<missing>"}}},
        {hdr + d2, {}, "", {{doc, "[5]"}, {doc + ".mtd", d2.substr(0, 146)}}},
        {(hdr + entry("7", "", "h.json", "")).substr(0, 352), {malformed + "header"}, "",
         {{h.v2("h.json"), "<missing>"}}},
        {(hdr + entry("7", "", "e.json", "[1]", 100)).substr(0, 356),
         {malformed + "empty payload"}, "", {{h.v2("e.json"), "<missing>"}}},
    });
    // clang-format on
    EXPECT_EQ(look(idx).find("peer"), std::string::npos);  // a peer's documents are not listed
    EXPECT_EQ(h.d->matching("Node 99 not found in local DB use local node instead").size(), 1u);
}

// One daemon at a JSON ping interval of a second; its first JSON timer comes
// 12 s after its start.
TEST(Json, ListedDocumentsReannouncedAndOldOnesSwept) {
    Host h("1");
    const std::string live = h.v2("apps/live.json"), old = h.v2("peer/old.json");
    ASSERT_TRUE(h.in("store_json|1|apps/|live.json|[1]\n").empty());
    ASSERT_TRUE(h.sink.next());
    for (const char* f : {"old.json", "new.json"})
        ASSERT_TRUE(h.in(header(36, 7).b + entry("7", "peer/", f, "[2]")).empty());
    // Over five intervals old, and in the future: only the first may go.
    for (const auto& [f, t] : {std::pair{"old", h.t0 - 100}, std::pair{"new", h.t0 + 3600}}) {
        UniqueFd fd(::open(h.v2("peer/" + std::string(f) + ".json.mtd").c_str(), O_WRONLY));
        ASSERT_EQ(::pwrite(fd.get(), &t, 8, 114), 8);
    }
    EXPECT_EQ(seen(h.sink.next(40s)), sent(36, entry("1", "apps/", "live.json", "[1]")));
    for (const char* f : {"old.json", "live.json"})
        EXPECT_TRUE(h.d->wait_for(std::string("Delete local files ") + f + " due to timeout", 40s));
    h.in(header(5, 1).b);  // the sweep has ended
    // clang-format off
    h.expect({{old, "<missing>"}, {old + ".mtd", "<missing>"}, {h.v2("peer/new.json"), "[2]"},
              {live, "<missing>"}, {h.v2("local_files"), ""}});
    // clang-format on
}

// Every path under root with what is there.
Files tree(const std::string& root) {
    Files out;
    for (const auto& e : std::filesystem::recursive_directory_iterator(root))
        out[e.path()] = look(e.path());
    return out;
}

TEST(Json, NamesLeadingOutOfTheTreeRefusedBothWays) {
    Host h;
    h.s.write("keep", "in the store\n");
    h.s.dir.write("keep", "beside the store\n");
    ASSERT_TRUE(h.in("store_json|1||ok.json|{}\n").empty());  // v2 and the index exist
    ASSERT_TRUE(h.sink.next());
    const Files before = tree(h.s.dir.path());
    // One of each kind; every name the store refuses is the store test's.
    const std::pair<std::string, std::string> names[] = {
        {"../", "keep"}, {"/../", "keep"}, {"a/.", "."}, {"", "local_files"}};
    std::vector<Row> rows;
    for (const auto& [path, file] : names) {
        const std::string why =
            "(): Refused JSON path " + path + " filename " + file + ": " +
            (file == "local_files" ? "the local files index" : "outside the JSON tree");
        const std::string line = "|1|" + path + "|" + file + "|{}\n",
                          e = entry("7", path, file, "{}");
        rows.push_back({"store_json" + line, {"error: json_cmd_handler" + why}});
        rows.push_back({"delete_json" + line, {"error: json_cmd_handler" + why}});
        rows.push_back({header(36, 7).b + e, {"error: json_store_handle_ping" + why}});
        rows.push_back({header(37, 7).b + e, {"error: json_delete_local_files" + why}});
    }
    h.run(rows);
    EXPECT_EQ(tree(h.s.dir.path()), before);
    EXPECT_TRUE(std::filesystem::is_empty(h.s.db() + "/locks"));
    // The next datagram the sink gets is this one: the refused lines sent none.
    // A leading "/" stays in the tree: "/etc/" is v2//etc/.
    const std::string etc = h.v2("/etc/passwd");
    h.run({{"delete_json|1||ok.json|x\n", {}, sent(37, entry("1", "", "ok.json", "x"))},
           {"store_json|1|/etc/|passwd|{}\n", {}, sent(36, entry("1", "/etc/", "passwd", "{}")),
            {{etc, "{}"}, {h.v2("local_files"), etc + "\n"}}}});
}

}  // namespace
}  // namespace corvald::test
