// A row of the endpoint tables: a line that names the table, then a value in each line.
#include "fuzz/FuzzTarget.h"
#include "fuzz/Input.h"
#include "fuzz/OneRow.h"
#include "fuzz/Process.h"
#include "fuzz/SqlText.h"
#include "mmsreputation/BackupScript.h"
#include "mmsreputation/MMSReputationDatabase.h"
#include "mmsreputation/Period.h"
#include "mmsreputation/Rows.h"

#include <algorithm>
#include <limits>
#include <sstream>

namespace Vellum::Fuzz {
namespace {

using namespace MMSReputation;

constexpr std::int64_t highestInt = std::numeric_limits<std::int32_t>::max();

// An entry as a load makes one; its expiry keeps it from being purged.
void checkEntry(EntryRow const& row) {
    Process::instance();
    MMSReputation::RefCache const cache = MMSReputation::RefCache::instance(nullptr, Select::everything);
    RefEntry const entry = cache->entry(row.msisdn, 0, true);
    entry->add(Period(row.period), Entry::Record(row.spam, row.infected));
    entry->blacklistExpiry(highestInt);
    std::ostringstream script;
    BackupSnapshot::Rows const told = BackupSnapshot(*cache).write(script);
    auto const records = rowsOfScript(script.str(), recordTable);
    auto const expiries = rowsOfScript(script.str(), expiryTable);
    require(records.size() == told.records && expiries.size() == told.subscribers, "a script holds what it says");
    require(records.size() + told.leftOut <= 1, "a row that is taken is one slice");
    for (auto const& values : records) {
        require(expiries.size() == 1, "a subscriber with slices has an expiry");
        OneRow again({values.at(0), values.at(1), values.at(2), values.at(3), expiries.front().at(1)});
        auto const reread = again.parsed<EntryRow>();
        require(!reread.isNull(), "what a backup writes is loaded");
        auto const& is = static_cast<EntryRow const&>(*reread);
        require(is.msisdn == row.msisdn && is.period == row.period &&
                    is.spam == std::min<std::int64_t>(row.spam, highestInt) &&
                    is.infected == std::min<std::int64_t>(row.infected, highestInt) && is.expiry == highestInt,
                "what a backup writes is loaded as it was");
    }
}

template <class Row>
void checkNumber(Row const& row) {
    require(row.msisdn.isNull() || row.written.empty(), "what a column holds is told where it is no number");
}

void run(std::string_view input) {
    Input lines(input);
    std::string_view const table = lines.line();
    std::vector<std::string> values;
    while (!lines.isAtEnd() && values.size() < 8) {
        values.emplace_back(lines.line());
    }
    OneRow given(values);
    if (table == recordTable) {
        if (auto const row = given.parsed<EntryRow>(); !row.isNull()) {
            auto const& entry = static_cast<EntryRow const&>(*row);
            checkNumber(entry);
            if (!entry.msisdn.isNull()) {
                checkEntry(entry);
            }
        }
    } else if (auto const score = given.parsed<MSISDNScoreRow>(); !score.isNull()) {
        checkNumber(static_cast<MSISDNScoreRow const&>(*score));
    } else if (auto const number = given.parsed<MSISDNRow>(); !number.isNull()) {
        checkNumber(static_cast<MSISDNRow const&>(*number));
    }
}

Target const target("endpoint_row", run);

} // namespace
} // namespace Vellum::Fuzz
