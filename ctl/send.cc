#include "send.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/config.h"
#include "net/netlib.h"
#include "util/io.h"
#include "util/unique_fd.h"

namespace corvald::ctl {

namespace {

// A local node as the daemon compares it: its id text exactly.
std::string check_node(const std::string& node) {
    if (node.empty() || node.size() > 15 || node[0] == '0' ||
        node.find_first_not_of("0123456789") != std::string::npos)
        return "NODE must be 1 to 15 decimal digits without a leading zero: " + node;
    return "";
}

std::string check_vdisk(const std::string& vdisk) {
    const bool bad = std::any_of(vdisk.begin(), vdisk.end(),
                                 [](unsigned char c) { return c <= ' ' || c == 0x7f; });
    if (vdisk.empty() || vdisk.size() > 14 || bad)
        return "VDISK must be 1 to 14 characters without blanks or control characters";
    return "";
}

// A parameter of the JSON commands: the daemon splits the line at "|" and
// refuses a path that leads out of its JSON tree.
std::string check_field(const char* what, const std::string& s, size_t max, bool is_path) {
    if (s.size() > max)
        return std::string(what) + " longer than " + std::to_string(max);
    if (s.find_first_of("|\n") != std::string::npos)
        return std::string(what) + " holds a \"|\" or a line feed";
    if (is_path && ("/" + s + "/").find("/../") != std::string::npos)
        return std::string(what) + " holds a \"..\" component";
    return "";
}

std::string check_text(const std::string& text, int msg_buffer_size) {
    const size_t max = static_cast<size_t>(msg_buffer_size) - JSON_TEXT_OFFSET;
    if (text.empty())
        return "TEXT is empty";
    // The daemon ends the line at the first line feed, drops a carriage
    // return before it, and reads the line as a C string.
    if (text.find_first_of(std::string("\n\0", 2)) != std::string::npos || text.back() == '\r')
        return "TEXT holds a line feed, a zero byte or a final carriage return";
    if (text.size() > max)
        return "TEXT of " + std::to_string(text.size()) + " bytes does not fit one datagram (" +
               std::to_string(max) + " bytes at most)";
    return "";
}

bool is_json(const std::string& keyword) {
    return keyword.find("json") != std::string::npos;
}

}  // namespace

std::string check_command(const Command& c, int msg_buffer_size) {
    const auto& a = c.args;
    if (is_json(c.keyword)) {
        for (std::string why :
             {check_field("NODE", a[0], 15, false), check_field("PATH", a[1], 63, true),
              check_field("FILE", a[2], 31, true), check_text(a[3], msg_buffer_size)})
            if (!why.empty())
                return why;
        return "";
    }
    std::string why = check_node(a[0]);
    return why.empty() && a.size() > 1 ? check_vdisk(a[1]) : why;
}

std::string command_line(const Command& c) {
    std::string line = c.keyword;
    for (const std::string& a : c.args) line += (is_json(c.keyword) ? "|" : " ") + a;
    return line + "\n";
}

int send_line(const std::string& line, std::string* why) {
    const std::string to = cfg_ctrl_address + ":" + std::to_string(cfg_ctrl_port);
    struct sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(cfg_ctrl_port));
    if (::inet_pton(AF_INET, cfg_ctrl_address.c_str(), &sa.sin_addr) != 1) {
        *why = "ctrl_address is no IPv4 address: " + cfg_ctrl_address;
        return -1;
    }
    UniqueFd so(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!so || ::connect(so.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) < 0) {
        *why = "cannot connect to " + to + ": " + std::strerror(errno);
        return -1;
    }
    if (buf_tx(so.get(), line.data(), line.size(), 1) != static_cast<ssize_t>(line.size())) {
        *why = "the line was not written whole to " + to + ": " + std::strerror(errno);
        return -1;
    }
    return 0;
}

}  // namespace corvald::ctl
