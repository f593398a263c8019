// What the journal calls the script of an entry: "0000000000000017-4.sql" is script 17, of request code 4.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Vellum::DatabaseDaemon {

struct JournalName {
    std::uint64_t number = 0; // in the order of acceptance
    std::int32_t code = 0;    // of the request

    // Names sort as their numbers do, up to the sixteenth digit.
    std::string asString() const;
    // Nothing for a text that asString() never makes: such a file is none of the journal's.
    static std::optional<JournalName> parse(std::string_view name);
};

} // namespace Vellum::DatabaseDaemon
