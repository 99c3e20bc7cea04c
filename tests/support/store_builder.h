// Stores for the tests and the fuzz targets: what a store holds, described
// as a tree of paths and written into a directory, and any directory read
// back as such a tree to compare. No test framework here: the fuzz build,
// which has none, links it too.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace corvald::test {

// Paths below a root with what is there: "<dir>", "-> <target>" for a
// link, else a file's contents.
using Tree = std::map<std::string, std::string>;

// What is at path in Tree's terms, without following a link; "<missing>".
std::string look(const std::string& path);
// Everything below root; empty when root cannot be read.
Tree snapshot(const std::string& root);
// The paths whose entry after differs from before, with after's value
// ("<missing>" when gone). What lies below a directory that came or went is
// left out, and so is every "lastping", which each announcement rewrites
// with the clock.
Tree changes(const Tree& before, const Tree& after);
// "path=value" per entry, space-separated, line feeds shown as ",".
std::string show(const Tree& t);

// The records as the daemon writes them for the demo figures of
// support/wire.h's builders: a store built here and one made by datagrams
// compare equal.
struct StoreBuilder {
    Tree t;
    // Adds a copy of etc/local/seed.
    StoreBuilder& seed();
    // Adds path with value (as Tree says), and its directories.
    StoreBuilder& put(const std::string& path, const std::string& value = "<dir>");
    // Node/<id> of the demo node at version from 127.0.0.<id>, as
    // NodeCreate writes it; full adds "lastping" and the capacity figures.
    StoreBuilder& node(uint32_t id, const std::string& version = "v1.8", bool full = true);
    // Datastore/<uuid> with its members, each with its "datastoremember".
    StoreBuilder& datastore(const std::string& uuid, const std::vector<uint32_t>& members);
    // VDisk/<uuid> at generation gen with a member record per member (its
    // frontend 127.0.0.<id>) and the links to and from its members, its data
    // store when ds is given and its parent when the parent is described.
    StoreBuilder& vdisk(const std::string& uuid, const std::vector<uint32_t>& members,
                        const std::string& parent = "", const std::string& ds = "",
                        unsigned gen = 1);
    // Makes root (if missing) and every entry below it, in path order; false
    // at the first failure.
    bool write(const std::string& root) const;
};

}  // namespace corvald::test
