#include "mmsreputation/MMSReputationDisplay.h"

#include "foundation/Locks.h"
#include "foundation/Logger.h"
#include "foundation/RecordFormats.h"
#include "foundation/ipc/Dispatcher.h"
#include "foundation/ipc/Listing.h"
#include "mmsreputation/LogCodes.h"
#include "mmsreputation/MMSReputationDatabase.h"
#include "mmsreputation/RefCache.h"
#include "mmsreputation/ScoreDump.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <utility>

namespace Vellum::MMSReputation {
namespace {

// Lines are promised to log readers.
constexpr IPC::HandlerRecords reloadRecords{LogCode::reloadWrongType, LogCode::reloadFailed, Source::database, 609};
constexpr IPC::HandlerRecords listRecords{LogCode::listWrongType, LogCode::listFailed, Source::display, 110};
constexpr IPC::HandlerRecords scoresRecords{LogCode::scoresWrongType, LogCode::scoresFailed, Source::display, 179};
constexpr IPC::HandlerRecords removeRecords{LogCode::removeWrongType, LogCode::removeFailed, Source::reputation, 380};

RefCache currentCache() {
    return RefCache::instance(nullptr, Select::everything);
}

unsigned int selectorOf(IPC::Pdu const& request) {
    if (request.data().length() == 0) {
        return Select::everything;
    }
    auto const selector = IPC::payloadAs<std::uint32_t>(request);
    if (!selector) {
        throw Exception("EndpointReputation::UpdatedHandler", Exception::failure, Source::database)
            .stringParameter("a selector of " + std::to_string(request.data().length()) + " bytes, expected 4");
    }
    return *selector;
}

void sendEntries(IPC::SocketIPC& client, Cache const& cache) {
    SharedLock const holdEntries(Entry::s_mutex); // both until the end marker: the listing is one moment of the cache
    SharedLock const hold(cache.lock);
    IPC::Listing listing(client, cache.sizeNoLock());
    if (cache.sizeNoLock() > 0) {
        std::uint32_t const slice = Period(0, 0, Period::slicesPerWindow).index;
        cache.forEachInKeyOrder([&](auto const& pair) {
            RefEntry const& entry = pair.second;
            return entry.isNull() || listing.send(IPC::PduType::endpointEntry,
                                                  displayPacket(pair.first.asString(), entry->score(slice, false),
                                                                entry->blacklistExpiry()));
        });
    }
    listing.end();
}

void rebuildScoreTable(std::string const& dumpPath) {
    ScoreDump const dump(dumpPath, ScoreSnapshot(*currentCache()));
    Database database(Vellum::Database::Connection::defaultAddress());
    database.loadDataIntoTable(scoreTable, dump.path());
}

} // namespace

RelaxedTime ScoreTable::nextRefresh;

DisplayPacket displayPacket(std::string_view number, std::uint32_t score, std::int64_t expiry) {
    DisplayPacket packet{};
    std::memcpy(packet.msisdn, number.data(), std::min(number.size(), sizeof packet.msisdn - 1));
    packet.score = score;
    packet.expiry = expiry;
    return packet;
}

UpdatedHandler::UpdatedHandler() : HandlerImpl(IPC::PduType::reloadEndpoints, true) {}

int UpdatedHandler::task(IPC::SocketIPC&, IPC::Pdu const& request) const {
    return guarded(request, reloadRecords, [&] {
        unsigned int const what = selectorOf(request);
        Database database(Vellum::Database::Connection::defaultAddress());
        RefCache::instance(&database, what);
        Logger::instance(false).log(LogCode::reloadDone, 0, formatText, " ");
    });
}

EntryRetrievalHandler::EntryRetrievalHandler() : HandlerImpl(IPC::PduType::listEndpoints, true) {}

int EntryRetrievalHandler::task(IPC::SocketIPC& client, IPC::Pdu const& request) const {
    return guarded(request, listRecords, [&] {
        RefCache const cache = currentCache();
        if (cache.isNull()) {
            IPC::Listing(client, 0).end();
        } else {
            sendEntries(client, *cache);
        }
    });
}

EntryBatchRetrievalHandler::EntryBatchRetrievalHandler(std::string path)
    : HandlerImpl(IPC::PduType::rebuildEndpointScores, true), m_path(std::move(path)) {}

int EntryBatchRetrievalHandler::task(IPC::SocketIPC& client, IPC::Pdu const& request) const {
    return guarded(request, scoresRecords, [&] { refresh(client); });
}

void EntryBatchRetrievalHandler::refresh(IPC::SocketIPC& client) const {
    static Mutex& oneAtATime = *new Mutex; // they all write the same file; workers may outlive main()
    Synchronized const hold(oneAtATime);
    long const now = std::time(nullptr);
    if (now < ScoreTable::nextRefresh) {
        IPC::RecordReply(client).end();
        return;
    }
    rebuildScoreTable(m_path);
    IPC::RecordReply(client).end();
    ScoreTable::nextRefresh = now + ScoreTable::secondsBetweenRefreshes;
}

EntryRemovalHandler::EntryRemovalHandler() : HandlerImpl(IPC::PduType::removeEndpoint, false) {}

int EntryRemovalHandler::task(IPC::SocketIPC&, IPC::Pdu const& request) const {
    return guarded(request, removeRecords, [&] {
        MSISDN const number(IPC::payloadText(request));
        if (number.isNull()) {
            return;
        }
        RefCache const cache = currentCache();
        if (!cache.isNull()) {
            cache->remove(number);
            Logger::instance(false).note(Logger::Severity::info, "action=remove, subscriber=" + number.asString());
        }
    });
}

void addUpdatedHandler() {
    IPC::addHandler<UpdatedHandler>();
}

void addEntryRetrievalHandler() {
    IPC::addHandler<EntryRetrievalHandler>();
    IPC::addHandler<EntryBatchRetrievalHandler>();
}

void addEntryRemovalHandler() {
    IPC::addHandler<EntryRemovalHandler>();
}

} // namespace Vellum::MMSReputation
