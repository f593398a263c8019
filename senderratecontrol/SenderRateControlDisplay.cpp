#include "senderratecontrol/SenderRateControlDisplay.h"

#include "foundation/ipc/Dispatcher.h"
#include "foundation/ipc/Listing.h"
#include "senderratecontrol/LogCodes.h"
#include "senderratecontrol/SenderRateControlCache.h"

#include <algorithm>
#include <cstring>
#include <ctime>

namespace Vellum::SenderRateControl {
namespace {

// Lines are promised to log readers.
constexpr IPC::HandlerRecords entryRecords{LogCode::wrongType, LogCode::requestFailed, Source::display, 110,
                                           Signature::entryTask};
constexpr IPC::HandlerRecords recordRecords{LogCode::wrongType, LogCode::requestFailed, Source::display, 221,
                                            Signature::recordTask};

} // namespace

// The analysis does not see the caller's hold through a listing's lambda.
Packet::Packet(EmailAddress const& sender, RefEntry const& entry, unsigned int firstPeriod)
    VELLUM_NO_THREAD_SAFETY_ANALYSIS {
    std::memset(static_cast<void*>(this), 0, sizeof *this);
    std::string const text = sender.asString();
    std::size_t const used = std::min(text.size(), addressSize);
    length = static_cast<std::int32_t>(used);
    std::memcpy(address, text.data(), used);
    entry->totalsNoLock(firstPeriod, totals);
    state = static_cast<std::uint32_t>(entry->state());
    blockedUntil = entry->blockedUntil();
    blockedReason = entry->blockedReason();
}

EntryHandler::EntryHandler() : HandlerImpl(IPC::PduType::listSenderRates, true) {}

int EntryHandler::task(IPC::SocketIPC& client, IPC::Pdu const& request) const {
    return guarded(request, entryRecords, [&] {
        Cache const& cache = **RefCache::instance();
        SharedLock const entries(Entry::s_lock); // both until the end marker: the listing is one moment of the cache
        SharedLock const hold(cache.lock);
        unsigned int const firstPeriod = firstPeriodAt(std::time(nullptr));
        IPC::Listing listing(client, cache.sizeNoLock());
        cache.forEachInKeyOrder([&](auto const& pair) {
            return listing.send(IPC::PduType::senderRateEntry, Packet(pair.first, pair.second, firstPeriod));
        });
        listing.end();
    });
}

RecordHandler::RecordHandler() : HandlerImpl(IPC::PduType::listSenderRateRecords, true) {}

int RecordHandler::task(IPC::SocketIPC& client, IPC::Pdu const& request) const {
    return guarded(request, recordRecords, [&] {
        EmailAddress const sender = EmailAddress::rfc5321Parse(IPC::payloadText(request), false);
        Cache const& cache = **RefCache::instance();
        SharedLock const entries(Entry::s_lock);
        SharedLock const hold(cache.lock);
        IPC::RecordReply reply(client);
        if (auto const found = cache.lookup(sender); found != cache.end()) {
            for (auto const& [period, record] : found->second->records()) {
                reply.send(IPC::PduType::senderRateRecord, RecordPacket(period, record));
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

} // namespace Vellum::SenderRateControl
