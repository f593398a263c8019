#include "foundation/SettingsNesting.h"

#include <algorithm>
#include <string>

namespace Vellum {
namespace {

class NestingScan {
  public:
    explicit NestingScan(std::string_view toml) : m_rest(toml) {}

    unsigned int lineDeeperThan(unsigned int most) {
        while (!m_rest.empty()) {
            step();
            if (m_open + m_dots > most) {
                return m_line;
            }
        }
        return 0;
    }

  private:
    void step() {
        switch (m_rest.front()) {
        case '#':
            return skip(m_rest.find('\n'));
        case '"':
        case '\'':
            return skip(textLength());
        case '[':
        case '{':
            ++m_open;
            m_dots = 0;
            break;
        case ']':
        case '}':
            m_open -= m_open > 0 ? 1 : 0;
            m_dots = 0;
            break;
        case '.':
            ++m_dots;
            break;
        case '\n':
        case ',':
        case '=':
            m_dots = 0;
            break;
        default:
            break;
        }
        skip(1);
    }

    // Of the quoted text that begins here, quotes included. One that has no end goes as far as it may: to the end of
    // its line, or in three quotes to the end of the file.
    std::size_t textLength() const {
        char const quote = m_rest.front();
        std::string const three(3, quote);
        bool const hasLines = m_rest.starts_with(three);
        for (std::size_t at = hasLines ? 3 : 1; at < m_rest.size(); ++at) {
            if (m_rest[at] == '\\' && quote == '"') {
                ++at;
            } else if (hasLines && m_rest.substr(at).starts_with(three)) {
                std::size_t const end = m_rest.find_first_not_of(quote, at); // up to two of the text's own before it
                return std::min(end, m_rest.size());
            } else if (!hasLines && (m_rest[at] == quote || m_rest[at] == '\n')) {
                return m_rest[at] == quote ? at + 1 : at;
            }
        }
        return m_rest.size();
    }

    void skip(std::size_t length) {
        std::string_view const passed = m_rest.substr(0, length);
        m_line += static_cast<unsigned int>(std::count(passed.begin(), passed.end(), '\n'));
        m_rest.remove_prefix(passed.size());
    }

    std::string_view m_rest;
    unsigned int m_line = 1;
    unsigned int m_open = 0; // brackets and braces
    unsigned int m_dots = 0; // of the key at hand, or of a number
};

} // namespace

unsigned int lineNestedDeeperThan(unsigned int most, std::string_view toml) {
    return NestingScan(toml).lineDeeperThan(most);
}

} // namespace Vellum
