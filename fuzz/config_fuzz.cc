// Any bytes as a configuration file: the reader either applies it or
// reports one of its messages, and never reads past a line.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "base/config.h"
#include "base/config_internal.h"

namespace {
// The one file of this process, removed when it ends.
char g_path[] = "/tmp/corvald-config-fuzz-XXXXXX";
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool made = [] {
        int fd = ::mkstemp(g_path);
        ::close(fd);
        std::atexit([] { ::unlink(g_path); });
        return fd >= 0;
    }();
    (void)made;
    const std::string path = g_path;
    FILE* f = std::fopen(path.c_str(), "w");
    std::fwrite(data, 1, size, f);
    std::fclose(f);

    corvald::config_module_setup();
    std::string error;
    if (corvald::config_read(path.c_str(), error) < 0 && (error.empty() || error.back() != '\n'))
        __builtin_trap();  // every failure has its message, ending in a newline
    corvald::config_module_teardown();
    return 0;
}
