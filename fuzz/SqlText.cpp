#include "fuzz/SqlText.h"

#include "foundation/database/ScriptStatement.h"
#include "foundation/database/StatementSplitter.h"
#include "fuzz/FuzzTarget.h"

#include <algorithm>

namespace Vellum::Fuzz {
namespace {

char unescaped(char c) {
    switch (c) {
    case '0':
        return '\0';
    case 'b':
        return '\b';
    case 'n':
        return '\n';
    case 'r':
        return '\r';
    case 't':
        return '\t';
    case 'Z':
        return '\x1a';
    default:
        return c;
    }
}

// Takes a literal off the front of `text`; nothing when there is none.
std::optional<std::string> takeLiteral(std::string_view& text) {
    if (text.empty() || text.front() != '\'') {
        return std::nullopt;
    }
    std::string value;
    for (std::size_t i = 1; i < text.size(); ++i) {
        if (text[i] == '\'') {
            bool const doubled = i + 1 < text.size() && text[i + 1] == '\'';
            if (!doubled) {
                text.remove_prefix(i + 1);
                return value;
            }
            value += text[++i];
        } else if (text[i] == '\\' && i + 1 < text.size()) {
            value += unescaped(text[++i]);
        } else {
            value += text[i];
        }
    }
    return std::nullopt;
}

void skipBlanks(std::string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of(" \n"), text.size()));
}

bool take(std::string_view& text, char c) {
    skipBlanks(text);
    if (text.empty() || text.front() != c) {
        return false;
    }
    text.remove_prefix(1);
    return true;
}

std::string takeNumber(std::string_view& text) {
    std::string const number(text.substr(0, text.find_first_not_of("-0123456789")));
    require(!number.empty(), "a value of a script is a literal or a number");
    text.remove_prefix(number.size());
    return number;
}

std::vector<std::string> takeRow(std::string_view& text) {
    require(take(text, '('), "a row begins with a bracket");
    std::vector<std::string> values;
    do {
        skipBlanks(text);
        auto const literal = takeLiteral(text);
        values.push_back(literal ? *literal : takeNumber(text));
    } while (take(text, ','));
    require(take(text, ')'), "a row ends with a bracket");
    return values;
}

} // namespace

std::optional<std::string> sqlLiteral(std::string_view text) {
    auto value = takeLiteral(text);
    return text.empty() ? value : std::nullopt;
}

std::vector<std::vector<std::string>> sqlRows(std::string_view statement) {
    constexpr std::string_view values = "VALUES";
    std::size_t const at = statement.find(values);
    require(at != std::string_view::npos, "an INSERT of a script has VALUES");
    statement.remove_prefix(at + values.size());
    std::vector<std::vector<std::string>> rows;
    do {
        rows.push_back(takeRow(statement));
    } while (take(statement, ','));
    skipBlanks(statement);
    require(statement.empty(), "an INSERT of a script ends with its last row");
    return rows;
}

std::vector<std::vector<std::string>> rowsOfScript(std::string const& script, std::string_view table) {
    std::string const insert = "INSERT INTO " + std::string(table) + " ";
    std::vector<std::vector<std::string>> rows;
    std::string last;
    Database::StatementSplitter splitter([&](Database::Statement const& statement) {
        require(Database::scriptStatement(statement.text) != Database::ScriptStatement::unfit,
                "a backup script holds statements of scripts only");
        last = statement.text;
        if (statement.text.starts_with(insert)) {
            auto const more = sqlRows(statement.text);
            rows.insert(rows.end(), more.begin(), more.end());
        }
    });
    splitter.feed(script);
    splitter.finish();
    require(last == "UNLOCK TABLES", "a backup script is whole");
    return rows;
}

} // namespace Vellum::Fuzz
