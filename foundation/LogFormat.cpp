#include "foundation/LogFormat.h"

#include "foundation/Escape.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace Vellum {
namespace {

// One conversion of a format, such as "%-08.3lld". A width or precision of "*" has its value already.
struct Conversion {
    std::string flags;
    int width = 0;
    int precision = -1; // -1: none given
    std::string length; // "", hh, h, l, ll, z, j, t
    char type = '\0';
};

// Takes the characters at the front of `text` that are among `characters`.
std::string take(std::string_view& text, char const* characters) {
    std::size_t const end = std::min(text.find_first_not_of(characters), text.size());
    std::string taken(text.substr(0, end));
    text.remove_prefix(end);
    return taken;
}

// The value by snprintf, which knows flags, width, precision and length better than we do.
template <class Value>
std::string print(Conversion const& conversion, Value value) {
    std::string format = "%";
    format.append(conversion.flags).append("*.*").append(conversion.length).push_back(conversion.type);
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

std::string padded(Conversion const& conversion, std::string text) {
    auto const width = static_cast<std::size_t>(conversion.width);
    if (text.size() < width) {
        bool const left = conversion.flags.find('-') != std::string::npos;
        text.insert(left ? text.size() : 0, width - text.size(), ' ');
    }
    return text;
}

// Renders a format whose values come from one argument list.
class Renderer {
  public:
    explicit Renderer(va_list* values) : m_values(values) {}

    std::vector<std::string> fields(std::string_view format) {
        std::vector<std::string> fields(1);
        while (!format.empty()) {
            char const c = format.front();
            if (c == '%' && !m_lost) {
                appendConversion(fields.back(), format);
                continue;
            }
            if (c == logFieldSeparator) {
                fields.emplace_back();
            } else {
                fields.back() += c;
            }
            format.remove_prefix(1);
        }
        return fields;
    }

  private:
    // The next value of the list. The analyzer loses sight of the va_copy on the way here.
    template <class Value>
    Value next() {
        return va_arg(*m_values, Value); // NOLINT(clang-analyzer-valist.Uninitialized)
    }

    // Renders the conversion at the front of `format` and takes it off, or finds that it cannot.
    void appendConversion(std::string& out, std::string_view& format) {
        std::string_view rest = format.substr(1);
        Conversion const conversion = parse(rest);
        if (append(out, conversion)) {
            format = rest;
        } else {
            m_lost = true;
        }
    }

    Conversion parse(std::string_view& rest) {
        Conversion conversion;
        conversion.flags = take(rest, "-+ #0");
        conversion.width = number(rest);
        if (conversion.width < 0) {
            conversion.width = -conversion.width;
            conversion.flags += '-';
        }
        if (!rest.empty() && rest.front() == '.') {
            rest.remove_prefix(1);
            conversion.precision = number(rest);
        }
        conversion.length = take(rest, "hlzjt");
        if (!rest.empty()) {
            conversion.type = rest.front();
            rest.remove_prefix(1);
        }
        return conversion;
    }

    // A width or precision: digits, "*" for the next value, or nothing, which means 0.
    int number(std::string_view& rest) {
        constexpr int longest = 1000000; // a larger one in a format is a mistake
        if (!rest.empty() && rest.front() == '*') {
            rest.remove_prefix(1);
            return std::clamp(next<int>(), -longest, longest);
        }
        int value = 0;
        for (char const digit : take(rest, "0123456789")) {
            value = std::min(value * 10 + (digit - '0'), longest);
        }
        return value;
    }

    bool append(std::string& out, Conversion const& conversion) {
        switch (conversion.type) {
        case '%':
            out += '%';
            return true;
        case 'd':
        case 'i':
        case 'u':
        case 'o':
        case 'x':
        case 'X':
            out += wholeNumber(conversion);
            return true;
        case 'e':
        case 'f':
        case 'g':
            out += print(conversion, next<double>());
            return true;
        case 'p':
            out += print(conversion, next<void*>());
            return true;
        case 'c':
            out += padded(conversion, escapeForLog(std::string(1, static_cast<char>(next<int>()))));
            return true;
        case 's':
            out += padded(conversion, escapeForLog(text(conversion)));
            return true;
        default:
            return false;
        }
    }

    // Signed or not: snprintf reads the same bits either way.
    std::string wholeNumber(Conversion const& conversion) {
        static_assert(sizeof(long) == sizeof(std::size_t) && sizeof(long) == sizeof(std::intmax_t));
        if (conversion.length.empty() || conversion.length.front() == 'h') {
            return print(conversion, next<int>());
        }
        return print(conversion, next<long>()); // l, ll, z, j, t: all as wide here
    }

    std::string_view text(Conversion const& conversion) {
        char const* const value = next<char const*>();
        if (value == nullptr) {
            return "(null)";
        }
        // With a precision the value need not end in a NUL.
        return conversion.precision < 0
                   ? std::string_view(value)
                   : std::string_view(value, strnlen(value, static_cast<std::size_t>(conversion.precision)));
    }

    va_list* m_values;   // borrowed
    bool m_lost = false; // after an unknown conversion
};

} // namespace

std::vector<std::string> renderLogFields(char const* format, va_list values) {
    va_list own; // a parameter of this type may be a pointer, of which there is no address to take
    va_copy(own, values);
    std::vector<std::string> fields = Renderer(&own).fields(format);
    va_end(own);
    return fields;
}

} // namespace Vellum
