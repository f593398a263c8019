#include "reputation/EntryRow.h"

#include "foundation/Exception.h"
#include "foundation/LoggedFailure.h"
#include "foundation/database/Columns.h"
#include "reputation/LogCodes.h"

#include <string>
#include <string_view>

namespace Vellum::Reputation {
namespace {

constexpr unsigned int emptyColumnLine = 39; // promised to log readers
constexpr int columnsOfBothTables = 9;

// The hours of an address mostly come one after the other, so a row's address is nearly always that of the row before.
IPAddress const& parsed(std::string_view text) {
    thread_local std::string lastText;
    thread_local IPAddress last;
    if (text != lastText) {
        last = IPAddress(std::string(text));
        lastText = text;
    }
    return last;
}

} // namespace

bool EntryRow::parse(void* handle, void* result, void* row) {
    Vellum::Database::Columns const columns{handle, result, row};
    if (columns.haveEmpty(columnsOfBothTables)) {
        throw Exception("EntryRow", Exception::failure, Source::database, emptyColumnLine)
            .stringParameter("Invalid SenderReputation Entry")
            .stringParameter("the row " + columns.shown());
    }
    auto const number = [&](int column) {
        return static_cast<std::uint32_t>(columns.number(column));
    };
    address = parsed(columns.text(0));
    period = number(1);
    messageCount = number(2);
    recipients = number(3);
    invalidRecipients = number(4);
    infected = number(5);
    spam = number(6);
    state = number(8); // column 7 is the address once more
    return true;
}

RefEntry const& AdapterRowToEntry::entryOf(IPAddress const& address) {
    if (m_entry.isNull() || !(m_address == address)) {
        m_entry = m_cache.entry(address);
        m_address = address;
    }
    return m_entry;
}

void AdapterRowToEntry::operator()(Ref<Vellum::Database::RowImpl> const& row) {
    doneOrLogged(LogCode::rowNotAdded, [&] {
        auto const& hour = static_cast<EntryRow const&>(*row);
        RefEntry const& entry = entryOf(hour.address);
        auto const state = static_cast<ReputationState>(hour.state);
        if (entry->state() != state) {
            entry->state(state);
        }
        entry->add(hour.period, {hour.messageCount, hour.recipients, hour.invalidRecipients, hour.infected, hour.spam});
    });
}

} // namespace Vellum::Reputation
