// A mobile subscriber number as text (ITU-T E.164), or null.
#pragma once

#include <string>

namespace Vellum {

class MSISDN {
  public:
    MSISDN() = default; // null
    // Digits with an optional leading '+', kept as written. Any other text (also null or "") gives a null number, so
    // a caller that reads foreign input tests isNull().
    explicit MSISDN(char const* text);
    explicit MSISDN(std::string const& text);

    bool isNull() const { return m_text.empty(); }
    std::string const& asString() const { return m_text; }

    bool operator==(MSISDN const& other) const { return m_text == other.m_text; }
    bool operator<(MSISDN const& other) const { return m_text < other.m_text; } // byte-wise

  private:
    std::string m_text;
};

} // namespace Vellum
