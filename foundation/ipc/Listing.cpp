#include "foundation/ipc/Listing.h"

#include <algorithm>
#include <cstdint>
#include <limits>

namespace Vellum::IPC {
namespace {

// Enough for whatever a client has to say during a listing.
constexpr unsigned int messageCapacity = 1024;

std::int32_t asCount(std::size_t count) {
    constexpr std::size_t most = std::numeric_limits<std::int32_t>::max();
    return static_cast<std::int32_t>(std::min(count, most));
}

} // namespace

void RecordReply::end() {
    m_client.send(PduType::endOfListing, nullptr, 0);
}

Listing::Listing(SocketIPC& client, std::size_t count) : m_client(client), m_records(client) {
    std::int32_t const records = asCount(count);
    client.send(PduType::count, &records, sizeof records);
}

bool Listing::stopReceived() {
    Pdu message(PduType::receiveBuffer, messageCapacity);
    m_client >> message;
    return message.is(PduType::endOfListing);
}

} // namespace Vellum::IPC
