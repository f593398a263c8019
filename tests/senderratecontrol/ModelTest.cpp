// Long random runs against a plain model: every sender has a list of what was counted and when.
#include "tests/support/RandomSource.h"
#include "tests/support/RateControl.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <map>
#include <vector>

namespace Vellum::SenderRateControl {
namespace {

constexpr int operations = 100000;
constexpr unsigned int senders = 40;

using Counters = std::array<std::uint32_t, 6>;

Counters countersOf(Entry::Record const& record) {
    return {record.count1, record.count2, record.count3, record.count4, record.count5, record.reserved};
}

// One sender, in words of seconds: a period counts while its first second is not older than its half hour.
struct Plain {
    std::map<unsigned int, Counters> periods;
    std::uint32_t state = 0, reason = 0;
    long until = 0;

    Counters totals(long now) {
        Counters sum{};
        long const current = now / 300;
        for (auto at = periods.begin(); at != periods.end();) {
            if (static_cast<long>(at->first) + 5 < current) {
                at = periods.erase(at);
                continue;
            }
            for (std::size_t n = 0; n < 5; ++n) {
                sum[n] += at->second[n];
            }
            ++at;
        }
        return sum;
    }
};

// Senders in order of use, most recent first.
class Model {
  public:
    explicit Model(std::size_t capacity) : m_capacity(capacity) {}

    Plain& find(unsigned int of) {
        auto const at =
            std::find_if(m_used.begin(), m_used.end(), [of](auto const& entry) { return entry.first == of; });
        if (at != m_used.end()) {
            std::rotate(m_used.begin(), at, at + 1);
        } else {
            m_used.insert(m_used.begin(), {of, Plain()});
            m_used.resize(std::min(m_used.size(), m_capacity));
        }
        return m_used.front().second;
    }
    Plain const* lookup(unsigned int of) const {
        auto const at =
            std::find_if(m_used.begin(), m_used.end(), [of](auto const& entry) { return entry.first == of; });
        return at == m_used.end() ? nullptr : &at->second;
    }
    std::size_t size() const { return m_used.size(); }

  private:
    std::size_t m_capacity;
    std::vector<std::pair<unsigned int, Plain>> m_used;
};

class Comparison {
  public:
    explicit Comparison(std::uint32_t capacity) : m_configuration(capacity), m_model(capacity) {}

    void run() {
        for (int n = 0; n < operations; ++n) {
            m_now += static_cast<long>(m_random.oneIn(20) ? m_random.below(2500) : m_random.below(40));
            auto const of = static_cast<unsigned int>(m_random.below(senders));
            ASSERT_NO_FATAL_FAILURE(step(of)) << "operation " << n << ", sender " << of << ", time " << m_now;
            ASSERT_NO_FATAL_FAILURE(compare(of)) << "operation " << n << ", sender " << of << ", time " << m_now;
        }
        for (unsigned int of = 0; of < senders; ++of) {
            ASSERT_NO_FATAL_FAILURE(compare(of));
        }
    }

  private:
    // A period near one at which totals change, rarely far away.
    unsigned int period() {
        if (m_random.oneIn(50)) {
            return static_cast<unsigned int>(m_random.any());
        }
        return static_cast<unsigned int>(m_now / 300) + 1 - static_cast<unsigned int>(m_random.below(9));
    }
    void step(unsigned int of) {
        RefEntry const entry = m_random.oneIn(2) ? m_cache.entryOf(sender(of)) : m_cache.find(sender(of))->second;
        Plain& plain = m_model.find(of);
        switch (m_random.below(10)) {
        case 0: {
            auto const p = period();
            Counters counters;
            std::generate(counters.begin(), counters.end(),
                          [this] { return static_cast<std::uint32_t>(m_random.any()); });
            Entry::Record record(counters[0], counters[1], counters[2], counters[3], counters[4]);
            record.reserved = counters[5];
            entry->add(p, record);
            plain.periods[p] = counters;
            break;
        }
        case 1:
            block(entry, plain);
            break;
        case 2:
        case 3:
        case 4: {
            SenderRateControlRecord out{};
            entry->totals(m_now, out);
            Counters const expected = plain.totals(m_now);
            ASSERT_EQ((Counters{out.count1, out.count2, out.count3, out.count4, out.count5, 0}), expected);
            break;
        }
        default: {
            auto const p = period();
            auto const type = static_cast<std::uint32_t>(m_random.below(8));
            auto const amount = static_cast<std::uint32_t>(m_random.oneIn(10) ? m_random.any() : m_random.below(5));
            entry->increment(Entry::AttributeType{type}, p, amount);
            Counters& counters = plain.periods[p];
            if (type >= 1 && type <= 5) {
                counters[type - 1] += amount;
            }
        }
        }
    }
    void block(RefEntry const& entry, Plain& plain) {
        if (m_random.oneIn(3)) {
            entry->reset();
            plain.state = plain.reason = 0;
            plain.until = 0;
            return;
        }
        plain.state = static_cast<std::uint32_t>(m_random.below(3));
        plain.reason = static_cast<std::uint32_t>(m_random.below(6));
        plain.until = m_now + static_cast<long>(m_random.below(4000));
        entry->state(RateControlState{plain.state});
        entry->blockedReason(Entry::AttributeType{plain.reason});
        entry->blockedUntil(plain.until);
    }
    void compare(unsigned int of) {
        RefEntry const entry = held(m_cache, sender(of));
        Plain const* const plain = m_model.lookup(of);
        ASSERT_EQ(sizeOf(m_cache), m_model.size());
        ASSERT_EQ(static_cast<bool>(entry), plain != nullptr);
        if (plain == nullptr) {
            return;
        }
        std::map<unsigned int, Counters> periods;
        for (auto const& [number, record] : entry->records()) {
            periods[number] = countersOf(record);
        }
        ASSERT_EQ(periods, plain->periods);
        ASSERT_EQ(entry->firstPeriod(), periods.empty() ? 0 : periods.begin()->first);
        ASSERT_EQ(entry->lastPeriod(), periods.empty() ? 0 : periods.rbegin()->first);
        ASSERT_EQ(static_cast<std::uint32_t>(entry->state()), plain->state);
        ASSERT_EQ(entry->blockedReason(), plain->reason);
        ASSERT_EQ(entry->blockedUntil(), plain->until);
    }

    RandomSource m_random;
    InstalledConfiguration m_configuration;
    Cache m_cache;
    Model m_model;
    long m_now = 1'700'000'000;
};

TEST(RateModel, TheHalfHourIsThatOfAPlainModel) {
    for (std::uint32_t const capacity : {1U, 15U, 100U}) {
        Comparison(capacity).run();
    }
}

} // namespace
} // namespace Vellum::SenderRateControl
