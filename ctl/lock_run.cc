// corvalctl lock: a command run under a store lock, for scripts that must
// not touch a record while the daemon does. The lock is the daemon's own
// lock file (PathLock, the same name, the same back-off), so the daemon
// waits for the command exactly as it waits for itself.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>

#include "net/netlib.h"
#include "ops.h"
#include "render.h"
#include "store/lock.h"

namespace corvald::ctl {

namespace {

// What a signal to corvalctl means for the command: these ask it to end.
bool is_stop(int sig) {
    return sig == SIGINT || sig == SIGTERM || sig == SIGHUP;
}

int exit_status(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

int lock_run(const std::string& name, int timeout_s, const std::vector<std::string>& argv,
             int cwd) {
    if (name.empty() || name.size() > kLockNameMax || !uuid_is_safe(name.c_str(), name.size())) {
        std::cerr << "corvalctl: NAME must be a plain lock file name: " << escape(name) << "\n";
        return 1;
    }
    // Every signal the command should see is blocked from here on, before
    // the lock exists: a signal between taking the lock and starting the
    // command must not end corvalctl with the lock left behind. The ones
    // that arrive meanwhile are taken from the pending set below.
    sigset_t forwarded, old;
    sigemptyset(&forwarded);
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2, SIGCHLD, SIGWINCH})
        sigaddset(&forwarded, sig);
    ::sigprocmask(SIG_BLOCK, &forwarded, &old);

    const int rc = PathLock(name.c_str(), timeout_s * 1000);
    if (rc == -1) {
        std::cerr << "corvalctl: lock " << name << " still held elsewhere after " << timeout_s
                  << "s\n";
        return 75;  // EX_TEMPFAIL: try again later
    }
    if (rc < 0) {
        std::cerr << "corvalctl: cannot take lock " << name << " (" << rc << ")\n";
        return 2;
    }
    sigset_t pending;
    ::sigpending(&pending);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
        if (sigismember(&pending, sig)) {
            PathUnlock(name.c_str());
            return 128 + sig;
        }
    }

    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        ::signal(SIGPIPE, SIG_DFL);
        if (::fchdir(cwd) < 0)
            ::_exit(127);
        ::sigprocmask(SIG_SETMASK, &old, nullptr);
        ::execvp(args[0], args.data());
        std::cerr << "corvalctl: " << escape(argv[0]) << ": " << std::strerror(errno) << "\n";
        ::_exit(127);
    }
    if (child < 0) {
        std::cerr << "corvalctl: fork: " << std::strerror(errno) << "\n";
        PathUnlock(name.c_str());
        return 2;
    }
    // The lock is released when the command is gone, never before: it
    // protects what the command does. A second request to stop ends the
    // command for good, so an operator is never stuck behind one that
    // ignores the first.
    int status = 0, stops = 0;
    for (;;) {
        siginfo_t si;
        const int sig = ::sigwaitinfo(&forwarded, &si);
        if (sig == SIGCHLD) {
            if (::waitpid(child, &status, WNOHANG) == child)
                break;
            continue;
        }
        if (sig < 0)
            continue;
        ::kill(child, is_stop(sig) && ++stops > 1 ? SIGKILL : sig);
    }
    PathUnlock(name.c_str());
    return exit_status(status);
}

}  // namespace corvald::ctl
