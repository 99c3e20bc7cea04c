// The one UDP socket the daemon sends and receives on, the address of the
// interface that carries multicast, and the multicast groups. Each operation
// logs its own failure under its own name and returns -1.
#pragma once

#include <netinet/in.h>

#include "net/host.h"

namespace corvald {

// 0, with *if_addr the IPv4 address (port 0) of the named interface.
int get_interface_addr(const char* interface, struct sockaddr_in* if_addr);
// The descriptor of a UDP socket with SO_REUSEADDR bound to *bind_addr
// (which must be IPv4), after a notice with its buffer sizes.
int open_socket(const struct sockaddr_in* bind_addr);
// 0 after switching multicast loopback off and sending multicast through
// the interface address.
int set_mcast_socket(int so, const struct sockaddr_in* if_addr);
// 0 after joining the group of dotted text mcast_addr on the interface.
int add_mcast_membership(int so, const char* mcast_addr, const struct sockaddr_in* if_addr);

// Appends one Host per group of cfg_multicast_address (separated by runs of
// commas and blanks) at cfg_bind_port to *groups; 0, or -1 at the first
// malformed group (the groups before it stay appended).
int parse_mcast_groups(HostList* groups);
// 0 after set_mcast_socket and joining every group in list order.
int join_mcast_groups(int so, const struct sockaddr_in* if_addr, const HostList& groups);

// The destinations of the next datagram: the unicast hosts in unicast mode,
// else the multicast groups. Chosen per datagram, so a reload of the unicast
// hosts applies to the next one sent.
const HostList& destination_list(const HostList& unicast_hosts, const HostList& multicast_groups);

}  // namespace corvald
