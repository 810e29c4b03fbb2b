// SPDX-License-Identifier: GPL-2.0-only
#include "borders.h"

#include <algorithm>
#include <thread>

namespace quendreld
{

void Borders::set(std::vector<std::uint64_t> places)
{
    std::sort(places.begin(), places.end());
    places.erase(std::unique(places.begin(), places.end()), places.end());
    places.resize(std::min(places.size(), most));
    std::lock_guard lock(changing_);
    changes_.fetch_add(1);
    count_.store(places.size());
    for (std::size_t i = 0; i < places.size(); ++i)
        places_[i].store(places[i]);
    changes_.fetch_add(1);
}

Borders::Neighbours Borders::around(std::uint64_t place) const
{
    for (;;) {
        const std::uint32_t before = changes_.load(std::memory_order_acquire);
        if (before % 2) {
            std::this_thread::yield();
            continue;
        }
        // The loads are acquiring so that none comes after the second look at the count of changes.
        std::size_t low = 0, high = count_.load(std::memory_order_acquire); // the first border behind `place`
        Neighbours found{0, ~std::uint64_t(0)};
        while (low < high) {
            const std::size_t middle = (low + high) / 2;
            const std::uint64_t border = places_[middle].load(std::memory_order_acquire);
            if (border <= place) {
                found.below = border;
                low = middle + 1;
            } else {
                found.above = border;
                high = middle;
            }
        }
        if (changes_.load(std::memory_order_acquire) == before)
            return found;
    }
}

} // namespace quendreld
