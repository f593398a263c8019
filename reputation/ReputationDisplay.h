// Listings of sender reputation on port 29001: all addresses with their scores, and the hours of one address.
#pragma once

#include "foundation/IPAddress.h"
#include "foundation/ipc/Handler.h"
#include "reputation/ReputationEntry.h"

#include <cstddef>
#include <cstdint>

namespace Vellum::Reputation {

// Payload of PDU 11: 40 bytes, host byte order. Offset, size, field:
//   0   20  address       as ip_addr_t
//  20    4  score         0 to 100, as seen at the listing's begin
//  24    4  state         unsigned
//  28    4  padding       zero
//  32    8  lastModified  seconds since the epoch, signed
struct Packet {
    // The handle must not be empty.
    Packet(IPAddress const& client, RefEntry const& entry, long now, unsigned int firstPeriod)
        VELLUM_REQUIRES_SHARED(Entry::s_lock);

    ip_addr_t address;
    std::uint32_t score;
    std::uint32_t state;
    std::uint32_t padding = 0;
    std::int64_t lastModified;
};
static_assert(sizeof(Packet) == 40 && offsetof(Packet, score) == 20 && offsetof(Packet, state) == 24 &&
              offsetof(Packet, lastModified) == 32);

// Payload of PDU 27: 40 bytes, host byte order. Offset, size, field:
//   0    4  period        hours since the epoch, unsigned
//   4   36  counters      nine, unsigned 32-bit, in slot order: Entry::Record
struct RecordPacket {
    RecordPacket(unsigned int hour, Entry::Record const& record) : period(hour), counters(record) {}

    std::uint32_t period;
    Entry::Record counters;
};
static_assert(sizeof(RecordPacket) == 40 && offsetof(RecordPacket, counters) == 4);

// Lists every cached address in ascending order: a count, a reputationEntry each, the end marker. Makes no entries,
// drops no hours, counts as no use. Holds Entry::s_lock and the cache's lock shared, in this order, until the end
// marker is sent.
class EntryHandler : public IPC::HandlerImpl {
  public:
    EntryHandler();
    int task(IPC::SocketIPC& client, IPC::Pdu const& request) const override;
};

// Lists the hours of the address in the request: a reputationRecord each, in ascending order, then the end marker,
// which is all that comes for an address that is not cached. Makes no entry. Locks as EntryHandler does. A request that
// is shorter than an address, or whose address is neither IPv4 nor IPv6, is refused with the record of a failure.
class RecordHandler : public IPC::HandlerImpl {
  public:
    RecordHandler();
    int task(IPC::SocketIPC& client, IPC::Pdu const& request) const override;
};

// Register the handlers with the dispatcher of port 29001.
void addEntryHandler();
void addRecordHandler();

} // namespace Vellum::Reputation
