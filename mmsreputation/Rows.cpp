#include "mmsreputation/Rows.h"

#include "foundation/Exception.h"
#include "foundation/database/Columns.h"
#include "mmsreputation/LogCodes.h"

#include <cstdlib>

namespace Vellum::MMSReputation {
namespace {

// Lines are promised to log readers.
constexpr unsigned int entryRowLine = 72;
constexpr unsigned int msisdnRowLine = 117;
constexpr unsigned int scoreRowLine = 165;

void requireNoneEmpty(Vellum::Database::Columns const& columns, int count, unsigned int line, char const* text) {
    if (columns.haveEmpty(count)) {
        // All rows refuse under this one name; log readers know them by line and text.
        throw Exception("EntryRow", Exception::failure, Source::database, line).stringParameter(text);
    }
}

// The number of column 0; its text where it is none.
void takeNumber(Vellum::Database::Columns const& columns, MSISDN& number, std::string& written) {
    number = MSISDN(columns.text(0));
    if (number.isNull()) {
        written = columns.text(0);
    }
}

long numberIn(Vellum::Database::Columns const& columns, int column) {
    return std::strtol(columns.text(column), nullptr, 10);
}

} // namespace

bool EntryRow::parse(void* handle, void* result, void* row) {
    Vellum::Database::Columns const columns{handle, result, row};
    requireNoneEmpty(columns, 5, entryRowLine, "Invalid EndpointReputation Entry");
    takeNumber(columns, msisdn, written);
    period = static_cast<std::uint32_t>(numberIn(columns, 1));
    spam = static_cast<std::uint32_t>(numberIn(columns, 2));
    infected = static_cast<std::uint32_t>(numberIn(columns, 3));
    expiry = numberIn(columns, 4);
    return true;
}

bool MSISDNRow::parse(void* handle, void* result, void* row) {
    Vellum::Database::Columns const columns{handle, result, row};
    requireNoneEmpty(columns, 1, msisdnRowLine, "Invalid MSISDN Entry");
    takeNumber(columns, msisdn, written);
    return true;
}

bool MSISDNScoreRow::parse(void* handle, void* result, void* row) {
    Vellum::Database::Columns const columns{handle, result, row};
    requireNoneEmpty(columns, 3, scoreRowLine, "Invalid EndpointReputationScore Entry");
    takeNumber(columns, msisdn, written);
    score = static_cast<std::uint32_t>(numberIn(columns, 1));
    expiry = numberIn(columns, 2);
    return true;
}

} // namespace Vellum::MMSReputation
