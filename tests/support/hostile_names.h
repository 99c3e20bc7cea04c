// The names an attacker or a careless writer would try where a name from a
// datagram, a control line or a store file becomes a path component or a
// lock name. Every test of names takes them from here.
#pragma once

#include <array>
#include <string_view>

namespace corvald::test {

// Each must be refused as a single path component (uuid, node id text, lock
// name, data store member).
inline constexpr std::array<std::string_view, 7> kHostileNames = {
    "", ".", "..", "a/b", "../victim", "/abs", "../../sentinel",
};

}  // namespace corvald::test
