/* SPDX-License-Identifier: GPL-2.0-only */
// What the launcher tells the daemon: the parsed command line, as one JSON text that travels as a parameter of the
// NBD plugin. The launcher has checked all of it; the daemon trusts it.
#pragma once

#include <string>
#include <vector>

namespace quendreld
{

struct Config {
    std::vector<std::string> images; // absolute paths; the first becomes sda
    std::string run_dir;             // absolute
    bool direct = false;
    bool read_only = false;
    bool multi_client = false;
    bool foreground = false;
    bool fuse = true;
    int group = -1;       // of the sockets; -1: the daemon's own
    int ready_fd = -1;    // gets "ok\n", or a message and end of file
    int guardian_fd = -1; // socket to the guardian process
};

std::string to_json(const Config& config);
Config config_from_json(const std::string& text); // throws on a text that to_json did not make

constexpr unsigned most_disks = 16;     // 16 minors each, of 256
constexpr unsigned minors_of_disk = 16; // the disk's own included
std::string disk_name(unsigned index);  // 0: "sda"

} // namespace quendreld
