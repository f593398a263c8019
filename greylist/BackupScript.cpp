#include "greylist/BackupScript.h"

#include "foundation/MakeRoom.h"
#include "foundation/database/BatchedInsert.h"
#include "foundation/database/LeftOut.h"
#include "foundation/database/QueryTableNames.h"
#include "foundation/database/RowText.h"
#include "greylist/DynamicExemptRecordWriter.h"
#include "greylist/GlRecordDatabase.h"
#include "greylist/LogCodes.h"

#include <algorithm>
#include <chrono>
#include <optional>

namespace Vellum::GreyList {

namespace {

using Database::appendNumber;
using Database::clampedToInt;

char const* whyNotStorable(_TupleId const& id, std::string const& mask) {
    if (mask.empty()) {
        return "it has no network";
    }
    if (std::max(id.senderAddress().size(), id.recipientAddress().size()) > columnSize) {
        return "an address is longer than its column of 128 bytes";
    }
    return nullptr;
}

char const* whyNotStorable(_DynamicExemptId const& id) {
    if (id.mask() == IPAddressMask()) { // its text is empty, which a loader refuses
        return "it has no network";
    }
    if (id.domain().empty()) {
        return "its domain is empty";
    }
    if (id.domain().size() > columnSize) {
        return "its domain is longer than its column of 128 bytes";
    }
    return Database::needsEscaping(id.domain()) ? "its domain has a quote, a backslash or a control character"
                                                : nullptr;
}

Database::BatchedInsert::Texts insertInto(std::string const& table) {
    return {.open = "INSERT INTO " + table + " VALUES", .end = ";\n"};
}

std::string autoExemptName() {
    return Database::TableName(autoExemptTable, false).name();
}

// Identities are all over the memory; so many rows before its turn one is asked for.
constexpr std::size_t fetchAhead = 8;

// Texts of masks; neighbours in key order share their network.
class MaskText {
  public:
    std::string const& of(_TupleId const& id) {
        IPAddressMask const mask = id.mask();
        if (!m_mask || !(*m_mask == mask)) {
            m_mask = mask;
            m_text = mask.asString();
        }
        return m_text;
    }

  private:
    std::optional<IPAddressMask> m_mask;
    std::string m_text;
};

} // namespace

BackupSnapshot::BackupSnapshot(_TupleCache const& tuples, _DynamicExemptCache const& exemptions) {
    auto const sizeOf = [](auto const& cache) {
        SharedLock const hold(cache.lock);
        return cache.sizeNoLock() + cache.sizeNoLock() / 16 + 64; // what may come until the locks are taken
    };
    makeRoom(m_tuples, sizeOf(tuples));
    makeRoom(m_exemptions, sizeOf(exemptions));

    SharedLock const holdTuples(tuples.lock);
    SharedLock const holdExemptions(exemptions.lock);
    auto const start = std::chrono::steady_clock::now();
    m_pinTuples.emplace(tuples);
    m_pinExemptions.emplace(exemptions);
    tuples.forEachInKeyOrder([&](auto const& pair) {
        m_tuples.push_back({pair.first.operator->(), pair.second.firstSeen, pair.second.expiry});
        return true;
    });
    exemptions.forEachInKeyOrder([&](auto const& pair) {
        m_exemptions.push_back({&pair.first, pair.second.firstSeen, pair.second.expiry});
        return true;
    });
    m_nanosecondsHeld =
        static_cast<std::uint64_t>(std::chrono::nanoseconds(std::chrono::steady_clock::now() - start).count());
}

BackupSnapshot::Rows BackupSnapshot::write(std::ostream& out) const {
    std::string const tuples = greyListTable;
    std::string const exemptions = autoExemptName();
    Database::LeftOut leftOut(LogCode::recordNotStored);
    out << "LOCK TABLES " << tuples << " WRITE," << exemptions << " WRITE;\n"
        << "delete from " << tuples << ";\n";
    writeTuples(out, leftOut);
    std::uint64_t const tuplesLeftOut = leftOut.count();
    out << "delete from " << exemptions << ";\n";
    writeExemptions(out, leftOut);
    out << ";\ncommit;\nUNLOCK TABLES;\n";
    leftOut.finish();
    std::uint64_t const exemptionsLeftOut = leftOut.count() - tuplesLeftOut;
    return {m_tuples.size() - tuplesLeftOut, m_exemptions.size() - exemptionsLeftOut, leftOut.count()};
}

void BackupSnapshot::writeTuples(std::ostream& out, Database::LeftOut& leftOut) const {
    Database::BatchedInsert batches(out, insertInto(greyListTable));
    MaskText masks;
    std::string row;
    for (std::size_t at = 0; at < m_tuples.size(); ++at) {
        Tuple const& tuple = m_tuples[at];
        if (at + fetchAhead < m_tuples.size()) {
            __builtin_prefetch(m_tuples[at + fetchAhead].id);
            __builtin_prefetch(reinterpret_cast<char const*>(m_tuples[at + fetchAhead].id) + 64);
        }
        std::string const& mask = masks.of(*tuple.id);
        if (char const* reason = whyNotStorable(*tuple.id, mask)) {
            leftOut.add("tuple " + mask + " " + tuple.id->sender().asString() + " " + tuple.id->recipient().asString(),
                        reason);
            continue;
        }
        batches.beforeRow();
        row.assign("\n('").append(mask).append("', '");
        appendEscapedAddress(row, tuple.id->senderAddress());
        row.append("', '");
        appendEscapedAddress(row, tuple.id->recipientAddress());
        row.append("', ");
        appendNumber(row, clampedToInt(tuple.firstSeen));
        row.append(",");
        appendNumber(row, clampedToInt(tuple.expiry));
        row.append(")");
        out.write(row.data(), static_cast<std::streamsize>(row.size()));
    }
    batches.finish();
}

void BackupSnapshot::writeExemptions(std::ostream& out, Database::LeftOut& leftOut) const {
    Database::BatchedInsert::Texts texts = insertInto(autoExemptName());
    texts.separator.clear(); // the record writer puts its own commas
    Database::BatchedInsert batches(out, texts);
    DynamicExemptRecordWriter writer(out);
    for (Exemption const& exemption : m_exemptions) {
        _DynamicExemptId const& id = **exemption.id;
        if (char const* reason = whyNotStorable(id)) {
            leftOut.add("exemption " + id.mask().asString() + " " + id.domain(), reason);
            continue;
        }
        if (batches.beforeRow()) {
            writer.first = true;
        }
        writer(*exemption.id, Status(clampedToInt(exemption.firstSeen), clampedToInt(exemption.expiry), 0));
    }
    batches.finish();
}

} // namespace Vellum::GreyList
