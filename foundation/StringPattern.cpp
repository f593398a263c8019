#include "foundation/StringPattern.h"

#include "foundation/Escape.h"
#include "foundation/Exception.h"

#include <re2/re2.h>

namespace Vellum {
namespace {

re2::RE2::Options options() {
    re2::RE2::Options chosen;
    chosen.set_encoding(re2::RE2::Options::EncodingLatin1);
    chosen.set_case_sensitive(false);
    chosen.set_dot_nl(true);
    chosen.set_log_errors(false);
    return chosen;
}

// A pattern between two slashes, "//" included. A single "/" is a wildcard pattern like any other text.
bool isExpression(std::string const& pattern) {
    return pattern.size() >= 2 && pattern.front() == '/' && pattern.back() == '/';
}

std::string expressionOfWildcards(std::string const& pattern) {
    std::string expression = "\\A";
    for (char const c : pattern) {
        if (c == '*') {
            expression += ".*";
        } else if (c == '?') {
            expression += '.';
        } else {
            expression += re2::RE2::QuoteMeta(re2::StringPiece(&c, 1));
        }
    }
    return expression + "\\z";
}

Exception invalidPattern(std::string const& pattern, std::string const& problem) {
    return Exception("StringPattern::StringPattern", Exception::failure, "StringPattern")
        .stringParameter('"' + escapeControls(pattern.substr(0, 200)) + "\" is not a pattern: " + problem);
}

} // namespace

StringPattern::StringPattern(std::string const& pattern) : m_pattern(pattern) {
    if (pattern.empty()) {
        return;
    }
    if (pattern == "//") {
        throw invalidPattern(pattern, "the expression between the slashes is empty");
    }
    std::string const expression =
        isExpression(pattern) ? pattern.substr(1, pattern.size() - 2) : expressionOfWildcards(pattern);
    auto const compiled = std::make_shared<re2::RE2 const>(expression, options());
    if (!compiled->ok()) {
        throw invalidPattern(pattern, compiled->error());
    }
    m_expression = compiled;
}

bool StringPattern::matches(std::string const& text) const {
    return m_expression == nullptr || re2::RE2::PartialMatch(text, *m_expression);
}

} // namespace Vellum
