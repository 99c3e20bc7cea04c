// Any bytes as a configuration file: the reader either applies it or
// reports one of its messages, and never reads past a line.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "base/config.h"
#include "base/config_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static std::string path = [] {
        char templ[] = "/tmp/corvald-config-fuzz-XXXXXX";
        int fd = ::mkstemp(templ);
        ::close(fd);
        return std::string(templ);
    }();
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
