#include "foundation/LogFormat.h"

#include "foundation/Escape.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace Vellum {
namespace {

// One conversion of a format, such as "%-08.3lld".
struct Conversion {
    std::string flags;
    int width = 0;
    int precision = -1; // -1: none given
    std::string length; // "", hh, h, l, ll, z, j, t
    char type = '\0';
};

// Renders a format whose values come from one argument list.
class Renderer {
  public:
    explicit Renderer(va_list values) { va_copy(m_values, values); }
    ~Renderer() { va_end(m_values); }
    Renderer(Renderer const&) = delete;
    Renderer& operator=(Renderer const&) = delete;

    std::vector<std::string> fields(std::string_view format) {
        std::vector<std::string> fields(1);
        while (!format.empty()) {
            char const c = format.front();
            if (c == logFieldSeparator) {
                fields.emplace_back();
            } else if (c != '%' || m_lost) {
                fields.back() += c;
            } else {
                append(fields.back(), format);
                continue;
            }
            format.remove_prefix(1);
        }
        return fields;
    }

  private:
    // Renders the conversion at the front of `format` and takes it off.
    void append(std::string& out, std::string_view& format) {
        std::string_view rest = format.substr(1);
        Conversion const conversion = parse(rest);
        std::string text;
        if (conversion.type == '%') {
            text.push_back('%');
        } else if (!render(conversion, text)) {
            m_lost = true;
            return;
        }
        out += text;
        format = rest;
    }

    Conversion parse(std::string_view& rest) {
        Conversion conversion;
        conversion.flags = take(rest, "-+ #0");
        conversion.width = number(rest, 0);
        if (conversion.width < 0) {
            conversion.width = -conversion.width;
            conversion.flags += '-';
        }
        if (!rest.empty() && rest.front() == '.') {
            rest.remove_prefix(1);
            conversion.precision = number(rest, 0);
        }
        conversion.length = take(rest, "hlzjt");
        if (!rest.empty()) {
            conversion.type = rest.front();
            rest.remove_prefix(1);
        }
        return conversion;
    }

    static std::string take(std::string_view& rest, char const* characters) {
        std::size_t const end = std::min(rest.find_first_not_of(characters), rest.size());
        std::string const taken(rest.substr(0, end));
        rest.remove_prefix(end);
        return taken;
    }

    int number(std::string_view& rest, int none) {
        if (!rest.empty() && rest.front() == '*') {
            rest.remove_prefix(1);
            return va_arg(m_values, int);
        }
        std::string const digits = take(rest, "0123456789");
        return digits.empty() ? none : std::atoi(digits.c_str());
    }

    bool render(Conversion const& conversion, std::string& out) {
        switch (conversion.type) {
        case 'd':
        case 'i':
            out = print(conversion, "j", signedValue(conversion.length));
            return true;
        case 'u':
        case 'o':
        case 'x':
        case 'X':
            out = print(conversion, "j", unsignedValue(conversion.length));
            return true;
        case 'a':
        case 'A':
        case 'e':
        case 'E':
        case 'f':
        case 'F':
        case 'g':
        case 'G':
            out = print(conversion, "", va_arg(m_values, double));
            return true;
        case 'p':
            out = print(conversion, "", va_arg(m_values, void*));
            return true;
        case 'c':
            out = padded(conversion, escapeForLog(std::string(1, static_cast<char>(va_arg(m_values, int)))));
            return true;
        case 's':
            out = padded(conversion, escapeForLog(text(conversion)));
            return true;
        default:
            return false;
        }
    }

    std::intmax_t signedValue(std::string const& length) {
        if (length == "hh") {
            return static_cast<signed char>(va_arg(m_values, int));
        }
        if (length == "h") {
            return static_cast<short>(va_arg(m_values, int));
        }
        if (length.empty()) {
            return va_arg(m_values, int);
        }
        if (length == "l") {
            return va_arg(m_values, long);
        }
        if (length == "ll") {
            return va_arg(m_values, long long);
        }
        return va_arg(m_values, std::intmax_t); // z, j, t: all of 64 bits here
    }

    std::uintmax_t unsignedValue(std::string const& length) {
        if (length == "hh") {
            return static_cast<unsigned char>(va_arg(m_values, unsigned int));
        }
        if (length == "h") {
            return static_cast<unsigned short>(va_arg(m_values, unsigned int));
        }
        if (length.empty()) {
            return va_arg(m_values, unsigned int);
        }
        if (length == "l") {
            return va_arg(m_values, unsigned long);
        }
        if (length == "ll") {
            return va_arg(m_values, unsigned long long);
        }
        return va_arg(m_values, std::uintmax_t);
    }
    static_assert(sizeof(std::size_t) == sizeof(std::intmax_t) && sizeof(std::ptrdiff_t) == sizeof(std::intmax_t));

    std::string_view text(Conversion const& conversion) {
        char const* const value = va_arg(m_values, char const*);
        if (value == nullptr) {
            return "(null)";
        }
        // With a precision the value need not end in a NUL.
        return conversion.precision < 0
                   ? std::string_view(value)
                   : std::string_view(value, strnlen(value, static_cast<std::size_t>(conversion.precision)));
    }

    static std::string padded(Conversion const& conversion, std::string text) {
        auto const width = static_cast<std::size_t>(conversion.width);
        if (text.size() < width) {
            bool const left = conversion.flags.find('-') != std::string::npos;
            text.insert(left ? text.size() : 0, width - text.size(), ' ');
        }
        return text;
    }

    // The value through snprintf, with `length` in place of the length that the format had.
    template <class Value>
    static std::string print(Conversion const& conversion, char const* length, Value value) {
        std::string format = "%";
        format.append(conversion.flags).append("*.*").append(length).push_back(conversion.type);
        auto const into = [&](char* out, std::size_t size) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
            return std::snprintf(out, size, format.c_str(), conversion.width, conversion.precision, value);
#pragma GCC diagnostic pop
        };
        int const needed = into(nullptr, 0);
        std::string out(needed < 0 ? 0 : static_cast<std::size_t>(needed), '\0');
        into(out.data(), out.size() + 1);
        return out;
    }

    va_list m_values;
    bool m_lost = false; // after an unknown conversion
};

} // namespace

std::vector<std::string> renderLogFields(char const* format, va_list values) {
    return Renderer(values).fields(format);
}

} // namespace Vellum
