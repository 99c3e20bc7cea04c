// The configuration reader without the process exit, for config_load and
// its tests, and the table of settings.
#pragma once

#include <span>
#include <string>

namespace corvald {

// Reads and applies the file at path. Returns 0, or -1 with the exact
// standard-error message (newline included) in error; values read before
// the failing line stay applied.
int config_read(const char* path, std::string& error);

enum class ConfigKind { String, Ident, Interface, Facility, Priority, Int };

// One setting: its key, where its value lives (str for texts, num for
// numbers and the two syslog names), the range test of a number and the
// default. The one list of the settings: the reader, the defaults, the dump
// and whatever saves and restores settings all walk it.
struct ConfigKey {
    const char* name;
    ConfigKind kind;
    std::string* str;
    int* num;
    bool (*ok)(int);
    const char* text_default;
    int int_default;
};

// Every setting, in the order config_dump prints them.
std::span<const ConfigKey> config_keys();

}  // namespace corvald
