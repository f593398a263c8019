// A pattern in the first line, as an exempt rule has it, and the text that it is held against.
#include "foundation/StringPattern.h"
#include "fuzz/FuzzTarget.h"
#include "fuzz/Input.h"
#include "fuzz/Parsed.h"

namespace Vellum::Fuzz {
namespace {

// Lower case of Latin-1.
unsigned char folded(char c) {
    auto const byte = static_cast<unsigned char>(c);
    bool const upper = (byte >= 'A' && byte <= 'Z') || (byte >= 0xc0 && byte <= 0xde && byte != 0xd7);
    return upper ? static_cast<unsigned char>(byte + 0x20) : byte;
}

// Wildcards, the slow and plain way: which beginnings of the text does the pattern so far match?
bool matchesWildcards(std::string_view pattern, std::string_view text) {
    std::vector<bool> ends(text.size() + 1, false);
    ends[0] = true;
    for (char const c : pattern) {
        std::vector<bool> next(text.size() + 1, false);
        bool any = false;
        for (std::size_t i = 0; i <= text.size(); ++i) {
            any = any || ends[i];
            bool const one = i > 0 && ends[i - 1] && (c == '?' || folded(c) == folded(text[i - 1]));
            next[i] = c == '*' ? any : one;
        }
        ends = next;
    }
    return ends[text.size()];
}

void run(std::string_view input) {
    constexpr std::size_t longest = 200; // the reference takes the product of both
    Input lines(input);
    std::string const pattern(lines.line());
    std::string const text(lines.bytes(longest));
    bool const expression = pattern.size() >= 2 && pattern.front() == '/' && pattern.back() == '/';
    auto const made = parsed<StringPattern>(pattern);
    require(expression || made || pattern.size() > longest, "wildcards are always a pattern");
    if (!made) {
        return;
    }
    require(made->asString() == pattern, "a pattern's text is what it was written as");
    bool const matches = made->matches(text);
    require(matches == StringPattern(made->asString()).matches(text), "a pattern's text makes the same pattern");
    if (!expression && pattern.size() <= longest) {
        require(matches == (pattern.empty() || matchesWildcards(pattern, text)), "wildcards match as they should");
    }
}

Target const target("pattern", run);

} // namespace
} // namespace Vellum::Fuzz
