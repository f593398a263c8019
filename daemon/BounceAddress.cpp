#include "daemon/BounceAddress.h"

#include "daemon/AsciiCase.h"

#include <algorithm>
#include <array>

namespace Vellum::Daemon::BounceAddress {
namespace {

constexpr char folded = '#';

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool isHexDigit(char c) {
    return isDigit(c) || (lowerAscii(c) >= 'a' && lowerAscii(c) <= 'f');
}

bool isLetterOrDigit(char c) {
    return isDigit(c) || (lowerAscii(c) >= 'a' && lowerAscii(c) <= 'z');
}

std::size_t digitsIn(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), isDigit));
}

// The run of letters and digits at the front of `text`.
std::string_view firstRun(std::string_view text) {
    auto const end = std::find_if_not(text.begin(), text.end(), [](char c) { return isLetterOrDigit(c); });
    return text.substr(0, static_cast<std::size_t>(end - text.begin()));
}

// Fewer digits in a word are part of a name: x11-users, mp3-list.
bool isNumber(std::string_view run) {
    std::size_t const digits = digitsIn(run);
    return digits >= 3 || (digits > 0 && digits == run.size());
}

bool isLongHexNumber(std::string_view run) {
    constexpr std::size_t shortest = 16; // half of a UUID; the shortest that no name looks like
    return run.size() >= shortest && std::all_of(run.begin(), run.end(), isHexDigit) && digitsIn(run) >= 4;
}

template <class Wanted>
bool anyRun(std::string_view text, Wanted wanted) {
    while (!text.empty()) {
        std::string_view const run = firstRun(text);
        if (wanted(run)) {
            return true;
        }
        text.remove_prefix(std::max<std::size_t>(run.size(), 1));
    }
    return false;
}

// "bounce", "Returns", "bounce42"; not "returnacctr5391".
bool namesBounceHandler(std::string_view run) {
    constexpr std::array<std::string_view, 5> words{"bounce", "return", "reply", "noreply", "unsub"};
    while (!run.empty() && isDigit(run.back())) {
        run.remove_suffix(1);
    }
    if (run.ends_with('s') || run.ends_with('S')) {
        run.remove_suffix(1);
    }
    return std::any_of(words.begin(), words.end(), [run](std::string_view word) {
        return run.size() == word.size() && startsWithIgnoringCase(run, word);
    });
}

bool hasBounceLabel(std::string_view domain) {
    for (;;) {
        if (domain.starts_with("bounce") || domain.starts_with("return")) {
            return true;
        }
        std::size_t const dot = domain.find('.');
        if (dot == std::string_view::npos) {
            return false;
        }
        domain.remove_prefix(dot + 1);
    }
}

// Walks over the fields of a signature and writes it down as it goes.
class Signature {
  public:
    Signature(std::string& out, std::string_view text) : m_out(out), m_text(text) {}

    // Keeps the next `length` bytes.
    void keep(std::size_t length) {
        m_out += m_text.substr(m_read, length);
        m_read += length;
    }
    // Replaces the field up to `separator`, which is kept. False when there is no such field.
    bool replace(std::string_view separator) { return take(separator, true); }
    bool keepField(std::string_view separator) { return take(separator, false); }
    std::size_t read() const { return m_read; }

  private:
    bool take(std::string_view separator, bool replaced) {
        std::size_t const end = m_text.find(separator, m_read);
        if (end == std::string_view::npos || end == m_read) {
            return false;
        }
        if (replaced) {
            m_out += folded;
            m_read = end;
            keep(separator.size());
        } else {
            keep(end - m_read + separator.size());
        }
        return true;
    }

    std::string& m_out;
    std::string_view m_text;
    std::size_t m_read = 0;
};

// SRS0=hash=time=domain=user, SRS1=hash=forwarder==hash=time=domain=user. The first separator may also be + or -.
// The second of SRS1 follows whatever the first forwarder used, nearly always '='.
bool readSrs(Signature& signature, bool twice) {
    signature.keep(5); // "SRS0="
    if (!twice) {
        return signature.replace("=") && signature.replace("=");
    }
    return signature.replace("=") && signature.keepField("==") && signature.replace("=") && signature.replace("=");
}

bool isSrs(std::string_view text, std::string_view name) {
    return startsWithIgnoringCase(text, name) && text.size() > name.size() &&
           std::string_view("=+-").find(text[name.size()]) != std::string_view::npos;
}

// A name, what varies, a separator. A first field of prvs that is no number is the user: the order was once reversed,
// and the number behind it is then found like any other. A number that was replaced is one still: what is folded stays
// as it is.
struct Tagged {
    std::string_view name;
    std::string_view separator;
    bool numbersOnly;
};
constexpr std::array<Tagged, 3> taggedForms{{
    {"prvs=", "=", true},
    {"msprvs1=", "=", false},
    {"btv1==", "==", false},
}};

bool readSignature(Signature& signature, std::string_view text) {
    if (isSrs(text, "srs0") || isSrs(text, "srs1")) {
        return readSrs(signature, text[3] == '1');
    }
    for (Tagged const& form : taggedForms) {
        if (startsWithIgnoringCase(text, form.name)) {
            std::string_view const field = text.substr(form.name.size());
            signature.keep(form.name.size());
            return (!form.numbersOnly || field.starts_with(folded) || isNumber(firstRun(field))) &&
                   signature.replace(form.separator);
        }
    }
    return false;
}

} // namespace

bool isMachineMade(std::string_view localPart, std::string_view domain) {
    return localPart.find('=') != std::string_view::npos || anyRun(localPart, namesBounceHandler) ||
           anyRun(localPart, isLongHexNumber) || hasBounceLabel(domain);
}

void appendWithoutNumbers(std::string& out, std::string_view localPart) {
    while (!localPart.empty()) {
        std::string_view const run = firstRun(localPart);
        if (run.empty()) {
            out += localPart.front();
            localPart.remove_prefix(1);
        } else if (isNumber(run)) {
            out += folded;
            localPart.remove_prefix(run.size());
        } else {
            out += run;
            localPart.remove_prefix(run.size());
        }
    }
}

std::size_t appendSignature(std::string& out, std::string_view localPart) {
    std::size_t const before = out.size();
    Signature signature(out, localPart);
    if (!readSignature(signature, localPart) || signature.read() == localPart.size()) {
        out.resize(before);
        return 0;
    }
    return signature.read();
}

} // namespace Vellum::Daemon::BounceAddress
