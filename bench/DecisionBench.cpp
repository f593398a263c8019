// The decision beside the textbook cache (std::map, std::list, boost::shared_mutex), in one binary and one run.
//
//   DecisionBench [--tuples N] [--json]
//
// For each size the two caches answer the same sequences of the same identities, in turns, and the medians of the turns
// are printed: known tuples at random, new ones with eviction of the oldest, and a mix of 90 and 10 %; from 1 and 2
// threads. Bytes per tuple are all-in: what the process's heap grew by, divided by the tuples held.
#include "foundation/HugePages.h"
#include "foundation/Logger.h"
#include "greylist/Configuration.h"
#include "greylist/TupleCache.h"

#include <boost/thread/locks.hpp>
#include <boost/thread/shared_mutex.hpp>

#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
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

class SilentLogger : public Logger {
  protected:
    void write(Severity, std::string_view) override {}
};

class BenchConfiguration : public Configuration {
  public:
    explicit BenchConfiguration(int maxRecords) : m_maxRecords(maxRecords) {}
    int initialExpiryHours() const override { return 24; }
    int ttlDays() const override { return 36; }
    int greylistMinutes() const override { return 5; }
    std::string backupPath() const override { return {}; }
    void backupDone() override {}
    bool backupEnabled() const override { return false; }
    int maxRecords() const override { return m_maxRecords; }

  private:
    int m_maxRecords;
};

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

// Identity number n of a mail stream in which networks and senders repeat as they do in real logs: some eleven tuples
// of a network, addresses of 24 characters on average.
template <class Id>
Id identity(std::uint64_t n) {
    std::uint64_t mixed = n / 11 * 0x9E3779B97F4A7C15ULL;
    char text[80];
    ip_addr_t raw{4, {}};
    raw.bytes[0] = static_cast<std::uint8_t>(1 + (mixed >> 56) % 220);
    raw.bytes[1] = static_cast<std::uint8_t>(mixed >> 48);
    raw.bytes[2] = static_cast<std::uint8_t>(mixed >> 40);
    std::snprintf(text, sizeof text, "user%llu.%llu@example%llu.net", static_cast<unsigned long long>(n % 11),
                  static_cast<unsigned long long>((mixed >> 8) % 100000), static_cast<unsigned long long>(n % 7));
    EmailAddress const sender = EmailAddress::fromAddress(text);
    std::snprintf(text, sizeof text, "recipient%llu@example.org", static_cast<unsigned long long>(n % 1000));
    return Id(IPAddressMask(raw, 24), sender, EmailAddress::fromAddress(text));
}

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
            m_cache->state(identity<Id>(n * 7919 % tuples), 1000);
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
                ids.push_back(identity<Id>(fresh ? m_nextFresh++ : m_nextFresh - m_tuples + random() % m_tuples));
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

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void compare(std::size_t tuples, bool json) {
    RefConfiguration::instance(new BenchConfiguration(static_cast<int>(tuples)));
    Side<_TupleCache, TupleId> ours(tuples, new _TupleCache);
    Side<TextbookCache, TextbookId> textbook(tuples, new TextbookCache(tuples));
    if (json) {
        std::printf("{\"tuples\":%zu,\"bytes\":%.1f,\"textbook_bytes\":%.1f}\n", tuples, ours.bytesPerTuple(),
                    textbook.bytesPerTuple());
    } else {
        std::printf("%zu tuples: %.0f bytes each, textbook %.0f\n", tuples, ours.bytesPerTuple(),
                    textbook.bytesPerTuple());
    }
    for (unsigned int threads : {1U, 2U}) {
        for (Load load : {Load::known, Load::fresh, Load::mixed}) {
            std::vector<double> mine, theirs, ratios;
            for (unsigned int turn = 0; turn < 7; ++turn) {
                std::size_t const decisions = std::max<std::size_t>(100000, std::min<std::size_t>(tuples, 400000));
                mine.push_back(ours.run(load, threads, decisions, turn));
                theirs.push_back(textbook.run(load, threads, decisions, turn));
                ratios.push_back(theirs.back() / mine.back());
            }
            char const* const name = loadNames[static_cast<int>(load)];
            std::printf(json ? "{\"tuples\":%zu,\"load\":\"%s\",\"threads\":%u,\"ns\":%.1f,\"textbook_ns\":%.1f,"
                               "\"ratio\":%.2f}\n"
                             : "%9zu  %-14s %u thread(s)  %7.0f ns  textbook %7.0f ns  %5.2f times as fast\n",
                        tuples, name, threads, median(mine), median(theirs), median(ratios));
            std::fflush(stdout);
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    useHugePages(argv); // as vellumd does
    SilentLogger silent;
    Logger::install(&silent);
    bool json = false;
    std::vector<std::size_t> sizes{10000, 100000, 1000000};
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--json") == 0) {
            json = true;
        } else if (std::strcmp(argv[i], "--tuples") == 0 && i + 1 < argc) {
            sizes = {std::stoul(argv[++i])};
        } else {
            std::fprintf(stderr, "usage: %s [--tuples N] [--json]\n", argv[0]);
            return 2;
        }
    }
    for (std::size_t const tuples : sizes) {
        compare(tuples, json);
    }
    Logger::install(nullptr);
}
