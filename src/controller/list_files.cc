// The local-nodes and unicast-hosts files: one entry per line, read at start
// and on SIGHUP, each applied whole or not at all.
#include <arpa/inet.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/config.h"
#include "base/log.h"
#include "base/unique_file.h"
#include "controller/controller_internal.h"

namespace corvald {

namespace {

// Lines of at most 254 characters and their newline; fgets leaves a longer
// line without its newline in the buffer, which makes the file malformed.
constexpr int kLineBuffer = 256;

// Reads path into *list, handing every entry line (newline removed) to
// add(line, list), which logs under op why it refuses one. Comments ('#' in
// the first column) and empty lines are skipped; a line of blanks is an
// entry. 0 after the whole file; negative after a failure logged under op,
// with *list then partly filled and to be discarded.
template <class List, class AddFn>
int read_list_file(const char* op, const char* path, List* list, AddFn add) {
    CV_NOTICE_AS(op, "Loading %s", path);
    UniqueFile fp(std::fopen(path, "r"));
    if (!fp) {
        CV_ERROR_AS(op, "fopen(%s): %s", path, std::strerror(errno));
        return -1;
    }
    char line[kLineBuffer];
    for (;;) {
        if (std::fgets(line, sizeof line, fp.get()) == nullptr) {
            if (std::ferror(fp.get())) {
                CV_ERROR_AS(op, "Error reading %s", path);
                return -2;
            }
            return 0;
        }
        // A zero byte inside a line also ends up here: the text before it
        // has no newline.
        size_t len = std::strlen(line);
        if (len == 0 || line[len - 1] != '\n') {
            CV_ERROR_AS(op, "Malformed file %s", path);
            return -3;
        }
        line[len - 1] = '\0';
        if (line[0] == '#' || line[0] == '\0') continue;
        if (add(line, list) < 0) return -4;
    }
}

// One line of the local-nodes file: a decimal node id read like strtoul
// (leading blanks, ends at the first non-digit), of which the low 32 bits
// are used and must not be 0.
int add_local_node(const char* line, NodeList* list) {
    uint32_t nodeid = static_cast<uint32_t>(std::strtoul(line, nullptr, 10));
    if (nodeid == 0) {
        CV_ERROR_AS("load_local_nodes", "Malformed file %s", cfg_local_nodes.c_str());
        return -1;
    }
    auto node = std::make_unique<Node>();
    NodeInit(node.get(), nodeid);
    CV_DEBUG_AS("load_local_nodes", "LOCAL_NODE: %u (%s)", nodeid, line);
    list->push_back(std::move(node));
    return 0;
}

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
    int rc = read_list_file(__func__, cfg_local_nodes.c_str(), &nodes, add_local_node);
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
