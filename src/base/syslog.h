// Opening and closing the system log from the configured ident, facility,
// priority and the -d count.
#pragma once

namespace corvald {

// Opens the log (closing it first if open); safe to call whenever a syslog
// setting changes.
void syslog_module_setup();
// Closes the log; the log must be open.
void syslog_module_teardown();

}  // namespace corvald
