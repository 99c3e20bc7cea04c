// A datagram destination: a unicast host or a multicast group.
#pragma once

#include <netinet/in.h>

#include <vector>

namespace corvald {

struct Host {
    char ipaddr[16] = {};        // dotted text, at most 15 characters
    struct sockaddr_in sa = {};  // IPv4, the address of ipaddr, port in network order
};

using HostList = std::vector<Host>;

// Fills host from dotted text at port (host order): 0; -1 when the text is
// longer than 15 characters; -2 when inet_aton refuses it (it also takes
// short forms such as 224.1). Silent: the caller names the failure. On
// failure host is left zeroed.
int HostInit(Host* host, const char* text, int port);

}  // namespace corvald
