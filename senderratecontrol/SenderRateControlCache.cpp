#include "senderratecontrol/SenderRateControlCache.h"

#include "foundation/Exception.h"
#include "include2/CacheSingleton.h"
#include "senderratecontrol/LogCodes.h"

#include <memory>

namespace Vellum::SenderRateControl {
namespace {

constexpr unsigned int configurationLine = 11; // promised to log readers

} // namespace

std::atomic<Configuration*> Configuration::s_instance{nullptr};

Configuration* Configuration::instance() {
    Configuration* const installed = s_instance;
    if (installed == nullptr) {
        // The other family's name is what log readers know.
        throw Exception(Signature::configurationInstance, Exception::failure, Source::cache, configurationLine)
            .stringParameter("Reputation::Configuration is null");
    }
    return installed;
}

Cache::Cache() : LRUCache(Configuration::instance()->cacheSize()) {}

void Cache::addNew(EmailAddress const& sender, RefEntry const& entry) const {
    // The cache is the mutable state behind a const handle, as the recency order is behind find().
    const_cast<Cache*>(this)->add(sender, entry);
}

Cache::iterator Cache::find(EmailAddress const& sender) const {
    if (iterator const found = LRUCache::find(sender); found != end()) {
        return found;
    }
    RefEntry const created(true);
    addNew(sender, created);
    if (iterator const found = LRUCache::find(sender); found != end()) {
        return found;
    }
    static thread_local std::unique_ptr<Pair> outside;
    outside = std::make_unique<Pair>(sender, created);
    return iterator(outside.get());
}

RefEntry Cache::cached(EmailAddress const& sender) const {
    ExclusiveLock const hold(lock);
    iterator const found = findNoLock(sender);
    return found == end() ? RefEntry(false) : found->second;
}

RefEntry Cache::entryOf(EmailAddress const& sender) const {
    if (RefEntry const found = cached(sender)) {
        return found;
    }
    RefEntry const created(true);
    addNew(sender, created);
    RefEntry const found = cached(sender);
    return found ? found : created;
}

RefCache* RefCache::instance(bool) {
    return cacheSingleton<RefCache>();
}

} // namespace Vellum::SenderRateControl
