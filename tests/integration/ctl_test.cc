// corvalctl as a process: its listings of stores built here (records alive,
// late, silent, locked, malformed, hostile and linked out of the store), its
// usage and reach errors. (Its control commands reach a daemon in
// control_test.)
#include <gtest/gtest.h>

#include <ctime>
#include <nlohmann/json.hpp>

#include "net/netlib.h"
#include "support/run.h"
#include "support/seed_store.h"
#include "support/wire.h"

namespace corvald::test {
namespace {

using J = nlohmann::ordered_json;

RunResult ctl(const std::vector<std::string>& args, const std::string& in = "") {
    return run_to_exit(CORVALCTL_BIN, args, in);
}

// t with <db> the store and, d seconds after base, <aN> the age N + d, <lN>
// the time base - N and <eN> the time left N - d.
std::string fill(std::string t, const std::string& db, time_t base, long d) {
    for (size_t i; (i = t.find('<')) != std::string::npos;) {
        const size_t end = t.find('>', i);
        const char kind = t[i + 1];
        const long n = kind == 'd' ? 0 : std::stol(t.substr(i + 2, end - i - 2));
        const long v = kind == 'a' ? n + d : kind == 'l' ? base - n : n - d;
        t.replace(i, end + 1 - i, kind == 'd' ? db : std::to_string(v));
    }
    return t;
}

// Whether out is tmpl as seen at some second between base and now, compared
// as JSON documents (order of fields included) or as text.
testing::AssertionResult shows(const std::string& out, const std::string& tmpl,
                               const std::string& db, time_t base, bool json = true) {
    for (long d = 0; d <= std::time(nullptr) - base; ++d) {
        const std::string want = fill(tmpl, db, base, d);
        if (json ? J::parse(out, nullptr, false) == J::parse(want) : out == want)
            return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "got:\n" << out << "want:\n" << fill(tmpl, db, base, 0);
}

// A document's metadata file: its jsonEntry of 146 bytes.
std::string metadata(const std::string& node, const std::string& path, const std::string& file,
                     int64_t lastping) {
    return Golden(146).text(2, node).text(18, path).text(82, file).num(114, lastping, 8).b;
}

TEST(Ctl, ListingsShowEveryRecordAndFollowNoLinkOutOfTheStore) {
    SeedStore s;
    s.cfg.values["heartbeat_interval"] = "10";
    s.cfg.values["json_ping_interval"] = "10";
    const std::string conf = s.conf(), db = s.db();
    for (int n : {2, 3, 4, 5}) s.clone_node(n);
    s.sh(
        "mkdir ../outside Node/07 v2 v2/apps && echo secret > ../outside/x && "
        "ln -s ../../outside Node/6 && rm Node/3/datastoremember && echo x > Node/5/freespace && "
        "echo 1 > locks/NODE-4 && printf 'n\\007\\377\\033[0m\\n' > Datastore/ds01/name && "
        "cp -a Datastore/ds01 Datastore/ds02 && ln -sf ../../../outside/x Datastore/ds02/stripes "
        "&& cd VDisk && printf '1\\n2\\n' > 5f3a9c0e1b2d47/membership && cp -a 5f3a9c0e1b2d47 bad "
        "&& printf '1\\n9\\n' > 0c71e2aa9f3b10/membership && echo lots > bad/sectors && "
        "echo 7 > 5f3a9c0e1b2d47/memberinfo/2/status && "
        "echo 305 > 5f3a9c0e1b2d47/memberinfo/2/membership_gen_count && cd ../v2 && "
        "head -c 10 /dev/zero > short.mtd && ln -s ../../outside/x evil.mtd");
    const time_t base = std::time(nullptr);
    for (auto [node, age] : {std::pair{1, 5}, {2, 35}, {3, 500}})
        s.write("Node/" + std::to_string(node) + "/lastping", std::to_string(base - age) + "\n");
    s.write("v2/apps/cfg.json.mtd", metadata("1", "apps/", "cfg.json", base - 12));
    s.write("v2/peer.json.mtd", metadata("7", "", "peer.json", base - 100));
    s.write("v2/local_files", db + "/v2/apps/cfg.json\n");

    // A listing ends with status 0 and nothing on stderr, whatever its records hold.
    auto list = [&](const std::vector<std::string>& args) {
        RunResult r = ctl(args);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.err, "");
        return r.out;
    };
    EXPECT_TRUE(shows(list({"-C", conf, "--json", "nodes"}), R"({"nodes":[
{"id":1,"local":true,"ipaddr":"127.0.0.1","version":"v1.8","datastore":"ds01","vdisks":2,"lastping":<l5>,"age":<a5>,"state":"alive","error":null},
{"id":2,"local":false,"ipaddr":"127.0.0.1","version":"v1.8","datastore":"ds01","vdisks":2,"lastping":<l35>,"age":<a35>,"state":"late","error":null},
{"id":3,"local":false,"ipaddr":"127.0.0.1","version":"v1.8","datastore":null,"vdisks":2,"lastping":<l500>,"age":<a500>,"state":"silent","error":null},
{"id":4,"local":false,"ipaddr":null,"version":null,"datastore":null,"vdisks":null,"lastping":null,"age":null,"state":"locked","error":"locked"},
{"id":5,"local":false,"ipaddr":null,"version":null,"datastore":null,"vdisks":null,"lastping":null,"age":null,"state":"error","error":"Failed to load <db>/Node/5/freespace: 0"},
{"id":6,"local":false,"ipaddr":null,"version":null,"datastore":null,"vdisks":null,"lastping":null,"age":null,"state":"error","error":"<db>/Node/6: not a directory, not followed"},
{"id":null,"local":false,"ipaddr":null,"version":null,"datastore":null,"vdisks":null,"lastping":null,"age":null,"state":"error","error":"malformed node id: 07"}]})",
                      db, base));
    EXPECT_TRUE(shows(list({"nodes", "-C", conf}),
                      R"(ID  LOCAL  ADDRESS    VERSION  DATASTORE  VDISKS  LASTPING  STATE
1   yes    127.0.0.1  v1.8     ds01       2       <a5>s ago    alive
2   no     127.0.0.1  v1.8     ds01       2       <a35>s ago   late
3   no     127.0.0.1  v1.8     -          2       <a500>s ago  silent
4   no     -          -        -          -       -         locked
5   no     -          -        -          -       -         error: Failed to load <db>/Node/5/freespace: 0
6   no     -          -        -          -       -         error: <db>/Node/6: not a directory, not followed
07  no     -          -        -          -       -         error: malformed node id
)",
                      db, base, false));

    EXPECT_TRUE(shows(list({"-C", conf, "--json", "datastores"}), R"({"datastores":[
{"uuid":"ds01","name":"n\u0007\ufffd\u001b[0m","sector_size":512,"replicas":1,"stripes":1,"members":[1],"vdisks":2,"error":null,"state":"ok"},
{"uuid":"ds02","name":null,"sector_size":null,"replicas":null,"stripes":null,"members":null,"vdisks":null,"error":"<db>/Datastore/ds02/stripes: link, not followed","state":"error"}]})",
                      db, base));
    EXPECT_NE(list({"-C", conf, "datastores"}).find(R"(  n\x07\xff\x1b[0m  )"), std::string::npos);

    const std::string plain =
        R"({"uuid":"5f3a9c0e1b2d47","name":"demo disk","size":1073741824,"sectors":2097152,"sector_size":512,"replicas":1,"snapshot":false,"parent":null,"snaptime":null,"description":"the demo's plain disk","highest_gen_count":1,"members":[
{"node":1,"gen_count":1,"status":1,"frontends":["127.0.0.1"],"error":null,"state":"ok"},
{"node":2,"gen_count":305,"status":7,"frontends":["127.0.0.1"],"error":null,"state":"ok"}],"error":null,"state":"ok"})";
    EXPECT_TRUE(shows(list({"-C", conf, "--json", "vdisks"}),
                      R"({"vdisks":[
{"uuid":"0c71e2aa9f3b10","name":"demo disk snap","size":1073741824,"sectors":2097152,"sector_size":512,"replicas":1,"snapshot":true,"parent":"5f3a9c0e1b2d47","snaptime":"26-11-23_09.30.00","description":null,"highest_gen_count":1,"members":[
{"node":1,"gen_count":1,"status":1,"frontends":["127.0.0.1"],"error":null,"state":"ok"},
{"node":9,"gen_count":null,"status":null,"frontends":null,"error":"<db>/VDisk/0c71e2aa9f3b10/memberinfo/9: No such file or directory","state":"error"}],"error":null,"state":"ok"},)" +
                          plain + R"(,
{"uuid":"bad","name":null,"size":null,"sectors":null,"sector_size":null,"replicas":null,"snapshot":null,"parent":null,"snaptime":null,"description":null,"highest_gen_count":null,"members":null,"error":"Failed to load <db>/VDisk/bad/sectors: 0","state":"error"}]})",
                      db, base));
    EXPECT_TRUE(shows(list({"-C", conf, "vdisks", "5f3a9c0e1b2d47", "--json"}),
                      R"({"vdisks":[)" + plain + "]}", db, base));

    EXPECT_TRUE(shows(list({"-C", conf, "--json", "docs"}), R"({"docs":[
{"document":"apps/cfg.json","local":true,"node":1,"path":"apps/","filename":"cfg.json","lastping":<l12>,"age":<a12>,"expires_in":<e38>,"error":null,"state":"ok"},
{"document":"evil","local":false,"node":null,"path":null,"filename":null,"lastping":null,"age":null,"expires_in":null,"error":"<db>/v2/evil.mtd: link, not followed","state":"error"},
{"document":"peer.json","local":false,"node":7,"path":"","filename":"peer.json","lastping":<l100>,"age":<a100>,"expires_in":<e-50>,"error":null,"state":"ok"},
{"document":"short","local":false,"node":null,"path":null,"filename":null,"lastping":null,"age":null,"expires_in":null,"error":"Failed to load metadata with file <db>/v2/short.mtd","state":"error"}]})",
                      db, base));
    EXPECT_EQ(look(db + "/locks/NODE-4"), "1\n");  // corvalctl released all its own locks
    EXPECT_EQ(std::system(("test $(ls " + db + "/locks | wc -l) = 1").c_str()), 0);
}

// Every refusal ends with one line and a pointer to the help (status 1) before anything
// is connected; an unreachable store or port or a missing file is status 2.
TEST(Ctl, UsageAndReachErrors) {
    SeedStore s;
    const std::string conf = s.conf(), port = s.cfg.values.at("ctrl_port");
    s.cfg.values["work_directory"] = s.dir / "none";
    const std::string nostore = s.cfg.write(s.dir, "nostore.conf");
    const std::string cv = "corvalctl: ",
                      vdisk =
                          cv +
                          "VDISK must be 1 to 14 characters without blanks or control characters";
    const struct {
        std::vector<std::string> args;
        int status;
        std::string first_line;
        std::string in = "";
    } cases[] = {
        {{}, 1, cv + "A subcommand is required"},
        {{"nodes", "extra"}, 1, cv + "The following argument was not expected: extra"},
        {{"vdisks", "../Node/1"},
         1,
         cv + "UUID must be a VDisk uuid of 1 to 14 characters: ../Node/1"},
        {{"ds-ping", "01"},
         1,
         cv + "NODE must be 1 to 15 decimal digits without a leading zero: 01"},
        {{"vdisk-deleted", "7", "123456789012345"}, 1, vdisk},
        {{"single-vdisk-ping", "7", "a b"}, 1, vdisk},
        {{"store-json", "7", "a/../", "x", "t"}, 1, cv + "PATH holds a \"..\" component"},
        {{"delete-json", "7", "a/", "x|y", "t"}, 1, cv + "FILE holds a \"|\" or a line feed"},
        {{"store-json", "1234567890123456", "", "x", "t"}, 1, cv + "NODE longer than 15"},
        {{"store-json", "7", "a/", "x", "-"},
         1,
         cv + "TEXT holds a line feed, a zero byte or a final carriage return",
         "[1,\n2]\n"},
        {{"store-json", "7", "a/", "x", std::string(65184, 'j')},
         1,
         cv + "TEXT of 65184 bytes does not fit one datagram (65183 bytes at most)"},
        {{"nodes", "-C", nostore},
         2,
         cv + "store " + s.dir / "none" + ": No such file or directory"},
        {{"ds-ping", "1"}, 2, cv + "cannot connect to 127.0.0.1:" + port + ": Connection refused"},
        {{"nodes", "-C", s.dir / "no.conf"},
         2,
         "error: config_load(): fopen(" + s.dir / "no.conf" + "): No such file or directory"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> args = c.args;
        if (c.args.empty() || c.args[0] != "nodes")
            args.insert(args.begin(), {"-C", conf});
        RunResult r = ctl(args, c.in);
        EXPECT_EQ(r.status, c.status) << c.first_line;
        EXPECT_EQ(r.err.substr(0, r.err.find('\n')), c.first_line);
        EXPECT_EQ(r.err.find("\nRun with --help for more information.\n") != std::string::npos,
                  c.status == 1)
            << r.err;
        EXPECT_EQ(r.out, "");
    }
}

}  // namespace
}  // namespace corvald::test
