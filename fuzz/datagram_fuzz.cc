// Any bytes as a datagram from a peer, through the whole receive step into a
// real store: the checks, the handler of its type, the path locks and every
// record operation it reaches, on disk.
//
// The store is the harness's (fuzz/support/harness.h): a seeded store with
// a sentinel beside it, checked after every input.
//
// The store keeps what earlier inputs did. It is wiped and seeded again
// every kWipeEvery inputs (so it stays small and the generation counts come
// back down to the seed's) and as soon as an input has removed one of the
// seeded member records (so the update paths stay reachable). An input run
// on its own, as when a crash is reproduced, meets the fresh seed.
//
// Environment: CORVALD_FUZZ_LOG=1 prints the daemon's log lines (error level
// and above) to standard error, to see what an input did; CORVALD_FUZZ_LOG=debug
// prints every line, the record traces included.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include "controller/controller_internal.h"
#include "support/harness.h"

namespace {

// Inputs between two wipes of the store.
constexpr unsigned kWipeEvery = 1000;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    harness::setup("datagram");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static unsigned runs = 0;
    if (++runs % kWipeEvery == 0 || !harness::markers_present())
        harness::wipe_and_seed();

    struct sockaddr_in from = {};
    from.sin_family = AF_INET;
    from.sin_port = htons(8000);
    from.sin_addr.s_addr = htonl(0x7f000003);  // 127.0.0.3
    corvald::handle_datagram(reinterpret_cast<const char*>(data), size, &from);

    harness::check_store();
    return 0;
}
