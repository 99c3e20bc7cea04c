#include "support/temp_dir.h"

#include <ftw.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace corvald::test {

namespace {
int remove_entry(const char* path, const struct stat*, int, struct FTW*) {
    ::remove(path);
    return 0;
}
}  // namespace

TempDir::TempDir() {
    const char* base = ::getenv("TMPDIR");
    std::string templ = std::string(base && *base ? base : "/tmp") + "/corvald-test-XXXXXX";
    if (::mkdtemp(templ.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = templ;
}

TempDir::~TempDir() { ::nftw(path_.c_str(), remove_entry, 64, FTW_DEPTH | FTW_PHYS | FTW_MOUNT); }

std::string TempDir::write(const std::string& rel, const std::string& contents) const {
    std::string full = *this / rel;
    std::ofstream out(full, std::ios::binary | std::ios::trunc);
    out << contents;
    if (!out) throw std::runtime_error("cannot write " + full);
    return full;
}

std::string TempDir::read(const std::string& rel) const { return read_file(*this / rel); }

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return "<missing>";
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

}  // namespace corvald::test
