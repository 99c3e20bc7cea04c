// The local-nodes and unicast-hosts files: one entry per line, read at start
// and on SIGHUP, each applied whole or not at all.
#include <arpa/inet.h>

#include "base/config.h"
#include "base/list_file.h"
#include "base/log.h"
#include "controller/controller_internal.h"
#include "store/node.h"

namespace corvald {

namespace {

// One line of the unicast-hosts file: the whole line is an IPv4 address
// text of at most 15 characters, taken by inet_aton (so short forms such as
// 127.1 pass, and an appended ":port" does not). Every host is sent to at
// bind_port.
int add_unicast_host(const char* line, HostList* list) {
    Host host;
    if (HostInit(&host, line, cfg_bind_port) < 0) {
        CV_ERROR_AS("load_unicast_hosts", "Malformed unicast address: %s", line);
        return -1;
    }
    char text[INET_ADDRSTRLEN];
    addr_number_to_text(ntohl(host.sa.sin_addr.s_addr), text);
    CV_DEBUG_AS("load_unicast_hosts", "UNICAST_HOST: %s:%u (%s)", text,
                unsigned{ntohs(host.sa.sin_port)}, line);
    list->push_back(host);
    return 0;
}

}  // namespace

int load_local_nodes() {
    NodeList nodes;
    int rc = read_local_nodes(cfg_local_nodes.c_str(), &nodes);
    if (rc < 0) return rc;
    local_nodes = std::move(nodes);
    return 0;
}

void dump_local_nodes() {
    const int count = static_cast<int>(local_nodes.size());
    for (int i = 0; i < count; ++i) {
        CV_NOTICE("[%d/%d] %u", i + 1, count, local_nodes[static_cast<size_t>(i)]->nodeid);
    }
}

int load_unicast_hosts() {
    HostList hosts;
    int rc = read_list_file(__func__, cfg_unicast_hosts.c_str(), &hosts, add_unicast_host);
    if (rc < 0) return rc;
    unicast_hosts = std::move(hosts);
    return 0;
}

void dump_unicast_hosts() {
    const int count = static_cast<int>(unicast_hosts.size());
    for (int i = 0; i < count; ++i) {
        CV_NOTICE("[%d/%d] %s", i + 1, count, unicast_hosts[static_cast<size_t>(i)].ipaddr);
    }
}

}  // namespace corvald
