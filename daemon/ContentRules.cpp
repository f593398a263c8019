#include "daemon/ContentRules.h"

#include "daemon/AsciiCase.h"
#include "foundation/Exception.h"

#include <algorithm>

namespace Vellum::Daemon {
namespace {

constexpr std::string_view blanks = " \t\r\n";

std::string_view trimmed(std::string_view text) {
    std::size_t const begin = text.find_first_not_of(blanks);
    return begin == std::string_view::npos ? std::string_view()
                                           : text.substr(begin, text.find_last_not_of(blanks) + 1 - begin);
}

// Each run of blanks and line breaks as one space.
std::string unfolded(std::string_view value) {
    std::string line;
    for (std::string_view rest = trimmed(value); !rest.empty();) {
        std::size_t const end = std::min(rest.find_first_of(blanks), rest.size());
        line += line.empty() ? "" : " ";
        line += rest.substr(0, end);
        rest = trimmed(rest.substr(end));
    }
    return line;
}

bool isFieldName(std::string_view name) {
    return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) { return c > ' ' && c < 0x7f; });
}

} // namespace

HeaderRule HeaderRule::parse(std::string const& text) {
    std::size_t const colon = text.find(':');
    std::string_view const name = trimmed(std::string_view(text).substr(0, std::min(colon, text.size())));
    std::string_view const value =
        colon == std::string::npos ? std::string_view() : trimmed(std::string_view(text).substr(colon + 1));
    if (!isFieldName(name) || value.empty()) {
        throw Exception("HeaderRule", Exception::failure)
            .stringParameter('"' + text + "\" is not a header's name, a colon and a pattern for its value");
    }
    HeaderRule rule;
    rule.m_name = name;
    rule.m_value = StringPattern(std::string(value));
    return rule;
}

bool HeaderRule::matches(std::string_view name, std::string_view value) const {
    return equalWithoutCase(name, m_name) && m_value.matches(unfolded(value));
}

void ContentVerdict::read(ContentRules const& rules, std::string_view name, std::string_view value) {
    auto const says = [&](HeaderRule const& rule) {
        return rule.matches(name, value);
    };
    spam = spam || std::any_of(rules.spam.begin(), rules.spam.end(), says);
    infected = infected || std::any_of(rules.infected.begin(), rules.infected.end(), says);
}

} // namespace Vellum::Daemon
