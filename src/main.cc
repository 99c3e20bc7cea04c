// corvald: start-up, the controller's run and the orderly end.
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <fcntl.h>
#include <getopt.h>

#include "base/config.h"
#include "base/log.h"
#include "base/syslog.h"
#include "base/version.h"
#include "controller/controller.h"
#include "net/auth.h"
#include "store/lock_files.h"
#include "util/io.h"
#include "util/unique_fd.h"

using namespace corvald;

namespace {

[[noreturn]] void usage(const char* argv0) {
    std::fprintf(stderr, "Usage: %s [-dh] [-C config]\n", argv0);
    std::exit(1);
}

// Writes the process id and a line feed to the pid file; 0 or -1 (logged).
// The file is never removed and never locked: a new start rewrites it.
int write_pid_file(pid_t pid) {
    const char* path = cfg_pid_file.c_str();
    int fd = fd_open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) return -1;
    char text[16];
    int len = std::snprintf(text, sizeof(text), "%d\n", static_cast<int>(pid));
    assert(len >= 1 && len <= 15);
    ssize_t n = buf_tx(fd, text, static_cast<size_t>(len), 1);
    if (n < 0) return -1;  // the process ends; the descriptor goes with it
    assert(n == len);
    if (::fsync(fd) < 0) {
        syslog(LOG_ERR, "error: %s(): fsync(%s): %s%s", "main", path, std::strerror(errno), "");
        return -1;
    }
    return fd_close(fd) < 0 ? -1 : 0;
}

// The pid the pid file holds from the previous run, or 0 (no file, or no
// number in it).
pid_t read_pid_file() {
    UniqueFd fd(::open(cfg_pid_file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    char text[16] = {};
    if (!fd || ::read(fd.get(), text, sizeof text - 1) <= 0)
        return 0;
    return static_cast<pid_t>(std::strtol(text, nullptr, 10));
}

}  // namespace

int main(int argc, char** argv) {
    // --version is the one long option; the usage line keeps the short ones.
    static const struct option long_options[] = {{"version", no_argument, nullptr, 'V'},
                                                 {nullptr, 0, nullptr, 0}};
    int ch;
    while ((ch = ::getopt_long(argc, argv, "dC:hV", long_options, nullptr)) != -1) {
        switch (ch) {
            case 'V':
                std::printf("corvald %s\n", CORVALD_VERSION);
                return 0;
            case 'd':
                ++opt_debug;
                break;
            case 'C':
                opt_config = optarg;
                break;
            default:
                usage(argv[0]);
        }
    }

    config_module_setup();
    syslog_module_setup();
    config_load();

    ::umask(022);
    const char* workdir = cfg_work_directory.c_str();
    if (::mkdir(workdir, 0777) < 0 && errno != EEXIST) {
        std::fprintf(stderr, "error: mkdir(%s): %s\n", workdir, std::strerror(errno));
        return 1;
    }
    if (::chdir(workdir) < 0) {
        std::fprintf(stderr, "error: chdir(%s): %s\n", workdir, std::strerror(errno));
        return 1;
    }
    // Store paths begin with the root's text, and the process now runs inside
    // the root: a relative root would be looked up again from inside itself.
    // So a relative root is replaced by the directory just entered.
    if (workdir[0] != '/') {
        char* cwd = ::getcwd(nullptr, 0);
        if (cwd == nullptr) {
            std::fprintf(stderr, "error: getcwd(): %s\n", std::strerror(errno));
            return 1;
        }
        cfg_work_directory = cwd;
        std::free(cwd);
    }
    // Keys and mode are checked while a refusal can still reach the
    // terminal: a daemon that cannot sign or check as told does not start.
    std::string auth_error;
    if (auth_module_setup(&auth_error) < 0) {
        std::fputs(auth_error.c_str(), stderr);
        return 1;
    }
    if (opt_debug == 0 && ::daemon(1, 0) < 0) {
        std::fprintf(stderr, "error: daemon(): %s\n", std::strerror(errno));
        return 1;
    }

    config_dump();
    // Lock files left by a previous run that died (a crash, kill -9) would
    // keep every program out of their records for good; they go before this
    // run takes its first lock.
    LockFilesRecover(read_pid_file());
    if (write_pid_file(::getpid()) < 0) return 1;

    if (controller_module_setup() < 0) return 1;
    if (controller_thread_loop() < 0) return 1;

    controller_module_teardown();
    auth_module_teardown();
    config_module_teardown();
    syslog_module_teardown();
    return 0;
}
