#include "greylist/GlDisplay.h"

#include "foundation/Logger.h"
#include "foundation/ipc/Dispatcher.h"
#include "foundation/ipc/Listing.h"
#include "greylist/Configuration.h"
#include "greylist/DynamicExemptCache.h"
#include "greylist/GlRecordDatabase.h"
#include "greylist/LogCodes.h"
#include "greylist/TupleCache.h"

#include <algorithm>
#include <cstring>
#include <ctime>

namespace Vellum::GreyList {
namespace {

// Lines are promised to log readers.
constexpr IPC::HandlerRecords tupleListingRecords{LogCode::listTuplesWrongType, LogCode::listTuplesFailed,
                                                  Source::display, 154};
constexpr IPC::HandlerRecords exemptionListingRecords{LogCode::listExemptionsWrongType, LogCode::listExemptionsFailed,
                                                      Source::display, 221};
constexpr IPC::HandlerRecords reloadRecords{LogCode::reloadWrongType, LogCode::reloadFailed, Source::recordDatabase,
                                            493};

// At most 256 characters and a NUL; the rest of the field is zero already.
void setText(char (&field)[Packet::textSize], std::string_view text) {
    std::memcpy(field, text.data(), std::min(text.size(), sizeof field - 1));
}

long delaySeconds() {
    return RefConfiguration::instance(nullptr)->greylistMinutes() * 60L;
}

// Sends every pair of `cache` as what `packet` makes of it and of the time, which is read when the lock is there.
template <class Cache, class MakePacket>
void list(IPC::SocketIPC& client, Cache const& cache, IPC::PduType recordType, MakePacket packet) {
    SharedLock const hold(cache.lock); // until the end marker: the listing is one moment of the cache
    IPC::Listing listing(client, cache.sizeNoLock());
    long const now = std::time(nullptr);
    cache.forEachInKeyOrder([&](auto const& pair) { return listing.send(recordType, packet(pair, now)); });
    listing.end();
}

} // namespace

Packet::Packet(TupleId const& id, Status const& status, long now) {
    std::memset(static_cast<void*>(this), 0, sizeof *this);
    IPAddressMask const mask = id->mask();
    passed = status.firstSeen + delaySeconds() <= now ? 1 : 0;
    address = mask.prefix().asIpAddr();
    prefixLength = mask.cidr();
    setText(sender, id->senderAddress());
    setText(recipient, id->recipientAddress());
    passTime = status.firstSeen + delaySeconds();
    expiry = status.expiry;
}

Packet::Packet(DynamicExemptId const& id, Status const& status) {
    std::memset(static_cast<void*>(this), 0, sizeof *this);
    address = id->mask().prefix().asIpAddr();
    prefixLength = id->mask().cidr();
    setText(sender, id->domain());
    expiry = status.expiry;
}

RecordHandler::RecordHandler() : HandlerImpl(IPC::PduType::listTuples, true) {}

int RecordHandler::task(IPC::SocketIPC& client, IPC::Pdu const& request) const {
    return guarded(request, tupleListingRecords, [&] {
        _TupleCache const& cache = **TupleCache::instance();
        list(client, cache, IPC::PduType::tupleRecord,
             [](auto const& pair, long now) { return Packet(pair.first, pair.second, now); });
    });
}

AutoExemptHandler::AutoExemptHandler() : HandlerImpl(IPC::PduType::listExemptions, true) {}

int AutoExemptHandler::task(IPC::SocketIPC& client, IPC::Pdu const& request) const {
    return guarded(request, exemptionListingRecords, [&] {
        _DynamicExemptCache const& cache = **DynamicExemptCache::instance();
        list(client, cache, IPC::PduType::exemptionRecord,
             [](auto const& pair, long) { return Packet(pair.first, pair.second); });
    });
}

UpdatedHandler::UpdatedHandler() : HandlerImpl(IPC::PduType::reloadGreylist, true) {}

int UpdatedHandler::task(IPC::SocketIPC&, IPC::Pdu const& request) const {
    return guarded(request, reloadRecords, [] {
        GlRecordDatabase database(Database::Connection::defaultAddress());
        database.read();
        Logger::instance(false).log(LogCode::reloadDone, 0, formatText, " ");
    });
}

void addRecordHandler() {
    IPC::addHandler<RecordHandler>();
    IPC::addHandler<AutoExemptHandler>();
}

void addUpdatedHandler() {
    IPC::addHandler<UpdatedHandler>();
}

} // namespace Vellum::GreyList
