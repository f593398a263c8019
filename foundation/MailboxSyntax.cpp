#include "foundation/MailboxSyntax.h"

#include "foundation/Exception.h"
#include "foundation/IPAddress.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>

namespace Vellum::MailboxSyntax {
namespace {

constexpr std::size_t maxStrictMailbox = 254; // a path of 256 octets less its brackets
constexpr std::size_t maxStrictLocal = 64;
constexpr std::size_t maxStrictDomain = 255;
constexpr std::size_t maxLabel = 63;

bool isLetterOrDigit(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool isControl(char c) {
    auto const byte = static_cast<std::uint8_t>(c);
    return byte < 0x20 || byte == 0x7f;
}

bool isPrintableAscii(char c) {
    return c >= 0x20 && c < 0x7f;
}

bool sameLetter(char lower, char any) {
    return lower == (any >= 'A' && any <= 'Z' ? any - 'A' + 'a' : any);
}

bool isAtomCharacter(char c) {
    return isLetterOrDigit(c) || std::string_view("!#$%&'*+-/=?^_`{|}~").find(c) != std::string_view::npos;
}

bool isQuoted(std::string_view text) {
    return !text.empty() && text.front() == '"';
}

// The length of the quoted string at the front of `text`, both quotes included; 0 when there is none or it never ends.
std::size_t quotedLength(std::string_view text) {
    if (!isQuoted(text)) {
        return 0;
    }
    for (std::size_t i = 1; i < text.size(); ++i) {
        if (text[i] == '"') {
            return i + 1;
        }
        if (text[i] == '\\') {
            ++i; // whatever follows is taken as it is
        }
    }
    return 0;
}

// Whether `text` splits at `separator` into pieces that are all `valid`.
template <class Valid>
bool allPieces(std::string_view text, char separator, Valid valid) {
    for (;;) {
        std::size_t const end = text.find(separator);
        if (!valid(text.substr(0, end))) {
            return false;
        }
        if (end == std::string_view::npos) {
            return true;
        }
        text.remove_prefix(end + 1);
    }
}

bool isAtom(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), isAtomCharacter);
}

bool isLabel(std::string_view text) {
    return !text.empty() && text.size() <= maxLabel && isLetterOrDigit(text.front()) && isLetterOrDigit(text.back()) &&
           std::all_of(text.begin(), text.end(), [](char c) { return isLetterOrDigit(c) || c == '-'; });
}

// How a byte of a mailbox can matter to isOrdinary().
enum class Kind : std::uint8_t { plain, at, special };
constexpr std::array<Kind, 256> kinds = [] {
    std::array<Kind, 256> all{};
    std::fill_n(all.begin(), 0x20, Kind::special);
    for (unsigned char const c : {'\x7f', ' ', '<', '>', '"'}) {
        all[c] = Kind::special;
    }
    all['@'] = Kind::at;
    return all;
}();

bool isAddressOfFamily(std::string_view text, bool v6) {
    try {
        return IPAddress(std::string(text)).isV6() == v6;
    } catch (Exception const&) {
        return false;
    }
}

// "[192.0.2.1]" or "[IPv6:2001:db8::1]". Other tags are for protocols that do not exist (no other is registered).
bool isAddressLiteral(std::string_view text) {
    constexpr std::string_view v6Tag = "ipv6:";
    if (text.size() < 2 || text.front() != '[' || text.back() != ']') {
        return false;
    }
    text = text.substr(1, text.size() - 2);
    bool const tagged = text.size() > v6Tag.size() && std::equal(v6Tag.begin(), v6Tag.end(), text.begin(), sameLetter);
    return isAddressOfFamily(tagged ? text.substr(v6Tag.size()) : text, tagged);
}

} // namespace

Parts split(std::string_view mailbox) {
    std::size_t const quoted = quotedLength(mailbox);
    if (quoted != 0 && quoted == mailbox.size()) {
        return {mailbox, {}, false};
    }
    bool const atAfterQuotes = quoted != 0 && mailbox[quoted] == '@';
    std::size_t const at = atAfterQuotes ? quoted : mailbox.rfind('@');
    if (at == std::string_view::npos) {
        return {mailbox, {}, false};
    }
    return {mailbox.substr(0, at), mailbox.substr(at + 1), true};
}

bool isOrdinary(std::string_view mailbox) {
    std::size_t at = 0;
    for (std::size_t i = 0; i < mailbox.size(); ++i) {
        Kind const kind = kinds[static_cast<std::uint8_t>(mailbox[i])];
        if (kind == Kind::plain) {
            continue;
        }
        if (kind == Kind::special || at != 0 || i == 0) {
            return false;
        }
        at = i;
    }
    return at != 0 && at + 1 < mailbox.size();
}

char const* problemOfLoose(std::string_view mailbox) {
    if (isOrdinary(mailbox)) {
        return nullptr;
    }
    if (std::any_of(mailbox.begin(), mailbox.end(), isControl)) {
        return "it holds a control character";
    }
    Parts const parts = split(mailbox);
    if (parts.local.empty()) {
        return "nothing is before the '@'";
    }
    if (parts.hasDomain && parts.domain.empty()) {
        return "nothing is after the '@'";
    }
    constexpr std::string_view refused = " <>@";
    bool const localIsQuoted = quotedLength(parts.local) == parts.local.size();
    if ((!localIsQuoted && parts.local.find_first_of(refused) != std::string_view::npos) ||
        parts.domain.find_first_of(refused) != std::string_view::npos) {
        return "a blank, an angle bracket or a second '@' is outside quotes";
    }
    return nullptr;
}

char const* problemOfStrict(std::string_view mailbox) {
    Parts const parts = split(mailbox);
    if (!parts.hasDomain) {
        return "it has no domain";
    }
    if (mailbox.size() > maxStrictMailbox || parts.local.size() > maxStrictLocal ||
        parts.domain.size() > maxStrictDomain) {
        return "it is longer than RFC 5321 allows";
    }
    bool const quoted = quotedLength(parts.local) == parts.local.size() && isQuoted(parts.local) &&
                        std::all_of(parts.local.begin(), parts.local.end(), isPrintableAscii);
    if (!quoted && !allPieces(parts.local, '.', isAtom)) {
        return "what is before the '@' is neither atoms with dots between them nor a quoted string";
    }
    if (!isAddressLiteral(parts.domain) && !allPieces(parts.domain, '.', isLabel)) {
        return "what is after the '@' is neither a domain nor an address literal";
    }
    return nullptr;
}

} // namespace Vellum::MailboxSyntax
