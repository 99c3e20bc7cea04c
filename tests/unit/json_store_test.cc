#include "store/json_store.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <tuple>

#include "base/config.h"
#include "support/log_capture.h"
#include "support/settings.h"
#include "support/temp_dir.h"

namespace corvald {
namespace {

// A store s/ with locks/ and a sentinel keep/ beside it; the settings this module reads point at
// it (lock timeout 0: a held lock fails at once, silently) and are restored afterwards.
struct JsonStore {
    test::ScopedSettings settings;
    test::TempDir tmp;
    std::string root = tmp / "s";
    test::LogCapture log;
    JsonStore() {
        std::tie(cfg_work_directory, cfg_local_files, cfg_path_lock_timeout_ms,
                 cfg_json_ping_interval) = std::tuple(root, "/v2/local_files", 0, 90);
        sh("mkdir -p s/locks keep");
    }
    // Runs c in the temporary directory, with $R the root, $X the document a/x.json, $I the index
    // and "held <path under v2>" making the lock file another process holds; its exit status.
    int sh(const std::string& c) const {
        std::string vars =
            " && R=$PWD/s X=s/v2/a/x.json I=s/v2/local_files && held() { touch "
            "\"s/locks/$(echo $R/v2/$1 | tr / '|')\"; } && ";
        return std::system(("cd " + tmp.path() + vars + c).c_str());
    }
    std::string at(std::string t) const {  // "@" for the root
        for (size_t i; (i = t.find(root)) != t.npos;) t.replace(i, root.size(), "@");
        return t;
    }
    // The lines so far but the locks' own, "|" after each.
    std::string text() const {
        std::string t;
        for (const auto& l : log.lines()) t += l.starts_with("info: Path") ? "" : l + "|";
        return at(t);
    }
};

jsonEntry entry(const std::string& path, const std::string& file, size_t len = 0) {
    jsonEntry e = {};
    e.major = 1, e.minor = 9, e.nodeuuid[0] = '7', e.jsonlen = len, e.json = ~0ull, e.offset = 5;
    path.copy(e.path, sizeof e.path), file.copy(e.filename, sizeof e.filename);
    return e;
}

// A path with a leading "/" stays in the tree: "/a/b/" is <root>/v2//a/b/.
TEST(JsonStoreTest, JoinsPathAndFilenameAsTheyComeWritesTheMetadataAndListsTheDocument) {
    JsonStore s;
    std::string index;
    for (std::string path : {"a/b", "a/b/", "/a/b/"}) {
        jsonEntry e = entry(path, "x.json", 7);
        std::string doc = "s/v2/" + path + "x.json", golden(146, '\0');
        index += s.tmp / doc + "\n";
        const int64_t t0 = std::time(nullptr);
        ASSERT_EQ(json_write_local_files(&e, "[1,2,3]<not the text>"), 0) << s.text();
        EXPECT_TRUE(s.tmp.read(doc) == "[1,2,3]" && s.sh("test -d s/v2/a/b") == 0) << doc;
        // The record by its offsets: lastping is the time of the store, json is 0.
        int64_t lastping = e.lastping;
        golden.replace(0, 3, "\1\t7").replace(18, path.size(), path).replace(82, 6, "x.json");
        std::memcpy(&golden[114], &lastping, 8), golden[122] = 7, golden[138] = 5;
        EXPECT_EQ(s.tmp.read(doc + ".mtd"), golden);
        EXPECT_TRUE(lastping >= t0 && lastping <= std::time(nullptr)) << lastping;
        EXPECT_TRUE(json_file_in_tree((s.tmp / doc).c_str())) << doc;
    }
    EXPECT_EQ(s.tmp.read("s/v2/local_files"), index);
}

// The seed: a/x.json and a/x.json2 with empty metadata files, both listed; its index, and the
// index without a/x.json.
const std::string kSeed =
    "mkdir -p s/v2/a && for f in $X ${X}2; do echo ${f##*/} >$f && >$f.mtd "
    "&& echo $PWD/$f >>$I; done && ";
const std::string kBoth = "@/v2/a/x.json\n@/v2/a/x.json2\n", kOther = "@/v2/a/x.json2\n";

// Each row on a fresh seed after its edits: the store (s), store and listing (w) or delete (d) of
// a/x.json with the text (for a delete: the length of the index path, if not the default one); the
// result; the index afterwards; how the log (text()) ends; what holds afterwards.
// clang-format off
const std::tuple<std::string, std::string, std::string, int, std::string, std::string, std::string>
    kOps[] = {
    {":", "w", "t", 0, kBoth, "file @/v2/a/x.json\n alredy present in @/v2/local_files|",
     "grep -qx t $X"},
    {":", "s", "", -1, kBoth, "to store file x.json|", "test -f $X -a ! -s $X -a ! -s $X.mtd"},
    {"rm -r s/v2/a && touch s/v2/a", "s", "t", -1, kBoth, "@/v2/a where are file in path|error: "
     "json_store_handle_ping(): Failed to make directory a/ where are file in path|error: json_"
     "store_handle_ping(): Failed to open for write file path @/v2/a/x.json|", "test -f s/v2/a"},
    {"held a/x.json", "s", "t", -1, kBoth, "filename x.json|", "grep -qx x.json $X"},
    {"rm $I && held local_files", "w", "t", 0, "<missing>", "x.json|", "grep -qx t $X"},
    // A link planted at the document's place is not followed.
    {"ln -sf ../../../keep/d $X", "s", "t", -1, kBoth, "path @/v2/a/x.json|", "test ! -e keep/d"},
    {":", "d", "", 0, kOther, "", "test ! -e $X -a ! -e $X.mtd"},
    {"rm $X", "d", "", -8, kOther, "a/x.json): No such file or directory|", "test ! -e $X.mtd"},
    {"rm $X.mtd", "d", "", -10, kOther, "x.json.mtd): No such file or directory|", "test ! -e $X"},
    // A copy left by an interrupted delete becomes the index as it is.
    {"mv $I $I.tmp", "d", "", -6, kBoth, "Failed to open local_files @/v2/local_files|warn: json_"
     "delete_local_files(): failed unlink(@/v2/local_files): No such file or directory|",
     "! test -e $I.tmp"},
    {"mkdir $I.tmp", "d", "", -5, kBoth, "open local_files @/v2/local_files|", "test -d $I.tmp"},
    {":", "d", "256", -2, kBoth, "yyy for local_files|", "test -e $X"},
    {":", "d", "252", -3, kBoth, "yyy.tmp for tmp local_files|", "test -e $X.mtd"},
};
// clang-format on

TEST(JsonStoreTest, StoresAndDeletesReportTheirFailuresAndLeaveWhatTheyReached) {
    for (const auto& [edits, op, text, rc, index, log, check] : kOps) {
        JsonStore s;
        ASSERT_EQ(0, s.sh(kSeed + edits));
        jsonEntry e = entry("a/", "x.json", text.size());
        if (op == "d" && !text.empty())
            cfg_local_files = "/v2/" + std::string(std::stoul(text) - s.root.size() - 4, 'y');
        auto store = op == "s" ? json_store_handle_ping : json_write_local_files;
        int r = op == "d" ? json_delete_local_files(&e) : store(&e, text.c_str());
        EXPECT_TRUE(r == rc && s.at(s.tmp.read("s/v2/local_files")) == index &&
                    s.text().ends_with(log) && s.sh(check) == 0)
            << r << s.text();
    }
}

// Metadata files for the sweep at kNow: directory, file name, age in seconds, deleted or not.
constexpr time_t kNow = 1'700'000'000;
// clang-format off
const std::tuple<std::string, int, bool> kAges[] = {
    {"a/old.json", 451, true}, {"a/edge.json", 450, false}, {"b/old.json", 452, true},
    {"b/future.json", -3600, false}};
// clang-format on

TEST(JsonStoreTest, SweepDeletesDocumentsOlderThanFiveIntervalsInEveryDirectory) {
    JsonStore s;
    // In each directory a document named without "." that must not end the sweep.
    ASSERT_EQ(0, s.sh("mkdir -p s/v2/a s/v2/b && touch $I s/v2/a/noext s/v2/b/noext"));
    for (const auto& [doc, age, deleted] : kAges) {
        jsonEntry e = entry(doc.substr(0, 2), doc.substr(2));
        e.lastping = kNow - age;
        s.tmp.write("s/v2/" + doc, "{}");
        ASSERT_EQ(json_interact_metadata((s.root + "/v2/" + doc + ".mtd").c_str(), &e, SAVE), 0);
    }
    // A link to an expired record outside is passed over as a link: followed, it would add a line.
    ASSERT_EQ(0, s.sh("cp s/v2/a/old.json.mtd keep/o.mtd && ln -s $PWD/keep/o.mtd s/v2/b/l.mtd"));
    EXPECT_EQ(json_timeout_check(kNow), 0);
    std::string n = "notice: json_file_check(): Delete local files old.json due to timeout 45";
    EXPECT_TRUE(s.log.count(n + "1s") == 1 && s.log.count(n + "2s") == 1) << s.log.dump();
    EXPECT_EQ(s.text().size(), 2 * n.size() + 6) << "not these two lines alone: " << s.text();
    for (const auto& [doc, age, deleted] : kAges)
        EXPECT_EQ(s.sh("test -e s/v2/" + doc + " -o -e s/v2/" + doc + ".mtd") != 0, deleted) << doc;
}

// path and filename that would lead out of the JSON tree, add an index line or name the index;
// whether the document's full path counts as one in the tree (a line of the index that may be
// read).
// clang-format off
const std::tuple<std::string, std::string, bool> kRefused[] = {
    {"..", "x", 1}, {"../", "x", 0}, {"a/../../", "x", 0}, {"/../", "x", 0}, {"a/.", ".", 0},
    {"a/", "..", 0}, {"a/", "b/../../../x", 0}, {"a/", "x\n/etc/passwd", 0},
    {std::string(64, 'p'), "x", 1}, {"", "local_files", 1}, {".//", "local_files.tmp", 1}};
// clang-format on

TEST(JsonStoreTest, RefusesPathsOutOfTheTreeBeforeTouchingAnything) {
    JsonStore s;
    ASSERT_EQ(0, s.sh("mkdir -p s/v2/a && echo $R/v2/a/x >$I && ln -s no/x s/dl && find . ! -name "
                      "t0 | sort >t0"));
    for (const auto& [path, file, in] : kRefused) {
        jsonEntry e = entry(path, file);
        EXPECT_EQ(json_file_in_tree((s.root + "/v2/" + path + file).c_str()), in) << path << file;
        int sum = json_store_handle_ping(&e, "t") + json_write_local_files(&e, "t");
        EXPECT_EQ(sum + json_delete_local_files(&e), -3) << path << file;
    }
    // Nothing made, removed or locked, and one refusal line per call and no other line.
    EXPECT_EQ(s.sh("find . ! -name t0 | sort | cmp - t0 && test -z \"$(ls s/locks)\""), 0);
    EXPECT_TRUE(s.log.lines_containing("Refused JSON path ").size() == 3 * std::size(kRefused) &&
                s.log.lines().size() == 3 * std::size(kRefused));
    EXPECT_EQ(s.log.lines()[0],
              "error: json_store_handle_ping(): Refused JSON path .. filename x: "
              "outside the JSON tree");
    EXPECT_FALSE(json_file_in_tree((s.root + "/v2x/a").c_str()));
    // mkdir_p refuses no room or nothing, follows no link, and makes the rest.
    for (const std::string& dir : {std::string(256, 'd'), std::string()})
        EXPECT_TRUE(mkdir_p(dir.c_str(), 0777) == -1 && s.text().ends_with("path max 256|")) << dir;
    EXPECT_TRUE(mkdir_p((s.root + "/dl/x").c_str(), 0777) == -1 &&
                s.text().ends_with("@/dl where are file in path|"));
    EXPECT_TRUE(mkdir_p((s.root + "/n/m/").c_str(), 0777) == 0 && s.sh("test -d s/n/m") == 0);
}

}  // namespace
}  // namespace corvald
