// Both caches against models that are too simple to be wrong, on long random runs.
#include "greylist/DynamicExemptCache.h"
#include "greylist/TupleCache.h"
#include "tests/support/CapturingLogger.h"
#include "tests/support/GreylistConfiguration.h"
#include "tests/support/GreylistIdentities.h"
#include "tests/support/RandomSource.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <vector>

namespace Vellum::GreyList {
namespace {

constexpr int operations = 250000;
constexpr std::size_t identities = 60;

struct Times {
    long firstSeen, expiry, initialLifetime;
    bool operator==(Times const&) const = default;
};

// A bounded list in order of use, searched from end to end.
class Model {
  public:
    explicit Model(std::size_t capacity) : m_capacity(capacity) {}

    struct Entry {
        std::size_t id;
        Times times;
    };
    Times* lookup(std::size_t id) {
        auto const at = place(id);
        return at == m_entries.end() ? nullptr : &at->times;
    }
    Times* find(std::size_t id) {
        auto const at = place(id);
        if (at == m_entries.end()) {
            return nullptr;
        }
        std::rotate(m_entries.begin(), at, at + 1);
        return &m_entries.front().times;
    }
    void add(std::size_t id, Times const& times) {
        if (place(id) == m_entries.end()) {
            m_entries.insert(m_entries.begin(), {id, times});
            m_entries.resize(std::min(m_entries.size(), m_capacity));
        }
    }
    void remove(std::size_t id) {
        m_entries.erase(std::remove_if(m_entries.begin(), m_entries.end(), [id](Entry const& e) { return e.id == id; }),
                        m_entries.end());
    }
    void clear() { m_entries.clear(); }
    std::size_t size() const { return m_entries.size(); }

  private:
    std::vector<Entry>::iterator place(std::size_t id) {
        return std::find_if(m_entries.begin(), m_entries.end(), [id](Entry const& entry) { return entry.id == id; });
    }

    std::size_t m_capacity;
    std::vector<Entry> m_entries;
};

// What the configuration says in a moment of the run.
struct Settings {
    int hours = 4, days = 36, minutes = 5;

    void turn(RandomSource& random, AdjustableConfiguration& into) {
        hours = static_cast<int>(random.below(5));
        days = static_cast<int>(random.below(3));
        minutes = static_cast<int>(random.below(90));
        into.hours = hours;
        into.days = days;
        into.minutes = minutes;
    }
};

// The decision as the table of its situations has it.
int decide(Model& model, std::size_t id, long now, Settings const& settings) {
    long const firstLife = settings.hours * 3600L;
    Times* const times = model.lookup(id);
    if (times == nullptr) {
        model.add(id, {now, now + firstLife, firstLife});
        return 0;
    }
    if (now > times->expiry) {
        *times = {now, now + firstLife, firstLife};
        return 0;
    }
    if (now < times->firstSeen + settings.minutes * 60L) {
        return 0;
    }
    times->expiry = now + settings.days * 86400L;
    return 1;
}

int exempt(Model& model, std::size_t id, long now, Settings const& settings) {
    Times* const times = model.lookup(id);
    if (times == nullptr) {
        return 0;
    }
    if (times->expiry <= now) {
        model.remove(id);
        return 0;
    }
    times->expiry = now + settings.days * 86400L;
    return 1;
}

// A time near one at which the answer for this record changes, or a little later than the last one.
long interesting(RandomSource& random, Model& model, std::size_t id, long now, Settings const& settings) {
    long const nudge = static_cast<long>(random.below(3)) - 1;
    Times const* const times = model.lookup(id);
    if (times != nullptr && random.oneIn(3)) {
        return times->expiry + nudge;
    }
    if (times != nullptr && random.oneIn(2)) {
        return times->firstSeen + settings.minutes * 60L + nudge;
    }
    return now + static_cast<long>(random.below(2000));
}

template <class Cache, class Id>
class Comparison {
  public:
    Comparison(RandomSource& random, Cache& cache, std::vector<Id> ids, std::size_t capacity)
        : m_random(random), m_cache(cache), m_ids(std::move(ids)), m_model(capacity) {}

    // Runs operations in both; `ask(cache, id, now)` and `askModel(model, id, now, settings)` are the decisions.
    template <class Ask, class AskModel>
    void run(AdjustableConfiguration& configuration, Ask ask, AskModel askModel) {
        for (int n = 0; n < operations; ++n) {
            std::size_t const id = m_random.below(m_ids.size());
            long const at = interesting(m_random, m_model, id, m_now, m_settings);
            m_now = std::max(m_now, std::min(at, m_now + 100000)); // an excursion to the far future does not last
            std::size_t const choice = m_random.below(100);
            if (choice < 80) {
                ASSERT_EQ(ask(m_cache, m_ids[id], at), askModel(m_model, id, at, m_settings))
                    << "operation " << n << ", identity " << id << ", time " << at;
            } else if (choice < 98) {
                change(choice, id, at);
            } else if (choice == 98) {
                m_settings.turn(m_random, configuration);
            } else if (m_random.oneIn(50)) {
                m_cache.clear();
                m_model.clear();
            }
            ASSERT_NO_FATAL_FAILURE(compare(n, id));
        }
        for (std::size_t id = 0; id < m_ids.size(); ++id) {
            ASSERT_NO_FATAL_FAILURE(compare(operations, id));
        }
    }

  private:
    void change(std::size_t choice, std::size_t id, long at) {
        if (choice < 86) {
            Times const times{at, at + static_cast<long>(m_random.below(20000)), 0};
            m_cache.add(m_ids[id], Status(times.firstSeen, times.expiry, times.initialLifetime));
            m_model.add(id, times);
        } else if (choice < 94) {
            bool const found = m_cache.find(m_ids[id]) != m_cache.end();
            ASSERT_EQ(found, m_model.find(id) != nullptr);
        } else {
            m_cache.remove(m_ids[id]);
            m_model.remove(id);
        }
    }
    std::optional<Times> held(std::size_t id) const {
        SharedLock const hold(m_cache.lock);
        auto const found = m_cache.lookup(m_ids[id]);
        if (found == m_cache.end()) {
            return std::nullopt;
        }
        return Times{found->second.firstSeen, found->second.expiry, found->second.initialLifetime};
    }
    void compare(int operation, std::size_t id) {
        Times const* const expected = m_model.lookup(id);
        std::optional<Times> const actual = held(id);
        ASSERT_EQ(actual.has_value(), expected != nullptr) << "operation " << operation << ", identity " << id;
        ASSERT_TRUE(!actual || *actual == *expected) << "operation " << operation << ", identity " << id;
        SharedLock const hold(m_cache.lock);
        ASSERT_EQ(m_cache.sizeNoLock(), m_model.size()) << "operation " << operation;
    }

    RandomSource& m_random;
    Cache& m_cache;
    std::vector<Id> m_ids;
    Model m_model;
    Settings m_settings;
    long m_now = 1700000000;
};

TEST(TupleCacheModel, DecisionsAreThoseOfTheModel) {
    for (int const capacity : {1, 20, 100}) {
        CapturingLogger log;
        RandomSource random;
        InstalledConfiguration const configuration(capacity);
        _TupleCache cache;
        std::vector<TupleId> ids;
        for (unsigned int n = 0; n < identities; ++n) {
            ids.push_back(tuple(n));
        }
        Comparison<_TupleCache, TupleId> comparison(random, cache, ids, static_cast<std::size_t>(capacity));
        ASSERT_NO_FATAL_FAILURE(comparison.run(
            *configuration.operator->(),
            [&random](_TupleCache& asked, TupleId const& id, long now) {
                bool const byParts = random.below(2) == 0;
                return byParts ? int(asked.decide(id->parts(), now).passed()) : asked.state(id, now);
            },
            decide));
    }
}

TEST(DynamicExemptCacheModel, ExemptionsAreThoseOfTheModel) {
    for (int const capacity : {1, 20, 100}) {
        RandomSource random;
        InstalledConfiguration const configuration(capacity);
        _DynamicExemptCache cache;
        std::vector<DynamicExemptId> ids;
        for (unsigned int n = 0; n < identities; ++n) {
            ids.push_back(exemption(n));
        }
        Comparison<_DynamicExemptCache, DynamicExemptId> comparison(random, cache, ids,
                                                                    static_cast<std::size_t>(capacity));
        ASSERT_NO_FATAL_FAILURE(comparison.run(
            *configuration.operator->(),
            [](_DynamicExemptCache& asked, DynamicExemptId const& id, long now) {
                return asked.exempt(id->mask(), id->domain(), now);
            },
            exempt));
    }
}

} // namespace
} // namespace Vellum::GreyList
