#include "reputation/BackupScript.h"

#include "foundation/MakeRoom.h"
#include "foundation/TextBlock.h"
#include "foundation/database/BatchedInsert.h"
#include "foundation/database/LeftOut.h"
#include "foundation/database/RowText.h"
#include "reputation/LogCodes.h"
#include "reputation/ReputationDatabase.h"

#include <chrono>
#include <limits>
#include <string>

namespace Vellum::Reputation {
namespace {

using Vellum::Database::BatchedInsert;
using Vellum::Database::clampedToInt;
using Vellum::Database::LeftOut;

constexpr std::uint32_t highestInt = std::numeric_limits<std::int32_t>::max();

BatchedInsert::Texts insertInto(std::string const& table) {
    BatchedInsert::Texts texts;
    texts.open = "\nINSERT INTO " + table + " VALUES";
    return texts;
}

// Of a row of either table, with what stands before it: an address text has at most 45 characters.
constexpr std::size_t longestRow = 64 + 6 * (TextBlock::longestNumber + 2);

// A row's beginning: what separates it from the one before, and its address, which needs no escaping.
void begin(TextBlock& text, BatchedInsert& batches, std::string const& address) {
    text.makeRoom(batches.longestBeforeRow() + longestRow);
    text.append(batches.textBeforeRow());
    text.append("\n('");
    text.append(address);
    text.append("', ");
}

std::string hourText(std::string const& address, std::uint32_t period) {
    return "period " + std::to_string(period) + " of address " + (address.empty() ? "(none)" : address);
}

char const* whyNotStorable(std::string const& address, std::uint32_t period) {
    if (address.empty()) { // a loader refuses an empty text, and the whole table with it
        return "it has no address";
    }
    return period > highestInt ? "the period is beyond the column's range" : nullptr;
}

} // namespace

BackupSnapshot::BackupSnapshot(Cache const& cache) {
    makeRoomFor(cache);
    SharedLock const holdEntries(Entry::s_lock);
    SharedLock const holdCache(cache.lock);
    auto const start = std::chrono::steady_clock::now();
    cache.walk([this](Cache::Pair const& pair) VELLUM_NO_THREAD_SAFETY_ANALYSIS { // both are held
        copy(pair);
        return true;
    });
    m_nanosecondsHeld =
        static_cast<std::uint64_t>(std::chrono::nanoseconds(std::chrono::steady_clock::now() - start).count());
}

// What may come until the locks are taken again is guessed; a wrong guess costs a page fault.
void BackupSnapshot::makeRoomFor(Cache const& cache) {
    std::size_t hours = 0;
    std::size_t addresses = 0;
    {
        SharedLock const holdEntries(Entry::s_lock);
        SharedLock const holdCache(cache.lock);
        addresses = cache.sizeNoLock();
        cache.walk([&hours](Cache::Pair const& pair) VELLUM_NO_THREAD_SAFETY_ANALYSIS {
            hours += pair.second->records().size();
            return true;
        });
    }
    makeRoom(m_addresses, addresses + addresses / 16 + 64);
    makeRoom(m_hours, hours + hours / 16 + 64);
}

void BackupSnapshot::copy(Cache::Pair const& pair) {
    Entry const& entry = *pair.second;
    for (auto const& [period, record] : entry.records()) {
        m_hours.push_back(
            {period, {record.messageCount, record.recipients, record.invalidRecipients, record.infected, record.spam}});
    }
    m_addresses.push_back({pair.first, entry.state(), m_hours.size()});
}

BackupSnapshot::Rows BackupSnapshot::write(std::ostream& out) const {
    LeftOut leftOut(LogCode::recordNotStored);
    out << "LOCK TABLES " << recordsTable << " WRITE," << statesTable << " WRITE;\n"
        << "delete from " << recordsTable << ";\n"
        << "delete from " << statesTable << ";\n";
    Rows rows;
    rows.records = writeRecords(out, leftOut);
    rows.addresses = writeStates(out);
    rows.leftOut = leftOut.count();
    out << "\nUNLOCK TABLES;\n";
    return rows;
}

std::uint64_t BackupSnapshot::writeRecords(std::ostream& out, LeftOut& leftOut) const {
    LeftOut cut(LogCode::recordNotStored, "counters", "cut");
    BatchedInsert batches(out, insertInto(recordsTable));
    TextBlock row(out);
    std::size_t hour = 0;
    for (Address const& address : m_addresses) {
        std::string const text = address.address.asString(true);
        for (; hour < address.endOfHours; ++hour) {
            auto const& [period, counters] = m_hours[hour];
            if (char const* reason = whyNotStorable(text, period)) {
                leftOut.add(hourText(text, period), reason);
                continue;
            }
            begin(row, batches, text);
            row.appendNumber(period);
            for (std::uint32_t const counter : counters) {
                if (counter > highestInt) {
                    cut.add("counter " + std::to_string(counter) + " in " + hourText(text, period),
                            "it is beyond the column's range, whose end is stored");
                }
                row.append(", ");
                row.appendNumber(clampedToInt(counter));
            }
            row.append(")");
        }
    }
    row.flush();
    batches.finish();
    leftOut.finish();
    cut.finish();
    return batches.rows();
}

// States come from an int column, so the same bits as an int are what they were there.
std::uint64_t BackupSnapshot::writeStates(std::ostream& out) const {
    BatchedInsert batches(out, insertInto(statesTable));
    TextBlock row(out);
    std::size_t firstHour = 0;
    for (Address const& address : m_addresses) {
        bool const holdsRecords = address.endOfHours != firstHour;
        firstHour = address.endOfHours;
        if (!holdsRecords || address.address.isNull()) {
            continue;
        }
        begin(row, batches, address.address.asString(true));
        row.appendNumber(static_cast<std::int32_t>(address.state));
        row.append(")");
    }
    row.flush();
    batches.finish();
    return batches.rows();
}

} // namespace Vellum::Reputation
