/* SPDX-License-Identifier: GPL-2.0-only */
// A disk drawn in characters, from left to right and from top to bottom: each cell shows how much of its part is
// marked.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qbackup
{

struct Terminal {
    unsigned columns = 80;
    bool blocks = false; // it can show more than ASCII
};
// What standard output goes to. COLUMNS goes before what the terminal says.
Terminal terminal();

class DiskPicture
{
  public:
    // `unit`: no cell is smaller.
    DiskPicture(std::uint64_t bytes, std::uint32_t unit, const Terminal& terminal);
    void mark(std::uint64_t offset, std::uint64_t bytes);
    // Lines, with a legend.
    std::string text() const;

  private:
    std::uint64_t bytes_;
    Terminal terminal_;
    std::uint64_t cell_bytes_;
    std::size_t columns_;
    std::vector<std::uint64_t> marked_; // bytes, by cell
};

} // namespace qbackup
