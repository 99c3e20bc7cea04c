// Hosts for multi-host tests: network namespaces joined by a bridge in a
// namespace of its own (198.18.0.0/15 addresses only).
//
// The namespaces are unnamed, each held by a child process that the owner
// kills when it goes and that the kernel kills when the test dies, so nothing
// outlives the test, whatever way it ends; the links go with their
// namespaces.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace corvald::test {

// A child process holding a new network namespace. `answer` is "netns" once
// it exists, else the reason it does not.
struct Box {
    Box();
    ~Box();
    Box(const Box&) = delete;
    Box& operator=(const Box&) = delete;
    pid_t pid = -1;
    std::string answer;
};

// Runs "ip <args>" quietly inside the network namespace of process `in`;
// its exit status, or -1 when it did not end normally.
int run_ip(pid_t in, const std::string& args);
// Makes the bridge br0 in `bridge`; false if that failed.
bool make_bridge(const Box& bridge);
// Gives `host` an interface eth1 with address cidr whose other leg is on
// br0, and brings its loopback up; false if that failed.
bool plug(const Box& bridge, const Box& host, const std::string& cidr);
// Runs fn on the calling thread inside the network namespace of process
// `in` (processes that fn starts stay there); false if it could not enter.
bool in_netns(pid_t in, const std::function<void()>& fn);

}  // namespace corvald::test
