#include "tools/vellum-replay/RetryModel.h"

#include <algorithm>
#include <array>

namespace Vellum::Tools {
namespace {

constexpr std::array<long, 10> measuredPaces{303, 351, 404, 446, 508, 581, 912, 1266, 2162, 16198};

// A number for a network that is the same on every machine.
unsigned int numberOf(IPAddressMask const& network) {
    unsigned int number = 2166136261U; // FNV-1a
    for (std::uint8_t const byte : network.prefix().bytes()) {
        number = (number ^ byte) * 16777619U;
    }
    return number ^ (number >> 16);
}

std::string minutes(long seconds) {
    std::string text = std::to_string(seconds / 60);
    if (seconds % 60 != 0) {
        text += ':' + std::string(seconds % 60 < 10 ? "0" : "") + std::to_string(seconds % 60);
    }
    return text;
}

} // namespace

long RetryModel::gap(IPAddressMask const& network, unsigned int attempt) const {
    if (!m_gaps.empty()) {
        return m_gaps[std::min<std::size_t>(attempt - 1, m_gaps.size() - 1)];
    }
    long const pace = measuredPaces[numberOf(network) % measuredPaces.size()];
    unsigned int const doublings = std::min(attempt - 1, 10U); // more would pass the longest gap anyhow
    return attempt == 1 ? pace : std::min(longestGap, pace << doublings);
}

std::optional<long> RetryModel::next(IPAddressMask const& network, unsigned int attempt, long firstAttempt,
                                     long now) const {
    long const again = now + gap(network, attempt);
    return again - firstAttempt <= m_givesUpAfter ? std::optional<long>(again) : std::nullopt;
}

std::string RetryModel::describe() const {
    std::string const until = ", for " + std::to_string(m_givesUpAfter / 3600) + " hours";
    if (m_gaps.empty()) {
        return "at the pace of its network, as measured on real mail (5 minutes to 4.5 hours after the first attempt, "
               "half of them within 9 minutes; then after twice the time, at most 4 hours)" +
               until;
    }
    std::string text = m_gaps.size() > 1 ? "after " : "";
    for (std::size_t i = 0; i + 1 < m_gaps.size(); ++i) {
        text += minutes(m_gaps[i]) + ", ";
    }
    return text + (m_gaps.size() > 1 ? "then every " : "every ") + minutes(m_gaps.back()) + " minutes" + until;
}

} // namespace Vellum::Tools
