// Entries and the cache against models that are too simple to be wrong, on long random runs.
#include "mmsreputation/Cache.h"
#include "tests/support/EndpointConfiguration.h"
#include "tests/support/EndpointEntries.h"
#include "tests/support/RandomSource.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <optional>

namespace Vellum::MMSReputation {
namespace {

constexpr std::uint32_t divisorMinutes = 2;

// A list of every slice, searched from end to end.
struct ModelEntry {
    struct Slice {
        std::uint32_t index, spam, infected;
    };
    std::list<Slice> slices;
    long expiry = 0;

    Slice* find(std::uint32_t index) {
        for (Slice& slice : slices) {
            if (slice.index == index) {
                return &slice;
            }
        }
        return nullptr;
    }
    std::list<Slice>::iterator oldest() {
        return std::min_element(slices.begin(), slices.end(),
                                [](Slice const& a, Slice const& b) { return a.index < b.index; });
    }
    void increment(unsigned int type, std::uint32_t index) {
        if (find(index) == nullptr) {
            slices.push_back({index, 0, 0});
            while (slices.size() > 15) {
                slices.erase(oldest());
            }
        }
        if (Slice* slice = find(index)) {
            slice->infected += type == 0 ? 1 : 0;
            slice->spam += type == 1 ? 1 : 0;
        }
    }
    void set(std::uint32_t index, std::uint32_t spam, std::uint32_t infected) {
        if (find(index) == nullptr) {
            slices.push_back({index, 0, 0});
        }
        *find(index) = {index, spam, infected};
    }
    void purge(std::uint32_t lowest) {
        slices.remove_if([lowest](Slice const& slice) { return slice.index < lowest; });
    }
    std::uint32_t score(std::uint32_t index) const {
        std::uint32_t sum = 0;
        for (Slice const& slice : slices) {
            sum += slice.index >= index - 15 ? slice.spam + slice.infected : 0;
        }
        return sum;
    }
    Counts counts() const {
        Counts counts;
        for (Slice const& slice : slices) {
            counts[slice.index] = {slice.spam, slice.infected};
        }
        return counts;
    }
};

TEST(EndpointModel, EntryDoesWhatAListOfSlicesDoes) {
    RandomSource random;
    for (int run = 0; run < 200; ++run) {
        RefEntry const entry(true);
        ModelEntry model;
        std::uint32_t const base = random.oneIn(4) ? static_cast<std::uint32_t>(random.any()) : 1000;
        for (int step = 0; step < 300; ++step) {
            auto const index = base + static_cast<std::uint32_t>(random.below(25));
            switch (random.below(6)) {
            case 0: {
                Entry::Record const record(static_cast<std::uint32_t>(random.any()),
                                           static_cast<std::uint32_t>(random.below(5)));
                entry->add(Period(index), record);
                model.set(index, record.spam, record.infected);
                break;
            }
            case 1: {
                auto const lowest = index - static_cast<std::uint32_t>(random.below(30));
                ExclusiveLock const hold(Entry::s_mutex);
                entry->purgeRecords(lowest);
                model.purge(lowest);
                break;
            }
            default:
                auto const type = static_cast<unsigned int>(random.below(3));
                entry->increment(static_cast<AttributeType>(type), index);
                model.increment(type, index);
            }
            ASSERT_EQ(countsOf(*entry), model.counts()) << "run " << run << " step " << step;
            ASSERT_EQ(entry->score(index, true), model.score(index)) << "run " << run << " step " << step;
        }
    }
}

// A bounded list of numbers in order of use.
class ModelCache {
  public:
    struct Place {
        MSISDN number;
        ModelEntry entry;
    };
    std::list<Place> places; // front: used last
    std::set<MSISDN> blacklisted, exempt;

    ModelEntry* find(MSISDN const& number, std::uint32_t index, bool create) {
        auto place = std::find_if(places.begin(), places.end(), [&](Place const& p) { return p.number == number; });
        if (place == places.end()) {
            if (!create) {
                return nullptr;
            }
            places.push_front({number, {}});
            if (places.size() > Cache::mostEntries) {
                places.pop_back();
            }
            return &places.front().entry;
        }
        places.splice(places.begin(), places, place);
        if (index != 0) {
            place->entry.purge(index - 15);
        }
        return &place->entry;
    }
    void purge(long now, std::uint32_t index) {
        places.remove_if([&](Place const& p) {
            return !(p.entry.expiry != 0 && now <= p.entry.expiry) && p.entry.score(index) == 0;
        });
    }
};

void expectSame(Cache const& cache, ModelCache const& model) {
    std::map<MSISDN, std::pair<Counts, long>> expected;
    for (auto const& place : model.places) {
        expected[place.number] = {place.entry.counts(), place.entry.expiry};
    }
    std::map<MSISDN, std::pair<Counts, long>> seen;
    {
        SharedLock const entries(Entry::s_mutex);
        SharedLock const hold(cache.lock);
        cache.forEachInKeyOrder([&](auto const& pair) {
            auto& [counts, expiry] = seen[pair.first];
            for (auto const& [slice, record] : pair.second->records()) {
                counts[slice] = {record.spam, record.infected};
            }
            expiry = pair.second->blacklistExpiry();
            return true;
        });
    }
    ASSERT_EQ(seen, expected);
}

TEST(EndpointModel, CacheDoesWhatAListOfNumbersDoes) {
    RandomSource random;
    InstalledConfiguration configuration;
    long now = 1700000000;
    Cache cache;
    ModelCache model;
    for (unsigned int n = 0; n < Cache::mostEntries - 20; ++n) { // a full one, so that eviction takes part
        MSISDN const number = subscriber(100000 + n);
        cache.find(number, 0, true);
        cache.entry(number, 0, false)->blacklistExpiry(now + 100000);
        model.find(number, 0, true)->expiry = now + 100000;
    }
    for (int step = 0; step < 4000; ++step) {
        now += static_cast<long>(random.below(60));
        auto const index = static_cast<std::uint32_t>(now / 60 / divisorMinutes);
        MSISDN const number = subscriber(static_cast<unsigned int>(random.below(60)));
        switch (random.below(12)) {
        case 0:
            cache.remove(number);
            model.places.remove_if([&](auto const& place) { return place.number == number; });
            break;
        case 1:
            if (random.oneIn(5)) {
                cache.purge(true, now);
                model.purge(now, index);
            }
            break;
        case 2:
            cache.blacklist(number);
            model.blacklisted.insert(number);
            break;
        case 3:
            cache.exempt(number);
            model.exempt.insert(number);
            break;
        case 4:
            ASSERT_EQ(cache.isBlacklisted(number), model.blacklisted.contains(number));
            ASSERT_EQ(cache.isExempt(number), model.exempt.contains(number));
            break;
        case 5: {
            bool const there = cache.find(number, 0, false) != cache.end();
            ASSERT_EQ(there, model.find(number, 0, false) != nullptr);
            break;
        }
        case 6: {
            long const expiry = now + static_cast<long>(random.below(400)) - 200;
            cache.entry(number, index, true)->blacklistExpiry(expiry);
            model.find(number, index, true)->expiry = expiry;
            break;
        }
        default: {
            auto const type = static_cast<unsigned int>(random.below(3));
            auto const slice = index - static_cast<std::uint32_t>(random.below(18));
            cache.entry(number, index, true)->increment(static_cast<AttributeType>(type), slice);
            model.find(number, index, true)->increment(type, slice);
        }
        }
        if (step % 200 == 0 || step > 3980) {
            expectSame(cache, model);
        }
    }
}

} // namespace
} // namespace Vellum::MMSReputation
