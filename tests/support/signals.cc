#include "support/signals.h"

namespace corvald::test {

SignalTimer::SignalTimer(int sig, void (*handler)(int), int first_ms, int interval_ms) : sig_(sig) {
    struct sigaction sa = {};
    sigemptyset(&sa.sa_mask);
    sa.sa_handler = handler;
    ::sigaction(sig, &sa, &old_);
    if (first_ms <= 0) return;
    struct sigevent ev = {};
    ev.sigev_notify = SIGEV_SIGNAL;
    ev.sigev_signo = sig;
    ::timer_create(CLOCK_MONOTONIC, &ev, &timer_);
    auto ts = [](int ms) { return timespec{ms / 1000, (ms % 1000) * 1000000L}; };
    struct itimerspec it = {ts(interval_ms), ts(first_ms)};
    ::timer_settime(timer_, 0, &it, nullptr);
    armed_ = true;
}

SignalTimer::~SignalTimer() {
    if (armed_) ::timer_delete(timer_);
    ::sigaction(sig_, &old_, nullptr);
}

}  // namespace corvald::test
