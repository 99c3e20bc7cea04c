// The daemon's running part: module state, the one loop of the process and
// its orderly end.
#pragma once

namespace corvald {

// Prepares the module and installs the signal handlers; 0 (the lists need
// no allocation, so it cannot fail).
int controller_module_setup();
// Opens the sockets and runs the loop until SIGINT or SIGTERM; 0 after that
// orderly end and after a failed receive (the daemon then stops in order as
// well), -1 if its start-up failed.
int controller_thread_loop();
// Releases what setup made, with the shutdown notices.
void controller_module_teardown();

}  // namespace corvald
