#include "reputation/EntryRow.h"

#include "foundation/Exception.h"
#include "foundation/LoggedFailure.h"
#include "foundation/database/Columns.h"
#include "reputation/LogCodes.h"

namespace Vellum::Reputation {
namespace {

constexpr unsigned int emptyColumnLine = 39; // promised to log readers
constexpr int columnsOfBothTables = 9;

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
    address = IPAddress(columns.text(0));
    period = number(1);
    messageCount = number(2);
    recipients = number(3);
    invalidRecipients = number(4);
    infected = number(5);
    spam = number(6);
    state = number(8); // column 7 is the address once more
    return true;
}

void AdapterRowToEntry::operator()(Ref<Vellum::Database::RowImpl> const& row) const {
    doneOrLogged(LogCode::rowNotAdded, [&] {
        auto const& hour = static_cast<EntryRow const&>(*row);
        RefEntry const entry = m_cache.entry(hour.address);
        entry->state(static_cast<ReputationState>(hour.state));
        entry->add(hour.period, {hour.messageCount, hour.recipients, hour.invalidRecipients, hour.infected, hour.spam});
    });
}

} // namespace Vellum::Reputation
