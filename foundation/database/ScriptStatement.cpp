#include "foundation/database/ScriptStatement.h"

#include <string>

namespace Vellum::Database {

namespace {

struct Opening {
    std::string_view words; // a statement that begins like this, or is exactly this
    bool whole;
    ScriptStatement meaning;
};

constexpr unsigned int wordsLookedAt = 5;

constexpr Opening openings[] = {
    {"INSERT", false, ScriptStatement::change},
    {"REPLACE", false, ScriptStatement::change},
    {"UPDATE", false, ScriptStatement::change},
    {"DELETE", false, ScriptStatement::change},
    {"SELECT", false, ScriptStatement::change}, // a stored function may change rows
    {"WITH", false, ScriptStatement::change},
    {"DO", false, ScriptStatement::change},
    {"SHOW", false, ScriptStatement::look},
    {"LOCK TABLES", false, ScriptStatement::lockTables},
    {"LOCK TABLE", false, ScriptStatement::lockTables},
    {"CREATE TABLE", false, ScriptStatement::create},
    {"CREATE DATABASE", false, ScriptStatement::create},
    {"CREATE SCHEMA", false, ScriptStatement::create},
    {"BEGIN", true, ScriptStatement::begin},
    {"BEGIN WORK", true, ScriptStatement::begin},
    {"START TRANSACTION", true, ScriptStatement::begin},
    {"SET AUTOCOMMIT = 0", true, ScriptStatement::begin},
    {"SET AUTOCOMMIT = OFF", true, ScriptStatement::begin},
    {"COMMIT", true, ScriptStatement::commit},
    {"COMMIT WORK", true, ScriptStatement::commit},
    {"UNLOCK TABLES", true, ScriptStatement::unlockTables},
    {"UNLOCK TABLE", true, ScriptStatement::unlockTables},
};

bool isWordByte(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == '@' ||
           c == '$';
}

void dropThrough(std::string_view& text, std::string_view end) {
    std::size_t const at = text.find(end);
    text.remove_prefix(at == std::string_view::npos ? text.size() : at + end.size());
}

void dropBlanksAndComments(std::string_view& text) {
    while (!text.empty()) {
        if (static_cast<unsigned char>(text.front()) <= ' ') {
            text.remove_prefix(1);
        } else if (text.starts_with("/*") && !text.starts_with("/*!") && !text.starts_with("/*M!")) {
            text.remove_prefix(2);
            dropThrough(text, "*/");
        } else if (text.starts_with("#") ||
                   (text.starts_with("--") && (text.size() == 2 || static_cast<unsigned char>(text[2]) <= ' '))) {
            dropThrough(text, "\n");
        } else {
            return;
        }
    }
}

// The first `count` words in upper case, one blank between them; comments are skipped, and any byte that is not part of
// a word is a word of its own. A conditional comment is not opened, because only the server knows whether it would.
std::string leadingWords(std::string_view statement, unsigned int count) {
    std::string words;
    for (dropBlanksAndComments(statement); count > 0 && !statement.empty(); --count) {
        words += words.empty() ? "" : " ";
        std::size_t length = 0;
        while (length < statement.size() && isWordByte(statement[length])) {
            char const c = statement[length++];
            words += c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
        }
        if (length == 0) {
            words += statement.front();
            length = 1;
        }
        statement.remove_prefix(length);
        dropBlanksAndComments(statement);
    }
    return words;
}

} // namespace

ScriptStatement scriptStatement(std::string_view statement) {
    std::string const words = leadingWords(statement, wordsLookedAt);
    for (Opening const& opening : openings) {
        bool const whole = words == opening.words;
        if (whole || (!opening.whole && words.starts_with(std::string(opening.words) + ' '))) {
            return opening.meaning;
        }
    }
    return ScriptStatement::unfit;
}

} // namespace Vellum::Database
