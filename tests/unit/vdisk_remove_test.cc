#include <gtest/gtest.h>

#include <cstdlib>

#include "base/config.h"
#include "store/vdisk.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace corvald {

// Makes the store s/: VDisk v has members 3 and 5 and the snapshot s of member 3, both on data
// store d. Only the "datastore" links' targets are read. Beside the store lies keep/, a sentinel
// that must outlive every removal.
const std::string kSeed =
    "rm -rf s w && mkdir -p keep s/locks s/VDisk/v/memberinfo/3/n s/VDisk/v/memberinfo/5 "
    "s/VDisk/s/memberinfo/3 && cd s && for l in Node/3/vdisks/v Node/5/vdisks/v Node/3/vdisks/s "
    "Datastore/d/vdisks/v Datastore/d/vdisks/s VDisk/v/snapshots/s VDisk/v/datastore "
    "VDisk/s/datastore; do mkdir -p ${l%/*} && ln -s ../../Datastore/d $l; done && ";

// Each row on a fresh store after its edits (shell): for each character of nodes, VDiskGone of
// vd (a snapshot of parent when one is given) by that one-digit node, or for "." MemberinfoDelete
// of node ".."; the results summed; what the store loses (for rm -rf); how this module's log (so
// far) ends, "|" after each line and "@" for the store root.
const std::string kCases[][7] = {
    {":", "v", "", "3", "0", "Node/3/vdisks/v VDisk/v/memberinfo/3"},
    {":", "v", "", "355", "0", "Datastore/d/vdisks/v Node/?/vdisks/v VDisk/v"},
    {":", "s", "v", "3", "0", "Datastore/d/vdisks/s Node/3/vdisks/s VDisk/s VDisk/v/snapshots/s",
     "info: MemberinfoDelete(): Update VDisk s delete Member 3|info: NodeUpdate_UnrefVDisk(): "
     "Update Node 3 unref VDisk s|debug: NodeUpdate_UnrefVDisk(): @/Node/3/vdisks/s [UNLINK]|"
     "info: ParentUpdate_UnrefSnapshot(): Update VDisk v unref Snapshot s|info: DatastoreUpdate"
     "_UnrefVDisk(): Update Datastore d unref VDisk s|info: VDiskGone(): Delete VDisk s|"},
    // No member record of 9, no parent, no data store link: the record goes all the same.
    {"rm -r VDisk/v VDisk/s/memberinfo/3 VDisk/s/datastore", "s", "v", "9", "0", "VDisk/s"},
    {"ln -sfn ../../Datastore/ VDisk/v/datastore", "v", "", "35", "-1",
     "Node/?/vdisks/v VDisk/v/memberinfo",
     "Malformed symlink @/VDisk/v/datastore: ../../Datastore/|"},
    {"ln -sfn /.. VDisk/v/datastore", "v", "", "35", "-1", "Node/?/vdisks/v VDisk/v/memberinfo"},
    // A lock file made by the edits: the step that needs it fails, and it stays.
    {">locks/NODE-3", "v", "", "3", "-1", "VDisk/v/memberinfo/3"},
    {">locks/DS-d", "s", "v", "3", "-1", "Node/3/vdisks/s VDisk/s/memberinfo VDisk/v/snapshots/s"},
    {":", "../..", "", "9", "-1", ""},
    {":", "s", "..", ".3", "-2", ""},
};

TEST(VDiskRemoveTest, RemovesMembersThenTheRecordWithItsLinksAndStopsAtTheFirstFailure) {
    test::TempDir tmp;
    auto [wd, nt, dt, vt] = std::tie(cfg_work_directory, cfg_node_lock_timeout_ms,
                                     cfg_datastore_lock_timeout_ms, cfg_vdisk_lock_timeout_ms);
    const auto saved = std::tuple(wd, nt, dt, vt);
    wd = tmp / "s", nt = dt = vt = 0;
    auto sh = [&](std::string c) { return std::system(("cd " + tmp.path() + " && " + c).c_str()); };
    for (test::LogCapture log; const auto& [edits, vd, parent, nodes, rc, gone, part] : kCases) {
        EXPECT_EQ(sh(kSeed + edits + " && cp -a . ../w && cd ../w && rm -rf " + gone), 0);
        VDisk v;
        vd.copy(v.vdiskuuid, 15), parent.copy(v.parentuuid, 15), v.vde.snapshot = !parent.empty();
        int sum = 0;
        for (Hdr hdr = {}; char n : nodes)
            sum += n == '.' ? MemberinfoDelete(&v, "..") : (hdr.uid = n - '0', VDiskGone(&hdr, &v));
        std::string text;
        for (const auto& l : log.lines())  // not the lock's nor rm_fr's lines
            text += l.find("Path") == l.npos && l.find("rm_f") == l.npos ? l + "|" : "";
        for (size_t at; (at = text.find(wd)) != text.npos;) text.replace(at, wd.size(), "@");
        // The store is its copy w/ less what was to go, and the sentinel is still there.
        bool same = sh("diff -r --no-dereference s w && test -d keep") == 0;
        EXPECT_TRUE(std::to_string(sum) == rc && same && text.ends_with(part)) << sum << text;
    }
    std::tie(wd, nt, dt, vt) = saved;
}

}  // namespace corvald
