/* SPDX-License-Identifier: GPL-2.0-only */
// What a daemon was asked to serve, and how: the command line, checked.
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
    int group = -1; // of the sockets; -1: the daemon's own
};

constexpr unsigned most_disks = 16;     // 16 minors each, of 256
constexpr unsigned minors_of_disk = 16; // the disk's own included
inline std::string disk_name(unsigned index) { return std::string("sd") + char('a' + index); } // 0: "sda"

} // namespace quendreld
