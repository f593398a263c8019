// Entries at random beside a slow and obvious model of them.
#include "reputation/ReputationEntry.h"

#include "tests/support/RandomSource.h"
#include "tests/support/ReputationCache.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <vector>

namespace Vellum::Reputation {
namespace {

using Counters = std::vector<std::uint64_t>; // nine, each below 2^32
constexpr std::uint64_t two32 = 1ULL << 32;

std::uint64_t cut(std::uint64_t number) {
    return number % two32;
}

// Every rule in words of 64 bits, cut to 32 after each step.
std::uint64_t modelOfHour(Counters const& c) {
    std::uint64_t const m = c[0], r = c[1], iv = c[2], inf = c[3], sp = c[4], et = c[5], eh = c[6], ev = c[7],
                        fl = c[8];
    if (m >= 21) {
        std::vector<std::uint64_t> ratios;
        ratios.push_back(cut(inf * 100) / m);
        ratios.push_back(cut(sp * 100) / m);
        ratios.push_back(cut(iv * 100) / r);
        if (eh > 0) {
            ratios.push_back(et == 0 ? 100 : cut(eh * 100) / et);
        }
        ratios.push_back(cut(fl * 100) / m);
        for (std::uint64_t const ratio : ratios) {
            if (ratio > 70) {
                return ratio;
            }
        }
    }
    std::uint64_t bad = 0;
    if (m < 10) {
        bad = cut(fl + eh + iv + (inf + sp) / 2);
    } else {
        bad = cut(eh + iv + fl + inf + sp);
    }
    std::uint64_t const all = cut(ev + et + m + (iv == 0 ? m : r));
    if (bad > all) {
        return 100;
    }
    return all == 0 ? 0 : cut(bad * 100) / all;
}

std::uint64_t modelOfScore(std::map<std::uint64_t, Counters> const& hours, std::uint64_t current, std::uint64_t first) {
    std::uint64_t total = 0;
    std::uint64_t sum = 0;
    for (auto const& [period, counters] : hours) {
        if (period < first) {
            continue;
        }
        bool const recent = period <= current ? current - period <= 11 : two32 + current - period <= 11;
        std::uint64_t const age = cut(two32 + current - period);
        if (total == 0 && recent) {
            for (std::uint64_t younger = 0; younger <= age; ++younger) {
                total += 12 - younger;
            }
        }
        if (counters[0] > 0 && counters[1] > 0) {
            std::uint64_t const weight = recent ? 12 - age : 1;
            sum = cut(sum + cut(modelOfHour(counters) * weight));
        }
    }
    if (total == 0) {
        return 0;
    }
    return sum / total > 100 ? 100 : sum / total;
}

class ModelEntry {
  public:
    void add(std::uint64_t period, Counters const& five) {
        m_hours[period] = five;
        m_hours[period].resize(9, 0);
    }
    void increment(unsigned int type, std::uint64_t period, std::uint64_t amount) {
        Counters& c = m_hours.try_emplace(period, 9, 0).first->second;
        if (type > 8) {
            return;
        }
        c[type] = cut(c[type] + amount);
        if (type == 2 && c[2] > c[1]) {
            c[2] = c[1];
        }
        if (type >= 3 && type <= 7 && c[type] > c[0]) {
            c[type] = c[0];
        }
        if (type == 8 && c[8] < c[0]) {
            c[8] = c[0];
        }
    }
    void decrement(unsigned int type, std::uint64_t period, std::uint64_t amount) {
        auto const found = m_hours.find(period);
        if (found == m_hours.end() || type > 8) {
            return;
        }
        Counters& c = found->second;
        c[type] = amount > c[type] ? 0 : c[type] - amount;
        if (type == 1 && c[2] > c[1]) {
            c[2] = c[1];
        }
    }
    void drop(std::uint64_t first) { m_hours.erase(m_hours.begin(), m_hours.lower_bound(first)); }
    std::map<std::uint64_t, Counters> const& hours() const { return m_hours; }

  private:
    std::map<std::uint64_t, Counters> m_hours;
};

std::uint32_t anyCounter(RandomSource& random) {
    switch (random.below(8)) {
    case 0:
        return 0;
    case 1:
        return static_cast<std::uint32_t>(random.any()); // anything
    case 2:
        return 0xFFFFFFFFU - static_cast<std::uint32_t>(random.below(3));
    case 3:
        return 42949670U + static_cast<std::uint32_t>(random.below(8)); // a hundred of it is about 2^32
    case 4:
        return static_cast<std::uint32_t>(random.below(1000));
    default:
        return static_cast<std::uint32_t>(random.below(30)); // about the numbers that decide
    }
}

std::vector<std::uint32_t> slotsOf(Entry::Record const& record) {
    return {record.messageCount, record.recipients, record.invalidRecipients, record.infected, record.spam,
            record.extraTotal,   record.extraHits,  record.extraVolume,       record.flagged};
}

void expectSame(RefEntry const& entry, ModelEntry const& model) {
    Entry::Records const records = recordsOf(entry);
    ASSERT_EQ(records.size(), model.hours().size());
    auto expected = model.hours().begin();
    for (auto const& [period, record] : records) {
        ASSERT_EQ(period, expected->first);
        std::vector<std::uint32_t> const slots = slotsOf(record);
        ASSERT_TRUE(std::equal(slots.begin(), slots.end(), expected->second.begin())) << "period " << period;
        ++expected;
    }
}

// Some hours of any counters, and their score: 150,000 hours in all.
TEST(ScoreModel, RandomRecordsScoreAsTheModelSays) {
    RandomSource random;
    std::uint64_t hours = 0;
    std::map<std::uint32_t, int> seen;
    while (hours < 150000) {
        std::uint32_t const current = random.oneIn(20) ? static_cast<std::uint32_t>(random.below(20))
                                                       : 470000 + static_cast<std::uint32_t>(random.below(1000));
        long const now = long{current} * 3600 + static_cast<long>(random.below(3600));
        RefEntry const entry(true);
        std::map<std::uint64_t, Counters> model;
        for (std::size_t n = 1 + random.below(14); n > 0; --n, ++hours) {
            std::uint32_t const period = current + 3 - static_cast<std::uint32_t>(random.below(20));
            std::uint32_t slots[9];
            for (std::uint32_t& slot : slots) {
                slot = anyCounter(random);
            }
            Entry::Record record(slots[0], slots[1], slots[2], slots[3], slots[4]);
            record.extraTotal = slots[5];
            record.extraHits = slots[6];
            record.extraVolume = slots[7];
            record.flagged = slots[8];
            entry->add(period, record);
            model[period] = Counters(std::begin(slots), std::end(slots));
        }
        std::uint32_t const first = random.oneIn(3) ? 0 : current - static_cast<std::uint32_t>(random.below(20));
        std::uint32_t const score = scoreOf(*entry, now, first);
        ASSERT_EQ(score, modelOfScore(model, current, first)) << "period " << current << ", first " << first;
        ++seen[score];
        std::uint64_t const kept = cut(two32 + cut(two32 + cut(static_cast<std::uint64_t>(now)) - 43200) / 3600 + 1);
        model.erase(model.begin(), model.lower_bound(kept));
        ASSERT_EQ(entry->scoreAndDrop(now), modelOfScore(model, current, 0)) << "at " << now;
        ASSERT_EQ(recordsOf(entry).size(), model.size());
    }
    EXPECT_GT(seen.size(), 60U) << "the numbers were too tame";
}

// The operations in any order.
TEST(ScoreModel, RandomOperationsLeaveWhatTheModelHolds) {
    RandomSource random;
    for (int round = 0; round < 400; ++round) {
        RefEntry const entry(true);
        ModelEntry model;
        std::uint32_t const current = 470000;
        for (int step = 0; step < 150; ++step) {
            std::uint32_t const period = current - static_cast<std::uint32_t>(random.below(16));
            auto const type = static_cast<unsigned int>(random.below(10));
            std::uint32_t const amount = anyCounter(random);
            switch (random.below(8)) {
            case 0:
                entry->add(period, Entry::Record(amount, 7, amount, 3, amount));
                model.add(period, {amount, 7, amount, 3, amount});
                break;
            case 1:
            case 2:
                entry->decrement(static_cast<Entry::AttributeType>(type), period, amount);
                model.decrement(type, period, amount);
                break;
            case 3:
                if (random.oneIn(10)) {
                    ASSERT_EQ(entry->scoreAndDrop(current * 3600L), [&] {
                        model.drop(current - 11);
                        return modelOfScore(model.hours(), current, 0);
                    }());
                }
                break;
            default:
                entry->increment(static_cast<Entry::AttributeType>(type), period, amount);
                model.increment(type, period, amount);
            }
            ASSERT_EQ(scoreOf(*entry, current * 3600L, current - 11),
                      modelOfScore(model.hours(), current, current - 11));
        }
        expectSame(entry, model);
    }
}

} // namespace
} // namespace Vellum::Reputation
