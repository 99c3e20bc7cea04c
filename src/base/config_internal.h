// The configuration reader without the process exit, for config_load and
// its tests.
#pragma once

#include <string>

namespace corvald {

// Reads and applies the file at path. Returns 0, or -1 with the exact
// standard-error message (newline included) in error; values read before
// the failing line stay applied.
int config_read(const char* path, std::string& error);

}  // namespace corvald
