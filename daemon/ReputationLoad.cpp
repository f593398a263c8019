#include "daemon/LoadKeeper.h"
#include "reputation/Cache.h"
#include "reputation/LoadReport.h"
#include "reputation/ReputationDatabase.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace Vellum::Daemon {
namespace {

using Reputation::Entry;

// What the cache has counted, to be put back beside what a load brings.
class KeptHours {
  public:
    explicit KeptHours(Reputation::Cache& cache) : m_cache(cache) {
        SharedLock const holdEntries(Entry::s_lock);
        SharedLock const holdCache(cache.lock);
        cache.forEachInKeyOrder([this](Reputation::Cache::Pair const& pair) VELLUM_NO_THREAD_SAFETY_ANALYSIS {
            m_addresses.emplace_back(pair.first, pair.second->records());
            return true;
        });
    }
    // A sum would count twice what the tables had from this very cache, so the larger value stays.
    void putBack() {
        for (auto const& [address, hours] : m_addresses) {
            Reputation::RefEntry const entry = m_cache.entry(address);
            for (auto const& [period, counted] : hours) {
                entry->add(period, larger(entry, period, counted));
            }
        }
    }

  private:
    static Entry::Record larger(Reputation::RefEntry const& entry, std::uint32_t period, Entry::Record const& counted) {
        SharedLock const hold(Entry::s_lock);
        auto const found = entry->records().find(period);
        if (found == entry->records().end()) {
            return counted;
        }
        Entry::Record both = counted;
        for (std::uint32_t Entry::Record::*const counter :
             {&Entry::Record::messageCount, &Entry::Record::recipients, &Entry::Record::invalidRecipients,
              &Entry::Record::infected, &Entry::Record::spam, &Entry::Record::extraTotal, &Entry::Record::extraHits,
              &Entry::Record::extraVolume, &Entry::Record::flagged}) {
            both.*counter = std::max(both.*counter, found->second.*counter);
        }
        return both;
    }

    Reputation::Cache& m_cache;
    std::vector<std::pair<IPAddress, Entry::Records>> m_addresses;
};

std::string problem() {
    Reputation::LoadReport const report = Reputation::LoadReport::last();
    if (report.loaded) {
        return {};
    }
    return "the tables of sender reputation could not be loaded: " +
           (report.problem.empty() ? "no load was tried yet" : report.problem);
}

void loadAgain() {
    KeptHours kept(**Reputation::RefCache::instance());
    Reputation::Database(Database::Connection::defaultAddress()).read();
    kept.putBack();
}

} // namespace

KeptTables reputationTables() {
    return {"the tables of sender reputation", problem, loadAgain, loadAgain};
}

} // namespace Vellum::Daemon
