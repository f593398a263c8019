// Greylisting on port 29001: listings of both caches, and the reload after the tables were changed.
#pragma once

#include "foundation/IPAddress.h"
#include "foundation/ipc/Handler.h"
#include "greylist/DynamicExemptId.h"
#include "greylist/Status.h"
#include "greylist/TupleId.h"

#include <cstddef>
#include <cstdint>

namespace Vellum::GreyList {

// Payload of PDU 6 (tuple) and PDU 8 (dynamic exemption): 560 bytes, host byte order. Offset, size, field:
//   0    1  passed        1 once the delay is over (tuples only)
//   1    3  padding
//   4   20  address       network address, as ip_addr_t
//  24    4  prefixLength  bits
//  28  257  sender        of a tuple, or the domain of an exemption: NUL-padded, cut at 256 characters
// 285  257  recipient     likewise (tuples only)
// 542    2  padding
// 544    8  passTime      seconds since the epoch (tuples only)
// 552    8  expiry        seconds since the epoch
// What a record does not use, and the padding, is zero.
struct Packet {
    static constexpr std::size_t textSize = 257;

    // Reads the delay from the configuration, once for `passed` and once for `passTime`. The handle must not be empty.
    Packet(TupleId const& id, Status const& status, long now);
    Packet(DynamicExemptId const& id, Status const& status);

    std::uint8_t passed;
    std::uint8_t padding1[3];
    ip_addr_t address;
    std::uint32_t prefixLength;
    char sender[textSize];
    char recipient[textSize];
    char padding2[2];
    std::int64_t passTime;
    std::int64_t expiry;
};
static_assert(sizeof(Packet) == 560 && offsetof(Packet, address) == 4 && offsetof(Packet, prefixLength) == 24 &&
              offsetof(Packet, sender) == 28 && offsetof(Packet, recipient) == 285 &&
              offsetof(Packet, passTime) == 544 && offsetof(Packet, expiry) == 552);

// Lists the tuple cache: a count, one tupleRecord each in key order, the end marker. Expired tuples are listed too: the
// client judges by the times. Holds the cache's lock shared until the end marker is sent.
class RecordHandler : public IPC::HandlerImpl {
  public:
    RecordHandler();
    int task(IPC::SocketIPC& client, IPC::Pdu const& request) const override;
};

// Lists the dynamic-exempt cache, in the same way.
class AutoExemptHandler : public IPC::HandlerImpl {
  public:
    AutoExemptHandler();
    int task(IPC::SocketIPC& client, IPC::Pdu const& request) const override;
};

// Loads both caches from their tables again. Sends nothing.
class UpdatedHandler : public IPC::HandlerImpl {
  public:
    UpdatedHandler();
    int task(IPC::SocketIPC& client, IPC::Pdu const& request) const override;
};

// Register the handlers with the dispatcher of port 29001: both listings, and the reload.
void addRecordHandler();
void addUpdatedHandler();

} // namespace Vellum::GreyList
