// Sender reputation on port 29001: the reload after the tables were changed, and the request to set a state.
#pragma once

#include "foundation/ipc/Handler.h"

#include <cstddef>
#include <cstdint>

namespace Vellum::Reputation {

// Payload of PDU 13: 8 bytes. Offset, size, field:
//   0    4  address       IPv4, as in_addr.s_addr: network byte order
//   4    4  state         signed, host byte order; at most 3
struct SetStateRequest {
    std::uint32_t address;
    std::int32_t state;
};
static_assert(sizeof(SetStateRequest) == 8 && offsetof(SetStateRequest, state) == 4);

// Loads the cache from its tables again. Sends nothing.
class UpdatedHandler : public IPC::HandlerImpl {
  public:
    UpdatedHandler();
    int task(IPC::SocketIPC& client, IPC::Pdu const& request) const override;
};

// Checks the request and logs its address, and that is all: entries keep their states, which come from the tables only.
// It does not keep the state either, and sends nothing.
class SetStateHandler : public IPC::HandlerImpl {
  public:
    SetStateHandler();
    int task(IPC::SocketIPC& client, IPC::Pdu const& request) const override;
};

// Register the handlers with the dispatcher of port 29001.
void addUpdatedHandler();
void addSetStateHandler();

} // namespace Vellum::Reputation
