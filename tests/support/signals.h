// A signal handler installed without SA_RESTART (so that blocking calls
// return EINTR), optionally with a timer that raises the signal at the
// process, as a signal from outside would arrive. Both are undone when the
// owner goes away.
#pragma once

#include <signal.h>
#include <time.h>

namespace corvald::test {

class SignalTimer {
public:
    // handler for sig; with first_ms > 0 the signal comes after first_ms and
    // then every interval_ms (0: once).
    SignalTimer(int sig, void (*handler)(int), int first_ms = 0, int interval_ms = 0);
    ~SignalTimer();
    SignalTimer(const SignalTimer&) = delete;
    SignalTimer& operator=(const SignalTimer&) = delete;

private:
    int sig_;
    struct sigaction old_;
    timer_t timer_ = {};
    bool armed_ = false;
};

}  // namespace corvald::test
