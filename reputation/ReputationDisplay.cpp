#include "reputation/ReputationDisplay.h"

#include "foundation/ipc/Dispatcher.h"
#include "foundation/ipc/Listing.h"
#include "reputation/Cache.h"
#include "reputation/LogCodes.h"

#include <ctime>

namespace Vellum::Reputation {
namespace {

// Lines are promised to log readers.
constexpr IPC::HandlerRecords entryListingRecords{LogCode::listEntriesWrongType, LogCode::listEntriesFailed,
                                                  Source::display, 102};
constexpr IPC::HandlerRecords recordListingRecords{LogCode::listRecordsWrongType, LogCode::listRecordsFailed,
                                                   Source::display, 221};

// The address that a request for its hours holds. A null one is refused too: nothing is ever kept for it.
IPAddress addressIn(IPC::Pdu const& request) {
    auto const raw = IPC::payloadAs<ip_addr_t>(request);
    if (!raw) {
        throw Exception("RecordHandler::task", Exception::failure, Source::display)
            .stringParameter("a request of " + std::to_string(request.data().length()) + " bytes, expected " +
                             std::to_string(sizeof(ip_addr_t)));
    }
    IPAddress const address(*raw);
    if (address.isNull()) {
        throw Exception("RecordHandler::task", Exception::failure, Source::display)
            .stringParameter("the address is neither IPv4 nor IPv6");
    }
    return address;
}

} // namespace

Packet::Packet(IPAddress const& client, RefEntry const& entry, long now, unsigned int firstPeriod)
    : address(client.asIpAddr()), score(entry->score(now, firstPeriod)),
      state(static_cast<std::uint32_t>(entry->state())), lastModified(entry->lastModified()) {}

EntryHandler::EntryHandler() : HandlerImpl(IPC::PduType::listReputations, true) {}

int EntryHandler::task(IPC::SocketIPC& client, IPC::Pdu const& request) const {
    return guarded(request, entryListingRecords, [&] {
        Cache const& cache = **RefCache::instance();
        SharedLock const holdEntries(Entry::s_lock); // until the end marker: the listing is one moment of the cache
        SharedLock const holdCache(cache.lock);
        long const now = std::time(nullptr);
        std::uint32_t const firstPeriod = Entry::firstPeriodAt(now);
        IPC::Listing listing(client, cache.sizeNoLock());
        cache.walk([&](Cache::Pair const& pair) VELLUM_NO_THREAD_SAFETY_ANALYSIS { // both are held
            return listing.send(IPC::PduType::reputationEntry, Packet(pair.first, pair.second, now, firstPeriod));
        });
        listing.end();
    });
}

RecordHandler::RecordHandler() : HandlerImpl(IPC::PduType::listReputationRecords, true) {}

int RecordHandler::task(IPC::SocketIPC& client, IPC::Pdu const& request) const {
    return guarded(request, recordListingRecords, [&] {
        IPAddress const address = addressIn(request);
        Cache const& cache = **RefCache::instance();
        SharedLock const holdEntries(Entry::s_lock);
        SharedLock const holdCache(cache.lock);
        IPC::RecordReply reply(client);
        Cache::iterator const found = cache.lookup(address);
        if (found != cache.end()) {
            for (auto const& [period, record] : found->second->records()) {
                reply.send(IPC::PduType::reputationRecord, RecordPacket(period, record));
            }
        }
        reply.end();
    });
}

void addEntryHandler() {
    IPC::addHandler<EntryHandler>();
}

void addRecordHandler() {
    IPC::addHandler<RecordHandler>();
}

} // namespace Vellum::Reputation
