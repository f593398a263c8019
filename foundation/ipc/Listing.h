// The two conversations in which a handler sends many records. A family supplies only the walk and the packet:
//
//   IPC::Listing listing(client, cache.size());
//   for (auto const& [id, status] : cache) {
//       if (!listing.send(IPC::PduType::tupleRecord, Packet(id, status, now))) {
//           break; // the client has seen enough
//       }
//   }
//   listing.end();
//
// When an exception passes, no end marker is sent: the client sees the connection end without it.
#pragma once

#include "foundation/ipc/SocketIPC.h"

#include <cstddef>
#include <type_traits>

namespace Vellum::IPC {

// Records, then the end marker.
class RecordReply {
  public:
    explicit RecordReply(SocketIPC& client) : m_client(client) {}

    // Sends one record. Throws Exception when the client is gone or takes nothing any more.
    template <class Packet>
    void send(PduType type, Packet const& packet) {
        static_assert(std::is_trivially_copyable_v<Packet>, "a packet travels as its bytes");
        m_client.send(type, &packet, sizeof packet);
    }
    // Sends the end marker: an empty unit of type 4.
    void end();

  private:
    SocketIPC& m_client;
};

// The count, records with a poll for a stop after each, then the end marker.
class Listing {
  public:
    // Sends the count. The walk may turn out longer or shorter; clients rely on the end marker only.
    Listing(SocketIPC& client, std::size_t count);

    // Sends one record, then reads a unit of the client if one is waiting. False when that was a stop (type 4): no
    // more records then, only end(). Any other unit is dropped.
    template <class Packet>
    bool send(PduType type, Packet const& packet) {
        m_records.send(type, packet);
        return !m_client.socket().dataWaiting() || !stopReceived();
    }
    void end() { m_records.end(); }

  private:
    bool stopReceived();

    SocketIPC& m_client;
    RecordReply m_records;
};

} // namespace Vellum::IPC
