// Programs of the build run to their end: corvald's runs that stop by
// themselves (usage, configuration and start-up errors) and corvalctl.
#pragma once

#include <string>
#include <vector>

namespace corvald::test {

struct RunResult {
    int status = -1;  // the exit status; -1 if it was killed
    std::string out, err;
};

// bin (CORVALD_BIN, CORVALCTL_BIN) with args, and in as its standard input,
// until it exits; killed after 20 seconds.
RunResult run_to_exit(const char* bin, const std::vector<std::string>& args,
                      const std::string& in = "");

}  // namespace corvald::test
