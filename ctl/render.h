// How corvalctl shows what it read: one JSON document, or tables for a
// person, with every text from the store made safe to print.
#pragma once

#include <string>
#include <vector>

#include "store/lock_files.h"
#include "view.h"

namespace corvald::ctl {

// s with each byte that is not part of printable UTF-8 (control characters,
// C1 controls, invalid sequences) and the backslash written as \xNN, so a
// store text can neither move the terminal nor pass for another text.
std::string escape(const std::string& s);

// Ages: "12s ago" (a lastping in the future: "in 12s").
std::string fmt_age(int64_t seconds);

std::string nodes_json(const std::vector<NodeView>& v);
std::string datastores_json(const std::vector<DatastoreView>& v);
std::string vdisks_json(const std::vector<VDiskView>& v);
std::string docs_json(const std::vector<DocView>& v);

std::string nodes_table(const std::vector<NodeView>& v);
std::string datastores_table(const std::vector<DatastoreView>& v);
std::string vdisks_table(const std::vector<VDiskView>& v);
std::string docs_table(const std::vector<DocView>& v);
// The lock files with their holders (alive, dead, or "-" without a pid) and
// ages; with --break-dead, `broken` holds LockFileBreak's result per file.
std::string locks_table(const std::vector<LockFileInfo>& v, const std::vector<int>& broken,
                        time_t now);
std::string locks_json(const std::vector<LockFileInfo>& v, const std::vector<int>& broken,
                       time_t now);
// One VDisk in full: its attributes, then a row per member.
std::string vdisk_details(const VDiskView& v);

}  // namespace corvald::ctl
