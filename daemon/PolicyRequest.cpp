#include "daemon/PolicyRequest.h"

#include "foundation/Escape.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace Vellum::Daemon {
namespace {

constexpr std::array<std::string_view, policyAttributeCount> names{
    "request",
    "protocol_state",
    "protocol_name",
    "client_address",
    "client_name",
    "client_port",
    "reverse_client_name",
    "server_address",
    "server_port",
    "helo_name",
    "sender",
    "recipient",
    "recipient_count",
    "queue_id",
    "instance",
    "size",
    "etrn_domain",
    "stress",
    "sasl_method",
    "sasl_username",
    "sasl_sender",
    "ccert_subject",
    "ccert_issuer",
    "ccert_fingerprint",
    "ccert_pubkey_fingerprint",
    "encryption_protocol",
    "encryption_cipher",
    "encryption_keysize",
    "policy_context",
    "compatibility_level",
    "mail_version",
};

// A perfect hash over the names, its factor found by the compiler: first and last four characters and the length tell
// all of them apart.
constexpr std::size_t shortestName = 4;
constexpr unsigned int slotBits = 7;
constexpr std::uint8_t emptySlot = 0xff;
using Slots = std::array<std::uint8_t, std::size_t{1} << slotBits>;

constexpr std::uint32_t fourCharacters(char const* text) {
    auto const at = [text](int i) {
        return static_cast<std::uint32_t>(static_cast<unsigned char>(text[i]));
    };
    return at(0) | at(1) << 8 | at(2) << 16 | at(3) << 24;
}

constexpr std::size_t slotOf(std::string_view name, std::uint32_t factor) {
    std::uint32_t const first = fourCharacters(name.data());
    std::uint32_t const last = fourCharacters(name.data() + name.size() - shortestName);
    std::uint32_t const mixed = first + 31 * last + static_cast<std::uint32_t>(name.size());
    return (mixed * factor) >> (32 - slotBits);
}

constexpr bool fill(Slots& slots, std::uint32_t factor) {
    slots.fill(emptySlot);
    for (std::size_t i = 0; i < names.size(); ++i) {
        std::uint8_t& slot = slots[slotOf(names[i], factor)];
        if (slot != emptySlot) {
            return false;
        }
        slot = static_cast<std::uint8_t>(i);
    }
    return true;
}

constexpr std::uint32_t findFactor() {
    Slots slots{};
    std::uint32_t factor = 0x9e3779b1;
    while (!fill(slots, factor)) {
        factor += 2;
    }
    return factor;
}

constexpr std::uint32_t hashFactor = findFactor();
constexpr Slots slots = [] {
    Slots filled{};
    fill(filled, hashFactor);
    return filled;
}();

// A name as words, so that comparing takes a few instructions and no call. A name has 4 to 24 characters.
struct NamePattern {
    std::uint64_t first;  // eight characters; four of names shorter than that
    std::uint64_t middle; // the eight after the first, of names longer than sixteen; else 0
    std::uint64_t last;   // eight characters, or four
    std::size_t length;
};
constexpr std::size_t longWord = sizeof(std::uint64_t);

template <class Word>
constexpr Word wordAt(char const* text) {
    std::array<char, sizeof(Word)> characters{};
    std::copy_n(text, sizeof(Word), characters.begin());
    return std::bit_cast<Word>(characters);
}

constexpr NamePattern patternOf(std::string_view name) {
    char const* const end = name.data() + name.size();
    if (name.size() < longWord) {
        return {wordAt<std::uint32_t>(name.data()), 0, wordAt<std::uint32_t>(end - shortestName), name.size()};
    }
    std::uint64_t const middle = name.size() > 2 * longWord ? wordAt<std::uint64_t>(name.data() + longWord) : 0;
    return {wordAt<std::uint64_t>(name.data()), middle, wordAt<std::uint64_t>(end - longWord), name.size()};
}

static_assert(std::all_of(names.begin(), names.end(), [](std::string_view name) {
    return name.size() >= shortestName && name.size() <= 3 * longWord;
}));
constexpr std::array<NamePattern, policyAttributeCount> patterns = [] {
    std::array<NamePattern, policyAttributeCount> all{};
    std::transform(names.begin(), names.end(), all.begin(), patternOf);
    return all;
}();

// Whether the line, of more bytes than the name has, begins with the name and '='.
bool isAbout(char const* line, NamePattern const& name) {
    char const* const end = line + name.length;
    if (*end != '=') {
        return false;
    }
    if (name.length < longWord) {
        return wordAt<std::uint32_t>(line) == name.first && wordAt<std::uint32_t>(end - shortestName) == name.last;
    }
    return wordAt<std::uint64_t>(line) == name.first && wordAt<std::uint64_t>(end - longWord) == name.last &&
           (name.length <= 2 * longWord || wordAt<std::uint64_t>(line + longWord) == name.middle);
}

// One search of a whole piece costs far less than one in every line.
bool holdsNul(std::string_view bytes, std::size_t from) {
    return std::memchr(bytes.data() + from, '\0', bytes.size() - from) != nullptr;
}

constexpr std::size_t longestQuote = 64;

// `line 3 "HELO x\r"`: the line around `position`, as it goes into a log.
std::string quoteLine(std::string_view bytes, std::size_t position) {
    auto const number = std::count(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(position), '\n') + 1;
    std::size_t const before = position == 0 ? std::string_view::npos : bytes.rfind('\n', position - 1);
    std::size_t const start = before == std::string_view::npos ? 0 : before + 1;
    std::string_view const line = bytes.substr(start, bytes.find('\n', position) - start);
    return "line " + std::to_string(number) + " \"" + escapeForLog(line.substr(0, longestQuote)) +
           (line.size() > longestQuote ? "\"..." : "\"");
}

} // namespace

std::string_view policyAttributeName(PolicyAttribute attribute) {
    return names[static_cast<std::size_t>(attribute)];
}

std::optional<PolicyAttribute> policyAttribute(std::string_view name) {
    if (name.size() < shortestName) {
        return std::nullopt;
    }
    std::uint8_t const candidate = slots[slotOf(name, hashFactor)];
    if (candidate == emptySlot || names[candidate] != name) {
        return std::nullopt;
    }
    return static_cast<PolicyAttribute>(candidate);
}

PolicyRequestParser::Outcome PolicyRequestParser::parse(std::string_view bytes) {
    bytes = bytes.substr(0, maxBytes); // what is beyond cannot belong to this request any more
    std::size_t const known = m_scanned;
    if (bytes.size() <= known) {
        return Outcome::incomplete;
    }
    if (known == 0) {
        takeUsualLines(bytes);
    }
    while (void const* const newline = std::memchr(bytes.data() + m_scanned, '\n', bytes.size() - m_scanned)) {
        auto const end = static_cast<std::uint32_t>(static_cast<char const*>(newline) - bytes.data());
        if (end == m_lineStart) {
            return endOfRequest(bytes.substr(0, end + 1), known);
        }
        if (!takeLine(bytes.data(), end)) {
            return Outcome::broken;
        }
        m_lineStart = m_scanned = end + 1;
    }
    return endOfBytes(bytes, known);
}

PolicyRequestParser::Outcome PolicyRequestParser::endOfRequest(std::string_view bytes, std::size_t known) {
    if (m_attributes == 0) {
        return broken(Problem::noAttribute);
    }
    if (holdsNul(bytes, known)) {
        return broken(Problem::nul);
    }
    m_lineStart = m_scanned = static_cast<std::uint32_t>(bytes.size());
    m_request.m_bytes = bytes.data();
    return Outcome::complete;
}

PolicyRequestParser::Outcome PolicyRequestParser::endOfBytes(std::string_view bytes, std::size_t known) {
    if (holdsNul(bytes, known)) {
        return broken(Problem::nul);
    }
    if (bytes.size() == maxBytes) {
        return broken(Problem::tooManyBytes);
    }
    m_scanned = static_cast<std::uint32_t>(bytes.size());
    return Outcome::incomplete;
}

// Mail servers send the attributes in one order. As far as a request keeps to it, no name's end and place in the list
// need be looked for, which halves the cost. Goes on until a line is another one, or not complete; the rest is left to
// takeLine().
void PolicyRequestParser::takeUsualLines(std::string_view bytes) {
    char const* const end = bytes.data() + bytes.size();
    char const* line = bytes.data();
    std::size_t attribute = 0;
    for (; attribute < policyAttributeCount; ++attribute) {
        NamePattern const& name = patterns[attribute];
        if (static_cast<std::size_t>(end - line) <= name.length + 1 || !isAbout(line, name)) {
            break;
        }
        char const* const value = line + name.length + 1;
        // About half of the values are empty.
        auto const* const newline = static_cast<char const*>(
            *value == '\n' ? value : std::memchr(value, '\n', static_cast<std::size_t>(end - value)));
        if (newline == nullptr) {
            break;
        }
        m_request.m_values[attribute] = {static_cast<std::uint32_t>(value - bytes.data()),
                                         static_cast<std::uint32_t>(newline - value)};
        line = newline + 1;
    }
    m_attributes = static_cast<std::uint32_t>(attribute);
    m_lineStart = m_scanned = static_cast<std::uint32_t>(line - bytes.data());
}

bool PolicyRequestParser::takeLine(char const* bytes, std::uint32_t end) {
    char const* const line = bytes + m_lineStart;
    void const* const equals = std::memchr(line, '=', end - m_lineStart);
    if (equals == nullptr) {
        broken(Problem::notAnAttribute);
        return false;
    }
    if (++m_attributes > maxAttributes) {
        broken(Problem::tooManyAttributes);
        return false;
    }
    auto const nameLength = static_cast<std::uint32_t>(static_cast<char const*>(equals) - line);
    if (auto const attribute = policyAttribute({line, nameLength})) {
        std::uint32_t const value = m_lineStart + nameLength + 1;
        m_request.m_values[static_cast<std::size_t>(*attribute)] = {value, end - value};
    }
    return true;
}

PolicyRequestParser::Outcome PolicyRequestParser::broken(Problem problem) {
    m_problem = problem;
    return Outcome::broken;
}

std::string PolicyRequestParser::problem(std::string_view bytes) const {
    switch (m_problem) {
    case Problem::noAttribute:
        return "an empty line where a request should begin";
    case Problem::notAnAttribute:
        return quoteLine(bytes, m_lineStart) + " is not name=value";
    case Problem::nul:
        return quoteLine(bytes, bytes.find('\0')) + " contains a NUL byte";
    case Problem::tooManyBytes:
        return "no empty line within " + std::to_string(maxBytes) + " bytes";
    case Problem::tooManyAttributes:
        return "more than " + std::to_string(maxAttributes) + " attributes in one request";
    case Problem::none:
        break;
    }
    return "";
}

void PolicyRequestParser::next() {
    *this = PolicyRequestParser();
}

} // namespace Vellum::Daemon
