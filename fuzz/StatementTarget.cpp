// SQL text, as scripts have it: a byte that says how it is cut, and the text.
#include "foundation/database/DatabaseException.h"
#include "foundation/database/ScriptStatement.h"
#include "foundation/database/StatementSplitter.h"
#include "fuzz/FuzzTarget.h"
#include "fuzz/Input.h"
#include "fuzz/Parsed.h"

namespace Vellum::Fuzz {
namespace {

using namespace Database;

struct Split {
    struct Part {
        std::string text;
        std::uint64_t number;
        std::uint64_t line;
        bool operator==(Part const&) const = default;
    };
    std::vector<Part> parts;
    bool whole = false; // no quote or comment was open at the end, and nothing was too long
    bool ended = false; // by a NUL

    bool operator==(Split const&) const = default;
};

Split split(std::vector<std::string> const& pieces, std::size_t limit = StatementSplitter::defaultLimit) {
    Split all;
    StatementSplitter splitter(
        [&](Statement const& statement) {
            require(statement.text.size() <= limit, "a statement is not longer than allowed");
            all.parts.push_back({std::string(statement.text), statement.number, statement.line});
        },
        limit);
    all.whole = accepted([&] {
                    for (std::string const& piece : pieces) {
                        splitter.feed(piece);
                    }
                    splitter.finish();
                    return true;
                }).has_value();
    all.ended = splitter.ended();
    return all;
}

void checkStatement(std::string const& text) {
    // Two dashes before a ';' are code, at the end of a text they begin a comment; the server sees it in the same way.
    bool const endsInDashes = text.ends_with("--");
    Split const again = split({text});
    require(endsInDashes || (again.whole && again.parts.size() == 1 && again.parts.front().text == text),
            "a statement alone is one statement");
    require(scriptStatement("/* note */ " + text) == scriptStatement(text) &&
                scriptStatement("-- note\n" + text) == scriptStatement(text),
            "a comment before a statement changes nothing");
    require(text.find('\0') == std::string::npos, "a NUL ends a text");
}

void run(std::string_view input) {
    Input parts(input);
    std::uint8_t const cuts = parts.byte();
    std::string const text(parts.rest());
    Split const whole = split({text});
    require(split(inPieces(text, cuts)) == whole, "a text in pieces has the statements that it has");
    for (std::size_t i = 0; i < whole.parts.size(); ++i) {
        require(whole.parts[i].number == i + 1, "statements are counted from 1");
        checkStatement(whole.parts[i].text);
    }
    constexpr std::size_t tight = 16;
    Split const limited = split(inPieces(text, cuts), tight);
    require(limited.parts.size() <= whole.parts.size() &&
                std::equal(limited.parts.begin(), limited.parts.end(), whole.parts.begin()),
            "a limit only ends the text earlier");
}

Target const target("statement", run);

} // namespace
} // namespace Vellum::Fuzz
