#include "mmsreputation/BackupScript.h"

#include "foundation/database/BatchedInsert.h"
#include "foundation/database/LeftOut.h"
#include "foundation/database/RowText.h"
#include "mmsreputation/LogCodes.h"
#include "mmsreputation/MMSReputationDatabase.h"

#include <limits>
#include <string>

namespace Vellum::MMSReputation {
namespace {

using Vellum::Database::appendNumber;
using Vellum::Database::BatchedInsert;
using Vellum::Database::clampedToInt;
using Vellum::Database::LeftOut;

// Null for a number that a column takes as it is.
char const* whyNotStorable(MSISDN const& number) {
    if (number.isNull()) {
        return "it has no number"; // an empty one would make the table unreadable
    }
    return number.asString().size() > columnSize ? "the number is longer than the column" : nullptr;
}

BatchedInsert::Texts insertInto(std::string const& table) {
    BatchedInsert::Texts texts;
    texts.open = "\nINSERT INTO " + table + " VALUES";
    return texts;
}

} // namespace

BackupSnapshot::BackupSnapshot(Cache& cache) {
    ExclusiveLock const holdEntries(Entry::s_mutex);
    ExclusiveLock const hold(cache.lock);
    cache.purge(false);
    m_subscribers.reserve(cache.sizeNoLock());
    m_slices.reserve(cache.sizeNoLock() * Entry::mostRecords);
    cache.forEachInKeyOrder([this](auto const& pair) VELLUM_NO_THREAD_SAFETY_ANALYSIS {
        Entry const* entry = pair.second.get();
        if (entry != nullptr && !entry->records().empty()) {
            m_subscribers.push_back({pair.first, entry->blacklistExpiry(), m_slices.size()});
            for (auto const& [period, record] : entry->records()) {
                m_slices.push_back({period, record.spam, record.infected});
            }
        }
        return true;
    });
}

std::size_t BackupSnapshot::endOf(std::size_t subscriber) const {
    return subscriber + 1 < m_subscribers.size() ? m_subscribers[subscriber + 1].first : m_slices.size();
}

BackupSnapshot::Rows BackupSnapshot::write(std::ostream& out) const {
    LeftOut leftOut(LogCode::passedOver);
    out << "LOCK TABLES " << recordTable << " WRITE," << expiryTable << " WRITE;\n"
        << "delete from " << recordTable << ";\n"
        << "delete from " << expiryTable << ";\n";
    Rows rows;
    rows.records = writeRecords(out, leftOut);
    rows.subscribers = writeExpiries(out);
    out << "\nUNLOCK TABLES;\n";
    leftOut.finish();
    rows.leftOut = leftOut.count();
    return rows;
}

std::uint64_t BackupSnapshot::writeRecords(std::ostream& out, LeftOut& leftOut) const {
    constexpr std::uint32_t lastPeriod = std::numeric_limits<std::int32_t>::max();
    BatchedInsert batches(out, insertInto(recordTable));
    std::string row;
    for (std::size_t at = 0; at < m_subscribers.size(); ++at) {
        Subscriber const& subscriber = m_subscribers[at];
        if (char const* reason = whyNotStorable(subscriber.number)) {
            leftOut.add("endpoint " + subscriber.number.asString(), reason);
            continue;
        }
        for (std::size_t slice = subscriber.first; slice < endOf(at); ++slice) {
            auto const& [period, spam, infected] = m_slices[slice];
            if (period > lastPeriod) { // two of them would be stored as the same one
                leftOut.add("endpoint " + subscriber.number.asString() + " slice " + std::to_string(period),
                            "the slice is beyond the column");
                continue;
            }
            batches.beforeRow();
            row.assign("\n('").append(subscriber.number.asString()).append("', ");
            appendNumber(row, period);
            row.append(", ");
            appendNumber(row, clampedToInt(spam));
            row.append(", ");
            appendNumber(row, clampedToInt(infected));
            row.append(")");
            out << row;
        }
    }
    batches.finish();
    return batches.rows();
}

std::uint64_t BackupSnapshot::writeExpiries(std::ostream& out) const {
    BatchedInsert batches(out, insertInto(expiryTable));
    std::string row;
    for (Subscriber const& subscriber : m_subscribers) {
        if (whyNotStorable(subscriber.number) != nullptr) {
            continue; // logged with the records
        }
        batches.beforeRow();
        row.assign("\n('").append(subscriber.number.asString()).append("', ");
        appendNumber(row, clampedToInt(subscriber.expiry));
        row.append(")");
        out << row;
    }
    batches.finish();
    return batches.rows();
}

} // namespace Vellum::MMSReputation
