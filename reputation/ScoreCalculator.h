// How bad an address is: 0 to 100, higher is worse.
//
// Each hour scores by itself, between its bad messages and all of them; the twelve last hours are weighted 12 for the
// current one down to 1, and the sum is divided by the weights from the oldest of them on, whether it scored or not.
#pragma once

#include "reputation/ReputationEntry.h"

#include <cstdint>
#include <utility>

namespace Vellum::Reputation {

// Takes records in ascending order of period, then answers the score. All arithmetic is unsigned 32-bit and wraps,
// divisions cut. On one thread.
class ScoreCalculator {
  public:
    // `currentPeriod`: ages are counted back from it; a period in the future has a huge age.
    explicit ScoreCalculator(std::uint32_t currentPeriod) : m_current(currentPeriod) {}

    void operator()(std::pair<unsigned int, Entry::Record> const& record) { take(record.first, record.second); }
    void take(std::uint32_t period, Entry::Record const& record);

    // 0 when no record of the last twelve hours was taken.
    std::uint32_t score() const;

    // Sum of the weights of ages 0 to `age`, which is below 12.
    static std::uint32_t totalWeight(unsigned int age);
    // What one hour scores, unweighted; may be above 100. Neither messageCount nor recipients is 0.
    static std::uint32_t periodScore(Entry::Record const& record);
    // What one hour alone would score, 0 to 100, for whoever shows it; 0 without messages or recipients.
    static std::uint32_t hourScore(Entry::Record const& record);

  private:
    std::uint32_t m_current;
    std::uint32_t m_total = 0; // weight that counts; 0 until a record of the last twelve hours came
    std::uint32_t m_sum = 0;
};

} // namespace Vellum::Reputation
