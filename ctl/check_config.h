// corvalctl check-config: what the daemon's own reader accepts may still be
// a configuration that cannot work on this host. The reader has run by now
// (its errors are the daemon's start-up errors); this looks at the values.
#pragma once

#include <string>
#include <vector>

namespace corvald::ctl {

// One line per setting in force that is surely wrong here (missing files,
// an interface this host lacks, a number at 0 where 0 cannot be meant),
// each "warning: <key>: <why>"; empty when none is.
std::vector<std::string> config_warnings();

}  // namespace corvald::ctl
