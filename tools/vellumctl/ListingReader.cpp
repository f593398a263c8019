#include "tools/vellumctl/ListingReader.h"

#include "tools/vellumctl/Failure.h"

#include <algorithm>

namespace Vellum::Tools {

ListingReader::ListingReader(DaemonConnection& daemon, IPC::PduType request, IPC::PduType record,
                             std::string_view payload, bool counted)
    : m_daemon(daemon), m_recordType(record) {
    m_daemon.send(request, payload);
    if (!counted) {
        return;
    }
    IPC::Pdu const& first = m_daemon.receive();
    auto const count = IPC::payloadAs<std::int32_t>(first);
    if (!first.is(IPC::PduType::count) || !count) {
        m_daemon.unexpected(first);
    }
    m_count = static_cast<std::uint64_t>(std::max(*count, 0));
}

std::optional<std::string_view> ListingReader::next() {
    IPC::Pdu const& unit = m_daemon.receive();
    if (unit.is(IPC::PduType::endOfListing)) {
        return std::nullopt;
    }
    if (!unit.is(m_recordType)) {
        m_daemon.unexpected(unit);
    }
    ++m_received;
    return unit.data().view();
}

void ListingReader::stop() {
    try {
        if (m_received < m_count) {
            m_daemon.send(IPC::PduType::endOfListing);
        }
        while (!m_daemon.receive().is(IPC::PduType::endOfListing)) {
        }
    } catch (Failure const&) {
    }
}

} // namespace Vellum::Tools
