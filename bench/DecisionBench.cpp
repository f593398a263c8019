// The decision beside the textbook cache (std::map, std::list, boost::shared_mutex), in one binary and one run.
//
//   DecisionBench [--tuples N]... [--turns N] [--json]
//
// For each size the two caches answer the same sequences of the same identities, in turns, and the medians of the turns
// are printed: known tuples at random, new ones with eviction of the oldest, and a mix of 90 and 10 %; from 1 and 2
// threads. Bytes per tuple are all-in: what the process's heap grew by, divided by the tuples held.
#include "bench/BenchSupport.h"
#include "foundation/AllocatorTuning.h"
#include "greylist/TupleCache.h"

#include <boost/thread/locks.hpp>
#include <boost/thread/shared_mutex.hpp>

#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <list>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace Vellum;
using namespace Vellum::GreyList;

namespace {

// The identity as a textbook has it: values behind one shared pointer.
struct TextbookId {
    struct Parts {
        IPAddressMask mask;
        EmailAddress sender, recipient;
    };
    boost::shared_ptr<Parts> parts;
    TextbookId(IPAddressMask const& mask, EmailAddress const& sender, EmailAddress const& recipient)
        : parts(new Parts{mask, sender, recipient}) {}
    bool operator<(TextbookId const& other) const {
        if (parts->mask < other.parts->mask) {
            return true;
        }
        if (parts->mask == other.parts->mask) {
            if (parts->sender < other.parts->sender) {
                return true;
            }
            return parts->sender == other.parts->sender && parts->recipient < other.parts->recipient;
        }
        return false;
    }
};

// The textbook: a list in order of use, a map from key to list position, boost's lock, the same decision.
class TextbookCache {
  public:
    explicit TextbookCache(std::size_t capacity) : m_capacity(capacity) {}
    int state(TextbookId const& id, long now) {
        boost::upgrade_lock<boost::shared_mutex> reading(m_lock);
        auto const found = m_index.find(id);
        if (found == m_index.end()) {
            long const life = RefConfiguration::instance(nullptr)->initialExpiryHours() * 3600L;
            boost::upgrade_to_unique_lock<boost::shared_mutex> const writing(reading);
            m_list.emplace_front(id, Status(now, now + life, life));
            m_index.emplace(id, m_list.begin());
            while (m_list.size() > m_capacity) {
                m_index.erase(m_list.back().first);
                m_list.pop_back();
            }
            return 0;
        }
        Status& status = found->second->second;
        if (now > status.expiry) {
            long const life = RefConfiguration::instance(nullptr)->initialExpiryHours() * 3600L;
            boost::upgrade_to_unique_lock<boost::shared_mutex> const writing(reading);
            status = Status(now, now + life, life);
            return 0;
        }
        if (now < status.firstSeen + RefConfiguration::instance(nullptr)->greylistMinutes() * 60L) {
            return 0;
        }
        status.expiry = now + RefConfiguration::instance(nullptr)->ttlDays() * 86400L;
        return 1;
    }

  private:
    std::size_t m_capacity;
    std::list<std::pair<TextbookId, Status>> m_list;
    std::map<TextbookId, std::list<std::pair<TextbookId, Status>>::iterator> m_index;
    boost::shared_mutex m_lock;
};

std::size_t heapInUse() {
    struct mallinfo2 const info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

enum class Load { known, fresh, mixed };
char const* const loadNames[] = {"known", "new, evicting", "90 % known"};

// One side of the comparison: a cache filled with `tuples` identities, and how to ask it.
template <class Cache, class Id>
class Side {
  public:
    Side(std::size_t tuples, Cache* cache) : m_tuples(tuples), m_cache(cache) {
        std::size_t const before = heapInUse();
        for (std::size_t n = 0; n < tuples; ++n) {
            m_cache->state(Bench::identity<Id>(n * 7919 % tuples), 1000);
        }
        m_bytesPerTuple = static_cast<double>(heapInUse() - before) / static_cast<double>(tuples);
        m_nextFresh = tuples;
    }
    double bytesPerTuple() const { return m_bytesPerTuple; }

    // Nanoseconds per decision, identities made beforehand so that only decisions are timed.
    double run(Load load, unsigned int threads, std::size_t decisions, unsigned int seed) {
        std::vector<std::vector<Id>> work(threads);
        std::mt19937_64 random(seed);
        for (auto& ids : work) {
            ids.reserve(decisions / threads);
            for (std::size_t i = 0; i < decisions / threads; ++i) {
                bool const fresh = load == Load::fresh || (load == Load::mixed && random() % 10 == 0);
                // A fresh tuple pushes out the oldest one, so the known ones are the last `tuples`.
                ids.push_back(
                    Bench::identity<Id>(fresh ? m_nextFresh++ : m_nextFresh - m_tuples + random() % m_tuples));
            }
        }
        auto const start = std::chrono::steady_clock::now();
        std::vector<std::thread> runners;
        for (auto const& ids : work) {
            runners.emplace_back([&ids, this] {
                for (Id const& id : ids) {
                    m_cache->state(id, 2000);
                }
            });
        }
        for (auto& runner : runners) {
            runner.join();
        }
        std::chrono::duration<double, std::nano> const elapsed = std::chrono::steady_clock::now() - start;
        return elapsed.count() / static_cast<double>(decisions);
    }

  private:
    std::size_t m_tuples;
    std::unique_ptr<Cache> m_cache;
    double m_bytesPerTuple = 0;
    std::uint64_t m_nextFresh = 0;
};

void compare(std::size_t tuples, Bench::Options const& options) {
    Bench::installConfiguration(tuples);
    Side<_TupleCache, TupleId> ours(tuples, new _TupleCache);
    Side<TextbookCache, TextbookId> textbook(tuples, new TextbookCache(tuples));
    if (options.json) {
        std::printf("{\"tuples\":%zu,\"bytes\":%.1f,\"textbook_bytes\":%.1f}\n", tuples, ours.bytesPerTuple(),
                    textbook.bytesPerTuple());
    } else {
        std::printf("%zu tuples: %.0f bytes each, textbook %.0f\n", tuples, ours.bytesPerTuple(),
                    textbook.bytesPerTuple());
    }
    for (unsigned int threads : {1U, 2U}) {
        for (Load load : {Load::known, Load::fresh, Load::mixed}) {
            std::vector<double> mine, theirs, ratios;
            for (unsigned int turn = 0; turn < options.turns; ++turn) {
                std::size_t const decisions = std::max<std::size_t>(100000, std::min<std::size_t>(tuples, 400000));
                mine.push_back(ours.run(load, threads, decisions, turn));
                theirs.push_back(textbook.run(load, threads, decisions, turn));
                ratios.push_back(theirs.back() / mine.back());
            }
            char const* const name = loadNames[static_cast<int>(load)];
            std::printf(options.json
                            ? "{\"tuples\":%zu,\"load\":\"%s\",\"threads\":%u,\"ns\":%.1f,\"textbook_ns\":%.1f,"
                              "\"ratio\":%.2f}\n"
                            : "%9zu  %-14s %u thread(s)  %7.0f ns  textbook %7.0f ns  %5.2f times as fast\n",
                        tuples, name, threads, Bench::median(mine), Bench::median(theirs), Bench::median(ratios));
            std::fflush(stdout);
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    tuneAllocator(argv); // as vellumd does
    Bench::SilentLogger const silent;
    Bench::Options const options = Bench::Options::parse(argc, argv, {10000, 100000, 1000000}, 7);
    for (std::size_t const tuples : options.sizes) {
        compare(tuples, options);
    }
}
