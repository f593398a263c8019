#include "senderratecontrol/SenderRateControlDisplay.h"

#include "foundation/ipc/Dispatcher.h"
#include "foundation/ipc/Listing.h"
#include "senderratecontrol/LogCodes.h"
#include "senderratecontrol/SenderRateControlCache.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>

namespace Vellum::SenderRateControl {
namespace {

// Lines are promised to log readers.
constexpr IPC::HandlerRecords entryRecords{LogCode::wrongType, LogCode::requestFailed, Source::display, 110,
                                           Signature::entryTask};
constexpr IPC::HandlerRecords recordRecords{LogCode::wrongType, LogCode::requestFailed, Source::display, 221,
                                            Signature::recordTask};

// Out of line: the compiler knows how long these can be at most, and would write instructions for them that take longer
// to begin than the library's functions take as a whole.
__attribute__((noinline)) void copyBytes(void* to, void const* from, std::size_t length) {
    std::memcpy(to, from, length);
}
__attribute__((noinline)) void zeroBytes(void* to, std::size_t length) {
    std::memset(to, 0, length);
}

// Sends the senders that it is given, eight behind the walk at least: what they point at lies all over the memory,
// and is asked for before it is needed. Without that a listing waits for memory most of the time.
class SenderWindow {
  public:
    SenderWindow(IPC::Listing& listing, unsigned int firstPeriod) : m_listing(listing), m_firstPeriod(firstPeriod) {}

    // False when the client wants no more.
    bool add(Cache::Pair const& pair) {
        Entry const* const entry = pair.second.operator->();
        std::string const& text = pair.first.address();
        __builtin_prefetch(text.data());
        __builtin_prefetch(text.data() + text.size());
        __builtin_prefetch(reinterpret_cast<char const*>(entry) + sizeof(Entry) / 2);
        __builtin_prefetch(reinterpret_cast<char const*>(entry + 1) - 1);
        m_coming.pairs[m_coming.count] = &pair;
        m_coming.entries[m_coming.count] = entry;
        return ++m_coming.count < batchSize || shift();
    }
    // Sends what is left.
    void finish() {
        if (shift()) {
            send();
        }
    }

  private:
    static constexpr std::size_t batchSize = 8;
    struct Batch {
        std::array<Cache::Pair const*, batchSize> pairs{};
        std::array<Entry const*, batchSize> entries{};
        std::size_t count = 0;
    };

    bool shift() {
        Entry::prefetchRecords(m_coming.entries.data(), m_coming.count);
        bool const wanted = send();
        m_ready = m_coming;
        m_coming.count = 0;
        return wanted;
    }
    bool send() {
        for (std::size_t n = 0; n < m_ready.count; ++n) {
            Packet const packet(m_ready.pairs[n]->first, m_ready.pairs[n]->second, m_firstPeriod);
            if (!m_listing.send(IPC::PduType::senderRateEntry, packet)) {
                return false;
            }
        }
        return true;
    }

    IPC::Listing& m_listing;
    unsigned int m_firstPeriod;
    Batch m_coming; // asked for
    Batch m_ready;  // on their way for a while
};

} // namespace

// The analysis does not see the caller's hold through a listing's lambda.
Packet::Packet(EmailAddress const& sender, RefEntry const& entry, unsigned int firstPeriod)
    VELLUM_NO_THREAD_SAFETY_ANALYSIS {
    zeroBytes(this, sizeof *this);
    static std::string const nullText = EmailAddress().asString();
    std::string const& text = sender.isNull() ? nullText : sender.address(); // as asString(), without a copy
    std::size_t const used = std::min(text.size(), addressSize);
    length = static_cast<std::int32_t>(used);
    copyBytes(address, text.data(), used);
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
        SenderWindow window(listing, firstPeriod);
        bool wanted = true;
        cache.forEachInKeyOrder([&](auto const& pair) { return wanted = window.add(pair); });
        if (wanted) {
            window.finish();
        }
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
