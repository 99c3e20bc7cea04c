// Owner of one stdio stream from fopen; closes it on every path out. On the
// ground floor with the configuration reader, its first user.
#pragma once

#include <cstdio>
#include <memory>

namespace corvald {

struct FileCloser {
    void operator()(FILE* fp) const { std::fclose(fp); }
};
using UniqueFile = std::unique_ptr<FILE, FileCloser>;

}  // namespace corvald
