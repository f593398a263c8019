// The first few of a table by some order, without sorting all of it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace Vellum::Tools {

// Pointers at the entries of `table` for which `wanted` holds, at most `most`, in the order of `before` (which must
// leave no two entries equal, so that a report is the same each time).
template <class Table, class Wanted, class Before>
auto firstOf(Table const& table, std::size_t most, Wanted wanted, Before before) {
    std::vector<typename Table::value_type const*> entries;
    for (auto const& entry : table) {
        if (wanted(entry)) {
            entries.push_back(&entry);
        }
    }
    std::size_t const kept = std::min(most, entries.size());
    auto const end = entries.begin() + static_cast<std::ptrdiff_t>(kept);
    std::partial_sort(entries.begin(), end, entries.end(),
                      [&](auto const* a, auto const* b) { return before(*a, *b); });
    entries.resize(kept);
    return entries;
}

// The rankings of a report.
struct Rankings {
    template <class Statistics>
    static auto busiestNetworks(Statistics const& statistics, std::size_t most) {
        return firstOf(
            statistics.byNetwork, most, [](auto const&) { return true; },
            [](auto const& a, auto const& b) {
                return a.second.counts.messages != b.second.counts.messages
                           ? a.second.counts.messages > b.second.counts.messages
                           : a.first < b.first;
            });
    }
    template <class Statistics>
    static auto slowestSenders(Statistics const& statistics, std::size_t most) {
        return firstOf(
            statistics.bySender, most, [](auto const& entry) { return entry.second.arrivedLate() > 0; },
            [](auto const& a, auto const& b) {
                return a.second.longest != b.second.longest ? a.second.longest > b.second.longest : a.first < b.first;
            });
    }
    template <class Statistics>
    static auto mostDeferredSenders(Statistics const& statistics, std::size_t most) {
        return firstOf(
            statistics.bySender, most, [](auto const& entry) { return entry.second.deferred > 0; },
            [](auto const& a, auto const& b) {
                return a.second.deferred != b.second.deferred ? a.second.deferred > b.second.deferred
                                                              : a.first < b.first;
            });
    }
};

} // namespace Vellum::Tools
