#include "daemon/LoadKeeper.h"
#include "mmsreputation/MMSReputationDatabase.h"
#include "mmsreputation/Reports.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace Vellum::Daemon {
namespace {

using MMSReputation::Entry;
using MMSReputation::LoadReport;
using MMSReputation::RefCache;
namespace Select = MMSReputation::Select;

// What the cache has counted, to be put back beside what a load brings.
class KeptEndpoints {
  public:
    explicit KeptEndpoints(MMSReputation::Cache const& cache) {
        SharedLock const holdEntries(Entry::s_mutex);
        SharedLock const hold(cache.lock);
        cache.forEachInKeyOrder([this](auto const& pair) VELLUM_NO_THREAD_SAFETY_ANALYSIS {
            if (Entry const* entry = pair.second.get()) {
                m_endpoints.push_back({pair.first, entry->records(), entry->blacklistExpiry()});
            }
            return true;
        });
    }
    // A sum would count twice what the tables had from this very cache, so the larger value stays.
    void putBackInto(MMSReputation::Cache const& cache) const {
        for (Endpoint const& endpoint : m_endpoints) {
            MMSReputation::RefEntry const entry = cache.entry(endpoint.number, 0, true);
            entry->blacklistExpiry(std::max(entry->blacklistExpiry(), endpoint.expiry));
            ExclusiveLock const hold(Entry::s_mutex);
            for (auto const& [slice, counted] : endpoint.records) {
                entry->add(MMSReputation::Period(slice), larger(entry->records(), slice, counted));
            }
        }
    }

  private:
    struct Endpoint {
        MSISDN number;
        Entry::Records records;
        long expiry;
    };

    static Entry::Record larger(Entry::Records const& loaded, std::uint32_t slice, Entry::Record const& counted) {
        auto const found = loaded.find(slice);
        if (found == loaded.end()) {
            return counted;
        }
        return {std::max<std::uint32_t>(found->second.spam, counted.spam),
                std::max<std::uint32_t>(found->second.infected, counted.infected)};
    }

    std::vector<Endpoint> m_endpoints;
};

RefCache current() {
    return RefCache::instance(nullptr, Select::everything);
}

// Of the last load. Entries that an administrator has given up are not missed any more; the lists, of which there is no
// backup, still are.
LoadReport missed() {
    LoadReport report = LoadReport::last();
    if (!report.entries.loaded) {
        RefCache const cache = current();
        report.entries.loaded = !cache.isNull() && cache->whyNotWhole().empty();
    }
    return report;
}

std::string problem() {
    std::string const why = missed().problem();
    return why.empty() ? why : "the endpoint tables could not be loaded: " + why;
}

std::string whyNoBackup() {
    RefCache const cache = current();
    std::string const why = cache.isNull() ? "nothing was loaded" : cache->whyNotWhole();
    return why.empty() ? why : "the endpoint tables could not be loaded: " + why;
}

void accept() {
    if (RefCache const cache = current(); !cache.isNull()) {
        cache->takeAsWhole();
    }
}

void loadAnew() {
    MMSReputation::Database database(Database::Connection::defaultAddress());
    RefCache const before = current();
    RefCache const now = RefCache::instance(&database, Select::everything);
    if (!before.isNull()) {
        KeptEndpoints(*before).putBackInto(*now);
    }
}

void loadAgain() {
    if (!missed().entries.loaded) {
        return loadAnew();
    }
    MMSReputation::Database database(Database::Connection::defaultAddress());
    // They were loaded, and counted into since: only the lists are read again.
    RefCache::instance(&database, Select::exemptList | Select::blacklist);
}

} // namespace

KeptTables endpointTables() {
    return {"the endpoint tables", problem, loadAgain, loadAnew, whyNoBackup, accept};
}

} // namespace Vellum::Daemon
