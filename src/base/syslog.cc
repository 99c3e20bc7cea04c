#include "base/syslog.h"

#include <syslog.h>

#include <cassert>

#include "base/config.h"

namespace corvald {

namespace {
int syslog_module_initialized = 0;
}

void syslog_module_setup() {
    if (syslog_module_initialized) syslog_module_teardown();

    // openlog keeps the ident pointer, not a copy: cfg_syslog_ident must not
    // change without this function running again before the next message.
    int options = LOG_PID | LOG_NDELAY;
    if (opt_debug >= 1) options |= LOG_PERROR;
    ::openlog(cfg_syslog_ident.c_str(), options, cfg_syslog_facility);

    // From -dd on, leave the mask open so debug lines pass whatever the
    // configured priority.
    if (opt_debug <= 1) ::setlogmask((1 << ((cfg_syslog_priority & 7) + 1)) - 1);

    syslog_module_initialized = 1;
}

void syslog_module_teardown() {
    assert(syslog_module_initialized);
    ::closelog();
    syslog_module_initialized = 0;
}

}  // namespace corvald
