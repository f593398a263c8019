// The units of one listing, in their order.
#pragma once

#include "tools/vellumctl/DaemonConnection.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace Vellum::Tools {

// Every operation throws Failure.
class ListingReader {
  public:
    // Sends the request. A listing begins with a count, which the constructor then receives; where `counted` is false
    // the records come at once.
    ListingReader(DaemonConnection& daemon, IPC::PduType request, IPC::PduType record, std::string_view payload = {},
                  bool counted = true);

    // The payload of the next record, valid until the next call; nothing at the end marker.
    std::optional<std::string_view> next();
    // Asks for no more records, and reads those that are on the way. A connection that ends meanwhile takes nothing
    // away from what was asked for. Never throws.
    void stop();

    std::uint64_t count() const { return m_count; } // as the daemon has said before the first record
    std::uint64_t received() const { return m_received; }

  private:
    DaemonConnection& m_daemon;
    IPC::PduType m_recordType;
    std::uint64_t m_count = 0;
    std::uint64_t m_received = 0;
};

} // namespace Vellum::Tools
