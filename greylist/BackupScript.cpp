#include "greylist/BackupScript.h"

#include "foundation/Logger.h"
#include "foundation/database/BatchedInsert.h"
#include "foundation/database/QueryTableNames.h"
#include "greylist/DynamicExemptRecordWriter.h"
#include "greylist/GlRecordDatabase.h"
#include "greylist/LogCodes.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <limits>
#include <optional>

namespace Vellum::GreyList {

// Counts the records that no row can hold; the first ones are logged one by one.
class LeftOut {
  public:
    void add(std::string const& record, char const* reason) {
        if (++m_count <= shownOneByOne) {
            log("not stored: " + record + ": " + reason);
        }
    }
    std::uint64_t count() const { return m_count; }
    void finish() const {
        if (m_count > shownOneByOne) {
            log(std::to_string(m_count - shownOneByOne) + " more records were not stored");
        }
    }

  private:
    static constexpr std::uint64_t shownOneByOne = 20; // a flood of forged addresses must not flood the log
    static void log(std::string text) {
        std::replace(text.begin(), text.end(), '\0', '?'); // a domain may hold one, and would end the text there
        Logger::instance(false).log(LogCode::recordNotStored, 0, formatText, text.c_str());
    }
    std::uint64_t m_count = 0;
};

namespace {

// The time columns are ints; a time beyond them is as good as their end.
std::int64_t clampedToInt(std::int64_t seconds) {
    return std::clamp<std::int64_t>(seconds, std::numeric_limits<std::int32_t>::min(),
                                    std::numeric_limits<std::int32_t>::max());
}

// Room for `count` entries whose pages are there already, so that no page fault happens under a lock.
template <class T>
void makeRoom(std::vector<T>& vector, std::size_t count) {
    vector.reserve(count);
    auto* bytes = reinterpret_cast<char volatile*>(vector.data());
    for (std::size_t at = 0; at < vector.capacity() * sizeof(T); at += 4096) {
        bytes[at] = 0;
    }
}

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
    bool const needsEscaping = std::any_of(id.domain().begin(), id.domain().end(), [](unsigned char c) {
        return c == '\'' || c == '"' || c == '\\' || c < 0x20 || c == 0x7f;
    });
    return needsEscaping ? "its domain has a quote, a backslash or a control character" : nullptr;
}

void appendNumber(std::string& text, std::int64_t number) {
    char digits[24];
    auto const end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    text.append(digits, end);
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
    LeftOut leftOut;
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

void BackupSnapshot::writeTuples(std::ostream& out, LeftOut& leftOut) const {
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

void BackupSnapshot::writeExemptions(std::ostream& out, LeftOut& leftOut) const {
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
