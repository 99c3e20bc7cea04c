#include "support/run.h"

#include <sys/wait.h>

#include <cstdlib>

#include "support/temp_dir.h"

namespace corvald::test {

RunResult run_to_exit(const char* bin, const std::vector<std::string>& args,
                      const std::string& in) {
    TempDir dir;
    // A run that hangs must fail its test, not hold it.
    std::string cmd = std::string("timeout -s KILL 20 ") + bin;
    for (const std::string& a : args) {
        cmd += " '";
        for (char c : a) cmd += c == '\'' ? std::string("'\\''") : std::string(1, c);
        cmd += "'";
    }
    cmd += " <" + dir.write("in", in) + " >" + dir / "out" + " 2>" + dir / "err";
    const int st = std::system(cmd.c_str());
    return {WIFEXITED(st) && WEXITSTATUS(st) != 137 ? WEXITSTATUS(st) : -1, dir.read("out"),
            dir.read("err")};
}

}  // namespace corvald::test
