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
        SharedLock const hold(cache.lock);
        cache.forEachInKeyOrder([&](auto const& pair) {
            m_records.emplace_back(pair.first, pair.second);
            return true;
        });
    }
    // A record that was loaded stays as it was loaded.
    void putBack() {
        for (auto const& [key, status] : m_records) {
            m_cache.add(key, status);
        }
    }

  private:
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

void loadAgain() {
    Kept<GreyList::_TupleCache, GreyList::TupleId> tuples(**GreyList::TupleCache::instance());
    Kept<GreyList::_DynamicExemptCache, GreyList::DynamicExemptId> exemptions(
        **GreyList::DynamicExemptCache::instance());
    GreyList::GlRecordDatabase(Database::Connection::defaultAddress()).read();
    tuples.putBack();
    exemptions.putBack();
}

} // namespace

KeptTables greylistTables() {
    return {"the tables", problem, loadAgain};
}

} // namespace Vellum::Daemon
