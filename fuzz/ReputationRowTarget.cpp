// A row of sender reputation's tables, a value in each line: the columns of both tables, as a load asks for them.
#include "fuzz/FuzzTarget.h"
#include "fuzz/Input.h"
#include "fuzz/OneRow.h"
#include "fuzz/Process.h"
#include "fuzz/SqlText.h"
#include "reputation/BackupScript.h"
#include "reputation/EntryRow.h"
#include "reputation/ReputationDatabase.h"

#include <limits>
#include <sstream>

namespace Vellum::Fuzz {
namespace {

using namespace Reputation;

// A counter beyond the column's range is stored as its end, and the log says so.
std::uint32_t stored(std::uint32_t counter) {
    return std::min<std::uint32_t>(counter, std::numeric_limits<std::int32_t>::max());
}

bool isStored(EntryRow const& as, EntryRow const& row) {
    return as.address == row.address && as.period == row.period && as.state == row.state &&
           as.messageCount == stored(row.messageCount) && as.recipients == stored(row.recipients) &&
           as.invalidRecipients == stored(row.invalidRecipients) && as.infected == stored(row.infected) &&
           as.spam == stored(row.spam);
}

void run(std::string_view input) {
    std::vector<std::string> values;
    for (Input lines(input); !lines.isAtEnd() && values.size() < 12;) {
        values.emplace_back(lines.line());
    }
    OneRow given(values);
    auto const row = given.parsed<EntryRow>();
    if (row.isNull()) {
        return;
    }
    Process::instance();
    AdapterRowToEntry()(row);
    BackupSnapshot const snapshot(**RefCache::instance());
    std::ostringstream script;
    BackupSnapshot::Rows const told = snapshot.write(script);
    require(told.records + told.leftOut == 1, "a row that is taken is one hour");
    auto const records = rowsOfScript(script.str(), recordsTable);
    auto const states = rowsOfScript(script.str(), statesTable);
    require(records.size() == told.records && states.size() == told.addresses, "a script holds what it says");
    if (!records.empty()) {
        require(states.size() == 1, "an address with hours has a state");
        std::vector<std::string> both = records.front();
        both.insert(both.end(), states.front().begin(), states.front().end());
        OneRow again(both);
        auto const reread = again.parsed<EntryRow>();
        require(!reread.isNull() && isStored(static_cast<EntryRow const&>(*reread), static_cast<EntryRow const&>(*row)),
                "what a backup writes is loaded as it was");
    }
}

Target const target("reputation_row", run);

} // namespace
} // namespace Vellum::Fuzz
