// Runs the real corvald binary for integration tests and reads what it logs.
//
// Two ways to read the log:
//  - stderr: under -d the daemon copies every message that passes its mask
//    to standard error ("corvald[pid]: notice: ..."); the runner also keeps
//    the lines written there before the log is open (usage, config errors).
//  - syslog: for runs without -d (the daemon detaches and stderr is
//    /dev/null) the runner starts the daemon in a private mount namespace
//    whose /dev/log is a socket of the test's own, and reads the datagrams
//    with their priorities. Needs root; syslog_available() says whether it
//    can be used here.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace corvald::test {

using namespace std::chrono_literals;

// One logged line: the message without the "ident[pid]: " prefix, and the
// text exactly as it arrived (from syslog with its "<priority>" and time).
struct LoggedLine {
    std::string message;
    std::string raw;
};

// A configuration for a test daemon: everything under dir, unicast mode on
// lo, free ports. Keys can be overridden or removed before write(). The
// local-nodes and unicast-hosts files are made empty in dir unless they are
// there already, so a plain run reads both without an error.
struct TestConfig {
    explicit TestConfig(const TempDir& dir);
    std::map<std::string, std::string> values;
    // Writes the file (keys in sorted order, "key = value"); returns its path.
    std::string write(const TempDir& dir, const std::string& name = "corvald.conf") const;
    int bind_port() const { return std::stoi(values.at("bind_port")); }
    int ctrl_port() const { return std::stoi(values.at("ctrl_port")); }
};

// A port that was free for both UDP (any address) and TCP (127.0.0.1) when
// asked; each call gives a different one.
int free_port();

// Whether LogVia::Syslog can run here.
bool syslog_available();

class Daemon {
public:
    enum class LogVia { Stderr, Syslog };

    // Starts CORVALD_BIN with args (argv[0] is added). With LogVia::Syslog
    // the run gets its own /dev/log under work.
    Daemon(const std::vector<std::string>& args, const TempDir& work, LogVia via = LogVia::Stderr);
    ~Daemon();  // kills whatever still runs in the work directory
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // The process started (for a detached daemon: the parent that exits).
    pid_t child_pid() const { return child_; }

    // First line (from the start of the run) whose message contains needle,
    // waiting for it up to timeout; nullopt if it did not come.
    std::optional<LoggedLine> wait_for(const std::string& needle,
                                       std::chrono::milliseconds timeout = 20s) {
        return wait_for_after(0, needle, timeout);
    }
    // Same, but only lines arrived after the mark (see mark()).
    std::optional<LoggedLine> wait_for_after(size_t mark, const std::string& needle,
                                             std::chrono::milliseconds timeout = 20s);
    // Number of lines seen so far (read everything pending first).
    size_t mark() { return lines().size(); }
    // Every line seen so far.
    const std::vector<LoggedLine>& lines() {
        pump(std::chrono::milliseconds(0));
        return lines_;
    }
    // Messages of the lines seen so far, from line `from` on, that contain needle.
    std::vector<std::string> matching(const std::string& needle, size_t from = 0);

    // Waits until the pid file at path holds a complete "<pid>\n" and
    // returns that pid; nullopt on timeout.
    std::optional<pid_t> wait_pid_file(const std::string& path,
                                       std::chrono::milliseconds timeout = 20s);
    // Waits until pid (default: the child) has a handler for sig, that is
    // until the controller is set up and a signal no longer kills it.
    bool wait_handler(int sig, pid_t pid = 0, std::chrono::milliseconds timeout = 20s);
    // Waits until pid is gone (or a zombie: a detached daemon's parent may
    // not reap it); false on timeout.
    bool wait_gone(pid_t pid, std::chrono::milliseconds timeout = 20s);
    // Sends sig to pid (default: the child).
    void signal(int sig, pid_t pid = 0) { ::kill(pid ? pid : child_, sig); }
    // Waits for the child to end; its exit status, 128+signal if killed,
    // or nullopt on timeout. Reads the remaining log too.
    std::optional<int> wait_exit(std::chrono::milliseconds timeout = 20s);

private:
    void pump(std::chrono::milliseconds timeout);
    void take_stderr_bytes(const char* p, size_t n);

    pid_t child_ = -1;
    std::string work_;
    bool exited_ = false;
    int status_ = 0;
    int err_fd_ = -1;
    int log_fd_ = -1;
    std::string partial_;
    std::vector<LoggedLine> lines_;
};

}  // namespace corvald::test
