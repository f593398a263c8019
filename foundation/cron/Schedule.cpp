#include "foundation/cron/Schedule.h"

#include <algorithm>
#include <utility>

namespace Vellum::Cron {
namespace {

constexpr std::size_t rememberedInstants = 1000; // of a job: six weeks of an hourly one

} // namespace

std::size_t Schedule::add(Period const& period, long now) {
    m_entries.push_back({period, period.latestUntil(now - 1), {}});
    return m_entries.size() - 1;
}

std::optional<long> Schedule::take(Entry& entry, long now) {
    long const latest = entry.period.latestUntil(now);
    bool const newlyReached = latest > entry.considered;
    entry.considered = latest; // lower than before when the clock was set back
    bool const run = newlyReached && entry.done.count(latest) == 0;
    if (run) {
        entry.done.insert(latest);
        if (entry.done.size() > rememberedInstants) {
            entry.done.erase(entry.done.begin());
        }
    }
    return run ? std::optional(latest) : std::nullopt;
}

std::vector<std::size_t> Schedule::due(long now) {
    std::vector<std::pair<long, std::size_t>> found;
    for (std::size_t place = 0; place < m_entries.size(); ++place) {
        if (auto const instant = take(m_entries[place], now)) {
            found.emplace_back(*instant, place);
        }
    }
    std::sort(found.begin(), found.end());
    std::vector<std::size_t> places;
    places.reserve(found.size());
    for (auto const& [instant, place] : found) {
        places.push_back(place);
    }
    return places;
}

std::optional<long> Schedule::next(long now) const {
    std::optional<long> soonest;
    for (Entry const& entry : m_entries) {
        long const latest = entry.period.latestUntil(now);
        bool const isDue = latest > entry.considered && entry.done.count(latest) == 0;
        long const instant = isDue ? latest : latest + static_cast<long>(entry.period.interval());
        soonest = soonest ? std::min(*soonest, instant) : instant;
    }
    return soonest;
}

} // namespace Vellum::Cron
