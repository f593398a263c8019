// The rows of the endpoint tables, as a query delivers them.
#pragma once

#include "foundation/MSISDN.h"
#include "foundation/database/RowParser.h"

#include <cstdint>
#include <string>

namespace Vellum::MMSReputation {

// parse() of each throws Exception when a column is empty. A number that is none leaves msisdn null; that is for
// whoever takes the row to judge, and `written` says then what the column holds.

// A slice of a subscriber, with his expiry.
class EntryRow : public Vellum::Database::RowImpl {
  public:
    bool parse(void* handle, void* result, void* row) override;

    MSISDN msisdn;
    std::string written; // only where msisdn is null
    std::uint32_t period = 0;
    std::uint32_t spam = 0;
    std::uint32_t infected = 0;
    std::int64_t expiry = 0; // seconds since the epoch
};

// A number of the blacklist or of the exempt list.
class MSISDNRow : public Vellum::Database::RowImpl {
  public:
    bool parse(void* handle, void* result, void* row) override;

    MSISDN msisdn;
    std::string written; // only where msisdn is null
};

// A line of the score table.
class MSISDNScoreRow : public Vellum::Database::RowImpl {
  public:
    bool parse(void* handle, void* result, void* row) override;

    MSISDN msisdn;
    std::string written; // only where msisdn is null
    std::uint32_t score = 0;
    std::int64_t expiry = 0; // seconds since the epoch
};

} // namespace Vellum::MMSReputation
