// What a content filter has found, read from the headers that it added.
//
//   "X-Spam-Flag: YES*"    a header's name, a colon, and a pattern for its value (foundation/StringPattern.h)
//
// Whoever sends a message can write such headers into it: that only does harm to himself, but an administrator should
// have the filter remove them all the same, as its manual says.
#pragma once

#include "foundation/StringPattern.h"

#include <string>
#include <string_view>
#include <vector>

namespace Vellum::Daemon {

class HeaderRule {
  public:
    // Reads the form above. Throws Exception naming the text and what is allowed.
    static HeaderRule parse(std::string const& text);

    // `value` may be folded over several lines; it is matched in one line, without blanks around it. Letter case never
    // counts.
    bool matches(std::string_view name, std::string_view value) const;

  private:
    std::string m_name;
    StringPattern m_value;
};

struct ContentRules {
    std::vector<HeaderRule> spam;
    std::vector<HeaderRule> infected;

    bool empty() const { return spam.empty() && infected.empty(); }
};

// What the headers of one message say.
struct ContentVerdict {
    bool spam = false;
    bool infected = false;

    // Takes one header into account.
    void read(ContentRules const& rules, std::string_view name, std::string_view value);
};

} // namespace Vellum::Daemon
