// Sender rate control on port 29001: all senders with their totals, and the periods of one sender.
#pragma once

#include "foundation/EmailAddress.h"
#include "foundation/ipc/Handler.h"
#include "senderratecontrol/Entry.h"

#include <cstddef>
#include <cstdint>

namespace Vellum::SenderRateControl {

// Payload of PDU 29: 304 bytes, host byte order. Offset, size, field:
//   0    4  length        of the address, signed, at most 256
//   4  256  address       EmailAddress::asString(), cut at 256 characters; no NUL at its end
// 260   20  totals        of the five counters over half an hour, unsigned 32-bit each
// 280    4  unused
// 284    4  state         unsigned
// 288    8  blockedUntil  signed seconds since the epoch, 0 when not blocked
// 296    4  blockedReason counter, 1 to 5; 0 for none
// 300    4  padding
// What is not used is zero.
struct Packet {
    static constexpr std::size_t addressSize = 256;

    // Forgets the entry's periods before `firstPeriod`. The handle must not be empty. The caller holds Entry::s_lock,
    // shared at least.
    Packet(EmailAddress const& sender, RefEntry const& entry, unsigned int firstPeriod);

    std::int32_t length;
    char address[addressSize];
    SenderRateControlRecord totals;
    std::uint32_t unused;
    std::uint32_t state;
    std::int64_t blockedUntil;
    std::uint32_t blockedReason;
    std::uint32_t padding;
};
static_assert(sizeof(Packet) == 304 && offsetof(Packet, address) == 4 && offsetof(Packet, totals) == 260 &&
              offsetof(Packet, state) == 284 && offsetof(Packet, blockedUntil) == 288 &&
              offsetof(Packet, blockedReason) == 296);

// Payload of PDU 31: 28 bytes, host byte order. Offset, size, field:
//   0    4  period        seconds since the epoch, divided by 300
//   4   20  the five counters, unsigned 32-bit each
//  24    4  reserved      zero
struct RecordPacket {
    RecordPacket(std::uint32_t ofPeriod, Entry::Record const& ofRecord) : period(ofPeriod), record(ofRecord) {}

    std::uint32_t period;
    Entry::Record record;
};
static_assert(sizeof(RecordPacket) == 28 && offsetof(RecordPacket, record) == 4 &&
              offsetof(Entry::Record, reserved) == 20);

// Lists all senders: a count, one senderRateEntry each in ascending order of address, the end marker. Forgets the old
// periods of every sender that it sends. Holds Entry::s_lock and then the cache's lock shared until the end marker is
// sent.
class EntryHandler : public IPC::HandlerImpl {
  public:
    EntryHandler();
    int task(IPC::SocketIPC& client, IPC::Pdu const& request) const override;
};

// Sends the periods of the sender that the request's payload names, oldest first, old ones included, and the end
// marker; an unknown sender has none, and does not become known. A payload that is no mailbox gets no reply, and the
// connection goes on. Holds the same locks, in the same way.
class RecordHandler : public IPC::HandlerImpl {
  public:
    RecordHandler();
    int task(IPC::SocketIPC& client, IPC::Pdu const& request) const override;
    bool survivesFailure() const override { return true; }
};

// Register the handlers with the dispatcher of port 29001.
void addEntryHandler();
void addRecordHandler();

} // namespace Vellum::SenderRateControl
