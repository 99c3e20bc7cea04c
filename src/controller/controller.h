// The daemon's running part: module state, the one loop of the process and
// its orderly end.
#pragma once

namespace corvald {

// Prepares the module and installs the signal handlers; 0 or negative.
int controller_module_setup();
// Runs until SIGINT or SIGTERM; 0 after an orderly end, -1 if its start-up
// failed.
int controller_thread_loop();
// Releases what setup made, with the shutdown notices.
void controller_module_teardown();

}  // namespace corvald
