// Recursive removal of store records and the lock-wait sleep.
#pragma once

namespace corvald {

// Removes dirpath and everything below it without following links or
// leaving its file system. 0 (also when dirpath is missing); -1 when its
// status cannot be read or the walk fails; -2 when it is not a directory.
int rm_fr(const char* dirpath);
// Sleeps ms milliseconds with SIGINT, SIGTERM and SIGHUP held back; 0, or
// -errno of the sleep (-EINTR when another signal cut it short).
int msleep(int ms);

}  // namespace corvald
