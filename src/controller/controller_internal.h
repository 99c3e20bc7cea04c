// What the parts of the controller share: the lists the main loop keeps
// (the announcement code reads them), the lists' files, the receive step and
// the capacity of the loop's descriptor set. Not for use outside
// src/controller/.
#pragma once

#include <sys/select.h>

#include <cstddef>

#include "store/object.h"

namespace corvald {

// The local nodes in file order; replaced whole by a successful reload.
extern NodeList local_nodes;
// The unicast destinations in file order; replaced whole by a successful
// reload. Senders pick the list in force per datagram (destination_list).
extern HostList unicast_hosts;
// The multicast destinations, filled once by the loop's start-up.
extern HostList multicast_groups;

// Read cfg_local_nodes / cfg_unicast_hosts into a new list and install it;
// after any failure (logged) the list in force stays. 0 or negative.
int load_local_nodes();
int load_unicast_hosts();
// One notice line per entry of the list in force, "[i/n] ...".
void dump_local_nodes();
void dump_unicast_hosts();

// Receives one datagram into buf (buflen bytes), checks, counts and
// dispatches it. 0 when it was handled (the turn goes on to the control
// connections), 1 when it was dropped before dispatch (the turn ends), -1
// when the receive call failed (the loop ends).
int receive_datagram(char* buf, size_t buflen, int so);

// Whether the loop's select set can watch fd. A descriptor at or above
// FD_SETSIZE cannot be put into an fd_set without writing past it, so the
// loop refuses it: start-up fails, and an accepted control connection must
// be closed at once (with its closing notice) instead of being watched.
inline bool fd_fits_select_set(int fd) { return fd >= 0 && fd < FD_SETSIZE; }

}  // namespace corvald
