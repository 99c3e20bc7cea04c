// A private directory under $TMPDIR (or /tmp) for one test, removed with
// everything in it when the owner goes away.
#pragma once

#include <string>

namespace corvald::test {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    // path() + "/" + rel
    std::string operator/(const std::string& rel) const { return path_ + "/" + rel; }
    // Writes contents to path()/rel (creating or truncating it); returns the full path.
    std::string write(const std::string& rel, const std::string& contents) const;
    // Whole contents of path()/rel, or "<missing>" if it cannot be read.
    std::string read(const std::string& rel) const;

private:
    std::string path_;
};

// Reads a whole file; "<missing>" if it cannot be opened.
std::string read_file(const std::string& path);

}  // namespace corvald::test
