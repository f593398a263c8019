#include "dbdaemon/JournalName.h"

#include <algorithm>
#include <charconv>

namespace Vellum::DatabaseDaemon {
namespace {

constexpr std::string_view suffix = ".sql";
constexpr std::size_t digits = 16;

template <class Number>
std::optional<Number> whole(std::string_view text) {
    Number value = 0;
    auto const [last, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && last == text.data() + text.size() ? std::optional(value) : std::nullopt;
}

} // namespace

std::string JournalName::asString() const {
    std::string const text = std::to_string(number);
    return std::string(digits - std::min(digits, text.size()), '0') + text + '-' + std::to_string(code) +
           std::string(suffix);
}

std::optional<JournalName> JournalName::parse(std::string_view name) {
    std::size_t const dash = name.find('-');
    if (dash != digits || !name.ends_with(suffix)) {
        return std::nullopt;
    }
    auto const serial = whole<std::uint64_t>(name.substr(0, dash));
    auto const code = whole<std::int32_t>(name.substr(dash + 1, name.size() - suffix.size() - dash - 1));
    if (!serial || !code) {
        return std::nullopt;
    }
    JournalName const parsed{*serial, *code};
    // A number can be written in more than one way, but the journal looks for its file under one name only.
    return parsed.asString() == name ? std::optional(parsed) : std::nullopt;
}

} // namespace Vellum::DatabaseDaemon
