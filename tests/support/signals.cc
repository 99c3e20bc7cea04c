#include "support/signals.h"

#include <cstring>

namespace corvald::test {

namespace {
struct timespec ms_to_ts(int ms) { return {ms / 1000, (ms % 1000) * 1000000L}; }
}  // namespace

SignalTimer::SignalTimer(int sig, void (*handler)(int), int first_ms, int interval_ms) : sig_(sig) {
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sigemptyset(&sa.sa_mask);
    sa.sa_handler = handler;
    ::sigaction(sig, &sa, &old_);
    if (first_ms <= 0) return;
    struct sigevent ev;
    std::memset(&ev, 0, sizeof ev);
    ev.sigev_notify = SIGEV_SIGNAL;
    ev.sigev_signo = sig;
    ::timer_create(CLOCK_MONOTONIC, &ev, &timer_);
    struct itimerspec it = {ms_to_ts(interval_ms), ms_to_ts(first_ms)};
    ::timer_settime(timer_, 0, &it, nullptr);
    armed_ = true;
}

SignalTimer::~SignalTimer() {
    if (armed_) ::timer_delete(timer_);
    ::sigaction(sig_, &old_, nullptr);
}

}  // namespace corvald::test
