// Owner of one stdio stream from fopen; closes it on every path out. On the
// ground floor with the configuration reader, its first user.
#pragma once

#include <stdio.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace corvald {

struct FileCloser {
    void operator()(FILE* fp) const { std::fclose(fp); }
};
using UniqueFile = std::unique_ptr<FILE, FileCloser>;

// Calls fn(line, len) for every line of fp in turn, the line feed (if any)
// included and a NUL behind it, until the end of the file, a read error, or
// fn returning false. Lines of any length; the buffer is the reader's own.
template <class Fn>
void for_each_line(FILE* fp, Fn fn) {
    char* line = nullptr;
    size_t cap = 0;
    ssize_t len;
    while ((len = ::getline(&line, &cap, fp)) >= 0) {
        if (!fn(line, static_cast<size_t>(len))) break;
    }
    std::free(line);
}

}  // namespace corvald
