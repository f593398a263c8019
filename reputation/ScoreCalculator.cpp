#include "reputation/ScoreCalculator.h"

#include <algorithm>
#include <array>

namespace Vellum::Reputation {
namespace {

constexpr std::uint32_t worst = 100;
constexpr std::uint32_t telling = 70; // a ratio above it is an hour's score by itself
constexpr std::uint32_t enoughForRatios = 21;
constexpr std::uint32_t few = 9; // up to so many messages, infected and spam count half

constexpr std::array<std::uint32_t, scoredPeriods> s_weight{12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1};
constexpr std::array<std::uint32_t, scoredPeriods> s_totalWeight{12, 23, 33, 42, 50, 57, 63, 68, 72, 75, 77, 78};

// counted * 100 / of, where that is above 70; 0 otherwise. Most hours have no such ratio, and a multiplication tells so
// for a fifth of what a division takes.
std::uint32_t ratioAbove70(std::uint32_t counted, std::uint32_t of) {
    std::uint32_t const hundredfold = counted * 100;
    return hundredfold >= std::uint64_t{telling + 1} * of ? hundredfold / of : 0;
}

// The first ratio above 70, of those that an hour with enough messages is tested for; 0 when there is none.
std::uint32_t tellingRatio(Entry::Record const& hour) {
    std::uint32_t const m = hour.messageCount;
    if (std::uint32_t const ratio = ratioAbove70(hour.infected, m); ratio != 0) {
        return ratio;
    }
    if (std::uint32_t const ratio = ratioAbove70(hour.spam, m); ratio != 0) {
        return ratio;
    }
    if (std::uint32_t const ratio = ratioAbove70(hour.invalidRecipients, hour.recipients); ratio != 0) {
        return ratio;
    }
    if (hour.extraHits != 0) {
        if (hour.extraTotal == 0) {
            return worst;
        }
        if (std::uint32_t const ratio = ratioAbove70(hour.extraHits, hour.extraTotal); ratio != 0) {
            return ratio;
        }
    }
    return ratioAbove70(hour.flagged, m);
}

std::uint32_t badOnes(Entry::Record const& hour) {
    std::uint32_t const others = hour.extraHits + hour.invalidRecipients + hour.flagged;
    if (hour.messageCount <= few) {
        std::uint64_t const infectedAndSpam = std::uint64_t{hour.infected} + hour.spam;
        return others + static_cast<std::uint32_t>(infectedAndSpam / 2);
    }
    return others + hour.infected + hour.spam;
}

// Without invalid recipients the messages count twice.
std::uint32_t allOnes(Entry::Record const& hour) {
    return hour.extraVolume + hour.extraTotal + hour.messageCount +
           (hour.invalidRecipients != 0 ? hour.recipients : hour.messageCount);
}

} // namespace

std::uint32_t ScoreCalculator::totalWeight(unsigned int age) {
    return s_totalWeight.at(age);
}

std::uint32_t ScoreCalculator::periodScore(Entry::Record const& record) {
    if (record.messageCount >= enoughForRatios) {
        if (std::uint32_t const ratio = tellingRatio(record); ratio != 0) {
            return ratio;
        }
    }
    std::uint32_t const n = badOnes(record);
    std::uint32_t const d = allOnes(record);
    if (n > d) {
        return worst;
    }
    return d == 0 ? 0 : n * 100 / d;
}

std::uint32_t ScoreCalculator::hourScore(Entry::Record const& record) {
    return record.messageCount == 0 || record.recipients == 0 ? 0 : std::min(worst, periodScore(record));
}

void ScoreCalculator::take(std::uint32_t period, Entry::Record const& record) {
    std::uint32_t const age = m_current - period;
    if (m_total == 0 && age < scoredPeriods) {
        m_total = s_totalWeight[age];
    }
    if (record.messageCount == 0 || record.recipients == 0) {
        return;
    }
    std::uint32_t const score = periodScore(record);
    m_sum += age < scoredPeriods ? score * s_weight[age] : score;
}

std::uint32_t ScoreCalculator::score() const {
    return m_total == 0 ? 0 : std::min(worst, m_sum / m_total);
}

} // namespace Vellum::Reputation
