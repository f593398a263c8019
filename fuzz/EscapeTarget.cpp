// Any bytes on their way into a log line, onto a terminal, and into JSON.
#include "foundation/Escape.h"
#include "fuzz/FuzzTarget.h"
#include "fuzz/TerminalText.h"
#include "tools/vellumctl/JsonText.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace Vellum::Fuzz {
namespace {

int hexDigit(char c) {
    return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

// Reads escapeForLog() back.
std::string unescaped(std::string_view text) {
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            plain += text[i];
        } else if (text[i + 1] == 'x' && i + 3 < text.size() && hexDigit(text[i + 2]) >= 0 &&
                   hexDigit(text[i + 3]) >= 0) {
            plain += static_cast<char>(hexDigit(text[i + 2]) * 16 + hexDigit(text[i + 3]));
            i += 3;
        } else if (std::size_t const known = std::string_view("nrt").find(text[i + 1]); known < 3) {
            plain += "\n\r\t"[known];
            ++i;
        } else {
            plain += text[i];
        }
    }
    return plain;
}

void run(std::string_view input) {
    std::string const once = escapeControls(input);
    require(escapeControls(once) == once, "what is escaped stays as it is");
    require(std::none_of(once.begin(), once.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }),
            "what is escaped holds no control character");
    require(!isPlainText(input) || once == input, "plain text needs no escaping");
    std::string const forLog = escapeForLog(input);
    require(unescaped(forLog) == input, "what is escaped for a log reads back");
    require(escapeControls(forLog) == forLog, "what is escaped for a log is escaped");

    std::string json;
    bool const whole = Tools::appendJsonString(json, input);
    auto const read = nlohmann::json::parse(json, nullptr, false);
    require(read.is_string(), "a JSON string is one");
    require(!whole || read.get<std::string>() == input, "a JSON string of UTF-8 reads back");
    require(isTerminalText(json), "a JSON string drives no terminal");
}

Target const target("escape", run);

} // namespace
} // namespace Vellum::Fuzz
