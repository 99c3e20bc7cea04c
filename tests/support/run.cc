#include "support/run.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/temp_dir.h"

extern char** environ;

namespace corvald::test {

RunResult run_to_exit(const char* bin, const std::vector<std::string>& args,
                      const std::string& in, std::chrono::milliseconds timeout) {
    TempDir dir;
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, dir.write("in", in).c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 1, (dir / "out").c_str(), O_WRONLY | O_CREAT, 0644);
    posix_spawn_file_actions_addopen(&fa, 2, (dir / "err").c_str(), O_WRONLY | O_CREAT, 0644);
    std::vector<char*> argv{const_cast<char*>(bin)};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    RunResult r;
    pid_t pid;
    int st = 0;
    if (posix_spawn(&pid, bin, &fa, nullptr, argv.data(), environ) == 0) {
        // Polled: a run that hangs must fail its test, not hold it.
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        for (; ::waitpid(pid, &st, WNOHANG) == 0; ::usleep(1000)) {
            if (std::chrono::steady_clock::now() > deadline) {
                ::kill(pid, SIGKILL);
                ::waitpid(pid, &st, 0);
                break;
            }
        }
        if (WIFEXITED(st))
            r.status = WEXITSTATUS(st);
    }
    posix_spawn_file_actions_destroy(&fa);
    r.out = dir.read("out");
    r.err = dir.read("err");
    return r;
}

}  // namespace corvald::test
