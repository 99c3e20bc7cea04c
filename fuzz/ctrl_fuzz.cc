// Any bytes as one read of a control client, through handle_ctrl_cmd: the
// five commands, the store loads they make under their path locks, the
// datagrams they build and send, and the JSON store that "store_json" and
// "delete_json" write and remove in.
//
// The store is the harness's (fuzz/support/harness.h): a seeded store with a
// sentinel beside it, checked after every input. Nodes 1, 2 and 3 of the seed
// are the local nodes. Datagrams go in unicast mode to a sink socket on the
// loopback, which is drained after every input.
//
// Environment: CORVALD_FUZZ_LOG as for the datagram target.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "base/config.h"
#include "controller/controller_internal.h"
#include "support/harness.h"

#pragma clang attribute push(__attribute__((no_sanitize("coverage"))), apply_to = function)

namespace {

// Inputs between two wipes of the store (the JSON tree grows with every
// stored document).
constexpr unsigned kWipeEvery = 1000;

int g_so = -1;    // the daemon's datagram socket
int g_sink = -1;  // where its datagrams go
std::vector<char> g_msgbuf;
corvald::CtrlConn g_conn;

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::abort();
}

// A UDP socket bound to 127.0.0.1 on a port of the kernel's choice; its
// address in *sa.
int loopback_socket(struct sockaddr_in* sa) {
    int so = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (so < 0)
        fail("socket");
    *sa = {};
    sa->sin_family = AF_INET;
    sa->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof *sa;
    if (::bind(so, reinterpret_cast<struct sockaddr*>(sa), sizeof *sa) != 0 ||
        ::getsockname(so, reinterpret_cast<struct sockaddr*>(sa), &len) != 0)
        fail("bind");
    return so;
}

void setup() {
    harness::setup("ctrl");
    using namespace corvald;
    for (uint32_t id : {1u, 2u, 3u}) {
        auto node = std::make_unique<Node>();
        NodeInit(node.get(), id);
        local_nodes.push_back(std::move(node));
    }
    struct sockaddr_in sa;
    g_so = loopback_socket(&sa);
    g_sink = loopback_socket(&sa);
    cfg_unicast_mode = 1;
    Host sink;
    if (HostInit(&sink, "127.0.0.1", ntohs(sa.sin_port)) != 0)
        fail("HostInit");
    unicast_hosts.push_back(sink);

    const auto size = static_cast<size_t>(cfg_msg_buffer_size);
    g_msgbuf.resize(size);
    g_conn.so = -1;  // commands never touch the connection's socket
    g_conn.port = 40000;
    std::strcpy(g_conn.addr, "127.0.0.1");
    g_conn.buf.reset(static_cast<char*>(std::calloc(1, size)));
    if (!g_conn.buf)
        fail("calloc");
}

void drain_sink() {
    char dgram[70000];
    while (::recv(g_sink, dgram, sizeof dgram, MSG_DONTWAIT) >= 0) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setup();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static unsigned runs = 0;
    if (++runs % kWipeEvery == 0 || !harness::markers_present())
        harness::wipe_and_seed();

    // As one read of a connection: at most one byte less than the buffer,
    // a NUL behind the bytes read, the rest of the buffer as the last read
    // left it.
    const size_t cap = g_msgbuf.size() - 1;
    const size_t n = size < cap ? size : cap;
    std::memcpy(g_conn.buf.get(), data, n);
    g_conn.buf.get()[n] = '\0';
    corvald::handle_ctrl_cmd(&g_conn, g_msgbuf.data(), g_msgbuf.size(), g_so);
    drain_sink();

    harness::check_store();
    return 0;
}

#pragma clang attribute pop
