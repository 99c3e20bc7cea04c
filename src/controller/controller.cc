// Interim controller: it only waits for SIGINT/SIGTERM, so that start-up and
// the orderly stop of the daemon frame can run and be tested. The real main
// loop (sockets, timers, reloads, statistics) replaces this file.
#include "controller/controller.h"

#include <csignal>
#include <cassert>

#include "daemon/log.h"

namespace corvald {

namespace {

int controller_module_initialized = 0;
volatile sig_atomic_t do_exit = 0;

void sigint(int) { do_exit = 1; }

}  // namespace

int controller_module_setup() {
    assert(!controller_module_initialized);
    struct sigaction sa = {};
    sigemptyset(&sa.sa_mask);
    sa.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &sa, nullptr);
    sa.sa_handler = sigint;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    controller_module_initialized = 1;
    return 0;
}

int controller_thread_loop() {
    // Block the stop signals between the test and the wait, so one that
    // arrives in between is not lost.
    sigset_t block, prev;
    sigemptyset(&block);
    sigaddset(&block, SIGINT);
    sigaddset(&block, SIGTERM);
    sigprocmask(SIG_BLOCK, &block, &prev);
    while (!do_exit) sigsuspend(&prev);
    sigprocmask(SIG_SETMASK, &prev, nullptr);
    CV_NOTICE("Exit...");
    return 0;
}

void controller_module_teardown() {
    assert(controller_module_initialized);
    CV_NOTICE("Starting shutdown sequence...");
    controller_module_initialized = 0;
    CV_NOTICE("Shutdown sequence finished!");
}

}  // namespace corvald
