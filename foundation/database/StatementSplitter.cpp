#include "foundation/database/StatementSplitter.h"

#include "foundation/database/DatabaseException.h"

#include <algorithm>
#include <array>
#include <utility>

namespace Vellum::Database {

namespace {

// Bytes that mean nothing special in any state, so that a run of them is taken at once.
constexpr std::array<bool, 256> plainBytes() {
    std::array<bool, 256> plain{};
    for (std::size_t i = 0; i < plain.size(); ++i) {
        plain[i] = i > ' ' && i != 0x7f;
    }
    for (char const special : {'\'', '"', '`', '\\', ';', '-', '#', '/', '*'}) {
        plain[static_cast<unsigned char>(special)] = false;
    }
    return plain;
}
constexpr std::array<bool, 256> plain = plainBytes();

bool isBlank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

bool isBlankOrControl(char c) {
    return static_cast<unsigned char>(c) <= ' ' || c == 0x7f;
}

} // namespace

StatementSplitter::StatementSplitter(Sink sink, std::size_t limit) : m_sink(std::move(sink)), m_limit(limit) {}

void StatementSplitter::feed(std::string_view bytes) {
    while (!bytes.empty() && !m_ended) {
        std::size_t taken = takePlain(bytes);
        if (taken == 0) {
            take(bytes.front());
            taken = 1;
        }
        bytes.remove_prefix(taken);
    }
}

// Takes the run of plain bytes in front when they simply belong to the statement; answers how many.
std::size_t StatementSplitter::takePlain(std::string_view bytes) {
    bool const quoted =
        m_state == State::singleQuoted || m_state == State::doubleQuoted || m_state == State::backquoted;
    if (!quoted && m_state != State::code) {
        return 0;
    }
    auto const isPlain = [](char c) {
        return plain[static_cast<unsigned char>(c)];
    };
    auto const run = static_cast<std::size_t>(std::find_if_not(bytes.begin(), bytes.end(), isPlain) - bytes.begin());
    if (run != 0) {
        code(bytes.substr(0, run));
    }
    return run;
}

void StatementSplitter::take(char byte) {
    if (byte == '\0') {
        m_ended = true;
        return;
    }
    switch (m_state) {
    case State::code:
        takeCode(byte);
        break;
    case State::dash:
    case State::doubleDash:
    case State::slash:
    case State::slashStar:
    case State::slashStarM:
    case State::conditionalStar:
        takePending(byte);
        break;
    case State::lineComment:
    case State::blockComment:
    case State::blockCommentStar:
        takeComment(byte);
        break;
    default:
        takeQuoted(byte);
    }
    if (byte == '\n') {
        ++m_line;
    }
}

void StatementSplitter::takeCode(char byte) {
    switch (byte) {
    case '\'':
        enter(State::singleQuoted);
        code("'");
        break;
    case '"':
        enter(State::doubleQuoted);
        code("\"");
        break;
    case '`':
        enter(State::backquoted);
        code("`");
        break;
    case '#':
        enter(State::lineComment);
        notCode("#");
        break;
    case '-':
        m_state = State::dash;
        break;
    case '/':
        m_state = State::slash;
        break;
    case ';':
        if (m_conditional) {
            code(";");
        } else {
            endStatement();
        }
        break;
    case '*':
        if (m_conditional) {
            m_state = State::conditionalStar;
            break;
        }
        [[fallthrough]];
    default:
        isBlank(byte) ? notCode({&byte, 1}) : code({&byte, 1});
    }
}

// The bytes before this one were held back: only now it is known whether they are code or the beginning of a comment.
void StatementSplitter::takePending(char byte) {
    State const pending = m_state;
    m_state = State::code;
    if (pending == State::dash && byte == '-') {
        m_state = State::doubleDash;
    } else if (pending == State::doubleDash && isBlankOrControl(byte)) {
        enter(State::lineComment);
        notCode("--");
        takeComment(byte);
    } else if (pending == State::doubleDash && byte == '-') {
        code("-"); // the last two of three may still begin a comment
        m_state = State::doubleDash;
    } else if (pending == State::slash && byte == '*') {
        enter(State::slashStar);
    } else if (pending == State::slashStar && byte == 'M' && !m_conditional) {
        m_state = State::slashStarM;
    } else if ((pending == State::slashStar || pending == State::slashStarM) && byte == '!' && !m_conditional) {
        m_conditional = true;
        code(pending == State::slashStar ? "/*!" : "/*M!");
    } else if (pending == State::slashStar || pending == State::slashStarM) {
        m_state = State::blockComment;
        notCode(pending == State::slashStar ? "/*" : "/*M");
        takeComment(byte);
    } else if (pending == State::conditionalStar && byte == '/') {
        code("*/");
        m_conditional = false;
    } else {
        code(pending == State::dash ? "-" : pending == State::doubleDash ? "--" : pending == State::slash ? "/" : "*");
        takeCode(byte);
    }
}

void StatementSplitter::takeComment(char byte) {
    notCode({&byte, 1});
    if (m_state == State::lineComment) {
        m_state = byte == '\n' ? State::code : State::lineComment;
    } else if (m_state == State::blockCommentStar && byte == '/') {
        m_state = State::code;
    } else {
        m_state = byte == '*' ? State::blockCommentStar : State::blockComment;
    }
}

// A doubled quote needs no state of its own: it ends the quoted text and begins another at once.
void StatementSplitter::takeQuoted(char byte) {
    code({&byte, 1});
    switch (m_state) {
    case State::singleQuoted:
        m_state = byte == '\'' ? State::code : byte == '\\' ? State::singleQuotedEscape : m_state;
        break;
    case State::doubleQuoted:
        m_state = byte == '"' ? State::code : byte == '\\' ? State::doubleQuotedEscape : m_state;
        break;
    case State::singleQuotedEscape:
        m_state = State::singleQuoted;
        break;
    case State::doubleQuotedEscape:
        m_state = State::doubleQuoted;
        break;
    default:
        m_state = byte == '`' ? State::code : m_state;
    }
}

void StatementSplitter::enter(State quoteOrComment) {
    m_state = quoteOrComment;
    m_openedLine = m_line;
}

void StatementSplitter::code(std::string_view bytes) {
    if (!m_hasCode) {
        m_hasCode = true;
        m_statementLine = m_line;
    }
    if (bytes.size() > m_limit - m_text.size()) {
        throw DatabaseException("StatementSplitter", 0,
                                "the statement on line " + std::to_string(m_statementLine) + " is longer than " +
                                    std::to_string(m_limit) + " bytes: " + shortenedStatement(m_text));
    }
    m_text.append(bytes);
}

// Blanks and comments before a statement are dropped; inside they stay where they are.
void StatementSplitter::notCode(std::string_view bytes) {
    if (m_hasCode) {
        code(bytes);
    }
}

void StatementSplitter::endStatement() {
    if (!m_hasCode) {
        return;
    }
    m_hasCode = false;
    m_sink(Statement{m_text, ++m_number, m_statementLine});
    m_text.clear();
}

void StatementSplitter::finish() {
    switch (m_state) {
    case State::dash:
        code("-");
        break;
    case State::slash:
        code("/");
        break;
    case State::doubleDash:
        notCode("--");
        break;
    case State::code:
    case State::lineComment:
        break;
    default:
        refuseOpenEnd();
    }
    if (m_conditional) {
        refuseOpenEnd();
    }
    m_state = State::code;
    endStatement();
}

void StatementSplitter::refuseOpenEnd() const {
    bool const comment = m_conditional || m_state == State::slashStar || m_state == State::slashStarM ||
                         m_state == State::blockComment || m_state == State::blockCommentStar;
    throw DatabaseException("StatementSplitter", 0,
                            std::string("the text ends inside a ") + (comment ? "comment" : "quoted text") +
                                " opened on line " + std::to_string(m_openedLine) +
                                "; statement: " + shortenedStatement(m_text));
}

} // namespace Vellum::Database
