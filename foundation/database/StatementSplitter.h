// Cuts SQL text into its statements.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace Vellum::Database {

// One statement of a text.
struct Statement {
    std::string_view text; // without the ';', without leading blanks and comments; valid during the call only
    std::uint64_t number;  // among the statements of the text, from 1
    std::uint64_t line;    // on which it begins, from 1
};

// Takes text in pieces of any size and hands out each statement when its end is seen.
//
// A statement ends at ';' outside of quotes and comments, at a NUL byte or at the end of the text. Understood as the
// server does with the session settings of Connection: '...' and "..." with backslash escapes and doubled quotes,
// `...` with doubled backticks, "-- " and # up to the end of the line, /* ... */. A conditional comment, /*! ... */ or
// /*M! ... */, is code. Statements of blanks and comments only are skipped and not counted. A NUL byte ends the text,
// wherever it stands.
//
// Memory: the statement in hand, at most `limit` bytes.
class StatementSplitter {
  public:
    static constexpr std::size_t defaultLimit = std::size_t{64} * 1024 * 1024;

    using Sink = std::function<void(Statement const&)>;

    explicit StatementSplitter(Sink sink, std::size_t limit = defaultLimit);

    // Throws DatabaseException when a statement exceeds the limit, and passes on what the sink throws; the splitter
    // is of no use afterwards.
    void feed(std::string_view bytes);
    // The end of the text: hands out a last statement that has no ';'. Throws DatabaseException, naming the line, when
    // a quote or comment is still open.
    void finish();

    // True once a NUL byte has ended the text; whatever is fed after it is ignored.
    bool ended() const { return m_ended; }

  private:
    enum class State : std::uint8_t {
        code,
        dash,            // '-' in code
        doubleDash,      // "--" in code: a comment when a blank or control character follows
        slash,           // '/' in code
        slashStar,       // "/*": the next byte tells a comment from code
        slashStarM,      // "/*M"
        conditionalStar, // '*' in code inside a conditional comment
        lineComment,
        blockComment,
        blockCommentStar, // '*' in a block comment
        singleQuoted,
        singleQuotedEscape,
        doubleQuoted,
        doubleQuotedEscape,
        backquoted,
    };

    std::size_t takePlain(std::string_view bytes);
    void take(char byte);
    void takeCode(char byte);
    void takePending(char byte);
    void takeComment(char byte);
    void takeQuoted(char byte);
    void enter(State quoteOrComment);
    void code(std::string_view bytes);
    void notCode(std::string_view bytes);
    void endStatement();
    [[noreturn]] void refuseOpenEnd() const;

    Sink m_sink;
    std::size_t m_limit;
    std::string m_text;
    State m_state = State::code;
    bool m_hasCode = false;     // the statement in hand holds more than blanks and comments
    bool m_conditional = false; // inside /*! ... */
    bool m_ended = false;
    std::uint64_t m_number = 0;
    std::uint64_t m_line = 1;
    std::uint64_t m_statementLine = 1;
    std::uint64_t m_openedLine = 1; // where the open quote or comment began
};

} // namespace Vellum::Database
