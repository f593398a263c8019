// A text pattern as mail administrators write them.
//
//   *.example.org     wildcards: * is any run of characters, ? is any one character; the whole text must match
//   /^bounce-\d+@/    between slashes: an RE2 expression, found anywhere in the text
//   (empty)           no condition: every text matches
//
// Letter case never counts. RE2 runs in time linear in the text, so no pattern can be made to run away. Texts are
// treated as bytes (Latin-1), so invalid UTF-8 matches like any other.
// A value; matching is const and safe from many threads. Copies share the compiled expression.
#pragma once

#include <memory>
#include <string>

namespace re2 {
class RE2;
}

namespace Vellum {

class StringPattern {
  public:
    StringPattern() = default; // the empty pattern
    // Throws Exception naming the pattern and what RE2 says of it.
    explicit StringPattern(std::string const& pattern);

    bool matches(std::string const& text) const;
    bool isEmpty() const { return m_pattern.empty(); }
    std::string const& asString() const { return m_pattern; } // as written

    // Equal when written the same.
    bool operator==(StringPattern const& other) const { return m_pattern == other.m_pattern; }

  private:
    std::string m_pattern;
    std::shared_ptr<re2::RE2 const> m_expression; // null for the empty pattern
};

} // namespace Vellum
