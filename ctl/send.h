// The control commands: one line written to the daemon's control port. The
// daemon never answers, and it drops a line it cannot take without saying
// so to the client, so every argument is checked here against the daemon's
// own limits before anything is connected.
#pragma once

#include <string>
#include <vector>

namespace corvald::ctl {

struct Command {
    std::string keyword;            // ds_ping, single_vdisk_ping, ... as the daemon reads them
    std::vector<std::string> args;  // in line order; the JSON text last
};

// Why the arguments are refused ("" when they are fine). msg_buffer_size
// bounds the JSON text of store_json and delete_json.
std::string check_command(const Command& c, int msg_buffer_size);
// The line the daemon reads, with its line feed.
std::string command_line(const Command& c);
// Connects to ctrl_address:ctrl_port and writes the line whole; 0, or -1
// with *why set.
int send_line(const std::string& line, std::string* why);

}  // namespace corvald::ctl
