// Endpoint reputation on port 29001: the listing, the score table, the removal of an entry, the reload of the tables.
#pragma once

#include "foundation/RelaxedTime.h"
#include "foundation/ipc/Handler.h"
#include "mmsreputation/vellum_mms_reputation.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Vellum::MMSReputation {

// Payload of PDU 22, and what the display's callback is handed; its layout is in the C header.
using DisplayPacket = mms_reputation_display_packet;
static_assert(sizeof(DisplayPacket) == 48 && offsetof(DisplayPacket, score) == 36 &&
              offsetof(DisplayPacket, expiry) == 40);

// The number is cut at 35 characters; what is behind its NUL is zero.
DisplayPacket displayPacket(std::string_view number, std::uint32_t score, std::int64_t expiry);

// Loads the cache or its lists from the tables again. The payload is empty or a uint32 (bytes behind it are ignored):
// what to load, as RefCache::instance() takes it; everything unless said. A payload of one to three bytes is refused.
// Sends nothing.
class UpdatedHandler : public IPC::HandlerImpl {
  public:
    UpdatedHandler();
    int task(IPC::SocketIPC& client, IPC::Pdu const& request) const override;
};

// Lists the entries: a count, one endpointEntry each in ascending order of number, the end marker. Without a cache the
// count is 0. Holds Entry::s_mutex and the cache's lock shared until the end marker is sent, so what a client gets is
// one moment; a message that begins a new time slice waits for the end of it.
class EntryRetrievalHandler : public IPC::HandlerImpl {
  public:
    EntryRetrievalHandler();
    int task(IPC::SocketIPC& client, IPC::Pdu const& request) const override;
};

// When the score table may be written again.
struct ScoreTable {
    static constexpr long secondsBetweenRefreshes = 300;
    static RelaxedTime nextRefresh; // seconds since the epoch
};

// Rebuilds the score table from the cache, at most once in 300 seconds; answers with the end marker when the table is
// there. The entries are copied under Entry::s_mutex and the cache's lock, shared; file and database are waited for
// afterwards, so that no message does. One refresh at a time: a second request waits, and finds the table just written.
class EntryBatchRetrievalHandler : public IPC::HandlerImpl {
  public:
    // Its directory belongs to the user that this process runs as, and to nobody else; anything else is refused.
    static constexpr char const* dumpPath = "/var/spool/tmp/mms_repuation_score.txt";

    // Tests dump elsewhere.
    explicit EntryBatchRetrievalHandler(std::string path = dumpPath);
    int task(IPC::SocketIPC& client, IPC::Pdu const& request) const override;

  private:
    void refresh(IPC::SocketIPC& client) const;

    std::string const m_path;
};

// Removes one subscriber's entry; the payload is the number. An empty payload, a text that is no number, a number
// without an entry, and a process without a cache: nothing is done. The lists are not touched. Sends nothing.
class EntryRemovalHandler : public IPC::HandlerImpl {
  public:
    EntryRemovalHandler();
    int task(IPC::SocketIPC& client, IPC::Pdu const& request) const override;
};

// Register the handlers with the dispatcher of port 29001: the reload; the listing and the score table; the removal.
void addUpdatedHandler();
void addEntryRetrievalHandler();
void addEntryRemovalHandler();

} // namespace Vellum::MMSReputation
