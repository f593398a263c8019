#include "foundation/database/ScriptOutcomes.h"

#include "foundation/Escape.h"

#include <charconv>

namespace Vellum::DatabaseDaemon {
namespace {

// The first word of `text`, which is then what is behind the blank that ends it.
std::string_view takeWord(std::string_view& text) {
    std::size_t const blank = text.find(' ');
    std::string_view const word = text.substr(0, blank);
    text.remove_prefix(blank == std::string_view::npos ? text.size() : blank + 1);
    return word;
}

template <class Number>
bool takeNumber(std::string_view& text, Number& number) {
    std::string_view const word = takeWord(text);
    auto const [last, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    return error == std::errc() && last == word.data() + word.size();
}

void parseLine(std::string_view line, ScriptOutcomes& outcomes) {
    std::int32_t code = 0;
    std::uint64_t number = 0;
    long time = 0;
    if (!takeNumber(line, code)) {
        return;
    }
    std::string_view const what = takeWord(line);
    if (!takeNumber(line, number) || !takeNumber(line, time)) {
        return;
    }
    if (what == "ran") {
        outcomes[code].ran = {number, time};
    } else if (what == "refused") {
        outcomes[code].refused = {number, time, escapeControls(line)};
    }
}

} // namespace

std::string asText(ScriptOutcomes const& outcomes) {
    std::string text;
    auto const add = [&text](std::int32_t code, char const* what, std::uint64_t number, long time) {
        text += std::to_string(code) + ' ' + what + ' ' + std::to_string(number) + ' ' + std::to_string(time);
    };
    for (auto const& [code, outcome] : outcomes) {
        if (outcome.ran) {
            add(code, "ran", outcome.ran->number, outcome.ran->acceptedAt);
            text += '\n';
        }
        if (outcome.refused) {
            add(code, "refused", outcome.refused->number, outcome.refused->time);
            text += ' ' + escapeControls(outcome.refused->reason) + '\n';
        }
    }
    return text;
}

ScriptOutcomes parseScriptOutcomes(std::string_view text) {
    ScriptOutcomes outcomes;
    while (!text.empty()) {
        std::size_t const end = text.find('\n');
        parseLine(text.substr(0, end), outcomes);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return outcomes;
}

} // namespace Vellum::DatabaseDaemon
