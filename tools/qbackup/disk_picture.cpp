// SPDX-License-Identifier: GPL-2.0-only
#include "disk_picture.h"

#include "files.h"
#include "terminal_width.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

namespace qbackup
{
namespace
{

constexpr unsigned label_columns = 12; // where a row begins
constexpr unsigned least_columns = 8;
constexpr unsigned most_rows = 8;

struct Shades {
    const char* none;
    std::array<const char*, 4> some; // up to a quarter, a half, less than all, all
};
constexpr Shades plain{".", {"-", "+", "*", "#"}};
constexpr Shades shaded{"\u00b7", {"\u2591", "\u2592", "\u2593", "\u2588"}};

bool saysUtf8()
{
    for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"})
        if (const char* value = std::getenv(name); value != nullptr && *value != '\0') {
            std::string text{value};
            std::ranges::transform(text, text.begin(),
                                   [](unsigned char c) { return c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c; });
            return text.find("utf-8") != std::string::npos || text.find("utf8") != std::string::npos;
        }
    return false;
}

} // namespace

Terminal terminal()
{
    Terminal result;
    result.blocks = ::isatty(STDOUT_FILENO) != 0 && saysUtf8();
    result.columns = terminalColumns(STDOUT_FILENO).value_or(result.columns);
    return result;
}

DiskPicture::DiskPicture(std::uint64_t bytes, std::uint32_t unit, const Terminal& terminal)
    : bytes_{bytes}, terminal_{terminal}
{
    columns_ = terminal.columns < label_columns + least_columns ? least_columns : terminal.columns - label_columns;
    // A wide terminal has room for more than a line.
    const std::uint64_t cells = columns_ * std::clamp<std::uint64_t>(columns_ / 12, 1, most_rows);
    cell_bytes_ = std::max<std::uint64_t>(unit, (bytes + cells - 1) / cells);
    cell_bytes_ = (cell_bytes_ + unit - 1) / unit * unit;
    marked_.resize((bytes + cell_bytes_ - 1) / cell_bytes_);
}

void DiskPicture::mark(std::uint64_t offset, std::uint64_t bytes)
{
    const std::uint64_t end = std::min(bytes_, offset + bytes);
    while (offset < end) {
        const std::uint64_t part = std::min(end - offset, cell_bytes_ - offset % cell_bytes_);
        marked_[offset / cell_bytes_] += part;
        offset += part;
    }
}

std::string DiskPicture::text() const
{
    const Shades& shades = terminal_.blocks ? shaded : plain;
    std::string text;
    for (std::size_t cell = 0; cell < marked_.size(); ++cell) {
        if (cell % columns_ == 0) {
            char label[label_columns + 1];
            std::snprintf(label, sizeof label, "%10s  ", formatBytes(cell * cell_bytes_).c_str());
            text += (cell == 0 ? "" : "\n") + std::string{label};
        }
        const std::uint64_t size = std::min(cell_bytes_, bytes_ - cell * cell_bytes_);
        if (marked_[cell] == 0)
            text += shades.none;
        else if (marked_[cell] >= size)
            text += shades.some[3];
        else
            text += shades.some[marked_[cell] * 4 <= size ? 0 : marked_[cell] * 2 <= size ? 1 : 2];
    }
    std::string legend = std::string{shades.none} + " same ";
    for (const char* shade : shades.some)
        legend += shade;
    return text + "\n" + std::string(label_columns, ' ') + "each " + formatBytes(cell_bytes_) + "; " + legend +
           " a little to all of it\n";
}

} // namespace qbackup
