// Lines of a tab-separated file that fills a table.
#include "foundation/database/TabbedRow.h"
#include "fuzz/FuzzTarget.h"
#include "fuzz/Input.h"
#include "fuzz/SqlText.h"

#include <optional>

namespace Vellum::Fuzz {
namespace {

using Values = std::vector<std::string>;

// A line, read by hand; nothing when it ends within an escape.
std::optional<Values> reference(std::string_view line) {
    constexpr std::string_view letters = "tnr0";
    constexpr std::string_view characters("\t\n\r\0", 4);
    Values values(1);
    for (Input parts(line); !parts.isAtEnd();) {
        char const c = parts.bytes(1).front();
        if (c == '\t') {
            values.emplace_back();
        } else if (c != '\\') {
            values.back() += c;
        } else if (parts.isAtEnd()) {
            return std::nullopt;
        } else {
            char const escaped = parts.bytes(1).front();
            std::size_t const letter = letters.find(escaped);
            values.back() += letter == std::string_view::npos ? escaped : characters[letter];
        }
    }
    return values;
}

void run(std::string_view input) {
    std::string statement = "REPLACE INTO t VALUES";
    std::vector<Values> expected;
    for (Input lines(input); !lines.isAtEnd();) {
        std::string_view const line = lines.line();
        std::string row;
        bool const whole = Database::appendTabbedRow(row, line);
        auto const values = reference(line);
        require(whole == values.has_value(), "a line that ends within an escape is refused, no other one");
        if (whole) {
            statement += (expected.empty() ? "\n" : ",\n") + row;
            expected.push_back(*values);
        }
    }
    require(expected.empty() || sqlRows(statement) == expected, "the server reads what the file says");
}

Target const target("tabbed_row", run);

} // namespace
} // namespace Vellum::Fuzz
