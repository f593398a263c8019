#include "greylist/BackupScript.h"

#include "foundation/MakeRoom.h"
#include "foundation/TextBlock.h"
#include "foundation/database/BatchedInsert.h"
#include "foundation/database/LeftOut.h"
#include "foundation/database/QueryTableNames.h"
#include "foundation/database/RowText.h"
#include "greylist/DynamicExemptRecordWriter.h"
#include "greylist/GlRecordDatabase.h"
#include "greylist/LogCodes.h"

#include <algorithm>
#include <chrono>
#include <cstring>

namespace Vellum::GreyList {

namespace {

using Database::clampedToInt;

char const* whyNotStorable(TupleParts const& tuple, std::string const& mask) {
    if (mask.empty()) {
        return "it has no network";
    }
    if (std::max(tuple.sender.size(), tuple.recipient.size()) > columnSize) {
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

// Identities are all over the memory; so many rows before its turn one is asked for. Most take two lines of memory.
constexpr std::size_t fetchAhead = 16;

void fetch(_TupleId const* id) {
    __builtin_prefetch(id);
    __builtin_prefetch(reinterpret_cast<char const*>(id) + 64);
}

// Texts of masks; neighbours in key order share their network.
class MaskText {
  public:
    // `id` must live until the next call.
    std::string const& of(_TupleId const& id) {
        if (m_last == nullptr || !haveSameMask(m_last->parts(), id.parts())) {
            m_text = id.mask().asString();
        }
        m_last = &id;
        return m_text;
    }

  private:
    static bool haveSameMask(TupleParts const& a, TupleParts const& b) {
        return a.family == b.family && a.cidr == b.cidr && std::memcmp(a.network, b.network, a.networkLength()) == 0;
    }

    _TupleId const* m_last = nullptr; // borrowed
    std::string m_text;
};

// Bytes of a row at most: a mask, two addresses of which each byte is escaped, two times, and what is between them.
constexpr std::size_t longestRow = 43 + 2 * (2 * columnSize + 2) + 2 * TextBlock::longestNumber + 20;

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
    TextBlock text(out);
    MaskText masks;
    for (std::size_t at = 0; at < m_tuples.size(); ++at) {
        if (at + fetchAhead < m_tuples.size()) {
            fetch(m_tuples[at + fetchAhead].id);
        }
        Tuple const& tuple = m_tuples[at];
        TupleParts const parts = tuple.id->parts();
        std::string const& mask = masks.of(*tuple.id);
        if (char const* reason = whyNotStorable(parts, mask)) {
            leftOut.add("tuple " + mask + " " + tuple.id->sender().asString() + " " + tuple.id->recipient().asString(),
                        reason);
            continue;
        }
        text.makeRoom(batches.longestBeforeRow() + longestRow);
        text.append(batches.textBeforeRow());
        text.append("\n('");
        text.append(mask);
        text.append("', '");
        text.appendEscaped(parts.sender);
        text.append("', '");
        text.appendEscaped(parts.recipient);
        text.append("', ");
        text.appendNumber(clampedToInt(tuple.firstSeen));
        text.append(",");
        text.appendNumber(clampedToInt(tuple.expiry));
        text.append(")");
    }
    text.flush();
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
