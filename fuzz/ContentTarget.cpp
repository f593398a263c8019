// A content rule, a header's name and its value: a line each, the value with all that follows.
#include "daemon/ContentRules.h"
#include "fuzz/FuzzTarget.h"
#include "fuzz/Input.h"
#include "fuzz/Parsed.h"

#include <algorithm>

namespace Vellum::Fuzz {
namespace {

using Daemon::HeaderRule;

// As a mail server folds a long header: a line break before each blank.
std::string folded(std::string_view value) {
    std::string text;
    for (char const c : value) {
        text += c == ' ' ? "\r\n " : std::string(1, c);
    }
    return text;
}

void run(std::string_view input) {
    Input lines(input);
    std::string const text(lines.line());
    auto const rule = accepted([&] { return HeaderRule::parse(text); });
    if (!rule) {
        return;
    }
    std::string_view const name = lines.line();
    std::string_view const value = lines.rest();
    bool const matches = rule->matches(name, value);
    require(rule->matches(name, folded(value)) == matches, "how a header is folded does not matter");
    std::string loud(name);
    std::transform(loud.begin(), loud.end(), loud.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
    require(rule->matches(loud, value) == matches, "letter case of a name does not matter");
    require(!matches || text.size() > name.size(), "a rule names the header that it matches");
}

Target const target("content", run);

} // namespace
} // namespace Vellum::Fuzz
