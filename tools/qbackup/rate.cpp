// SPDX-License-Identifier: GPL-2.0-only
#include "rate.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace qbackup
{

std::optional<std::uint64_t> rateOf(std::string text)
try {
    // The library takes a sign and wraps what is too large.
    constexpr std::size_t most_digits = 15;
    const std::size_t digits = text.find_first_not_of("0123456789");
    if (digits == 0 || std::min(digits, text.size()) > most_digits)
        return std::nullopt;
    std::uint64_t rate = 0;
    if (CLI::AsSizeValue{false}(text).empty() && CLI::detail::lexical_cast(text, rate))
        return rate;
    return std::nullopt;
} catch (const CLI::Error&) {
    return std::nullopt;
}

} // namespace qbackup
