#include "daemon/LoadKeeper.h"
#include "greylist/DynamicExemptCache.h"
#include "greylist/GlRecordDatabase.h"
#include "greylist/LoadReport.h"
#include "greylist/TupleCache.h"

#include <utility>
#include <vector>

namespace Vellum::Daemon {
namespace {

// The records of a cache, to be put back beside what a load brings.
template <class Cache, class Key>
class Kept {
  public:
    explicit Kept(Cache& cache) : m_cache(cache) {
        m_records.reserve(size() + size() / 16 + 64); // before the lock: room for what comes until it is taken
        SharedLock const hold(cache.lock);
        cache.forEachInKeyOrder([&](auto const& pair) {
            m_records.emplace_back(pair.first, pair.second);
            return true;
        });
    }
    // A record that was loaded stays as it was loaded. A cache that a failed load has not even cleared stays as it is:
    // what it forgot meanwhile must not come back.
    void putBack(bool loaded) {
        if (!loaded && size() >= m_records.size()) {
            return;
        }
        for (auto const& [key, status] : m_records) {
            m_cache.add(key, status);
        }
    }

  private:
    std::size_t size() const {
        SharedLock const hold(m_cache.lock);
        return m_cache.sizeNoLock();
    }

    Cache& m_cache;
    std::vector<std::pair<Key, GreyList::Status>> m_records;
};

std::string problem() {
    GreyList::LoadReport const report = GreyList::LoadReport::last();
    if (report.complete()) {
        return {};
    }
    std::string const& problem = report.tuples.loaded ? report.exemptions.problem : report.tuples.problem;
    return "the tables could not be loaded: " + (problem.empty() ? "no load was tried yet" : problem);
}

void load(bool tuplesToo, bool exemptionsToo) {
    GreyList::GlRecordDatabase database(Database::Connection::defaultAddress());
    if (tuplesToo) {
        Kept<GreyList::_TupleCache, GreyList::TupleId> tuples(**GreyList::TupleCache::instance());
        database.readTuples();
        tuples.putBack(GreyList::LoadReport::last().tuples.loaded);
    }
    if (exemptionsToo) {
        Kept<GreyList::_DynamicExemptCache, GreyList::DynamicExemptId> exemptions(
            **GreyList::DynamicExemptCache::instance());
        database.readExemptions();
        exemptions.putBack(GreyList::LoadReport::last().exemptions.loaded);
    }
}

// Only what is missing: the half that was loaded has lived on since, and its table is older than it.
void loadAgain() {
    GreyList::LoadReport const last = GreyList::LoadReport::last();
    load(!last.tuples.loaded, !last.exemptions.loaded);
}

void loadAnew() {
    load(true, true);
}

} // namespace

KeptTables greylistTables() {
    return {"the tables", problem, loadAgain, loadAnew};
}

} // namespace Vellum::Daemon
