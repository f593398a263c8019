#include "daemon/AddressFolding.h"

#include "daemon/AsciiCase.h"
#include "daemon/BounceAddress.h"
#include "foundation/MailboxSyntax.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

namespace Vellum::Daemon {
namespace {

void appendLower(std::string& out, std::string_view text) {
    auto const begin = static_cast<std::ptrdiff_t>(out.size());
    out += text;
    std::transform(out.begin() + begin, out.end(), out.begin() + begin, lowerAscii);
}

// user+extension without the extension; "+x" alone has no user before it.
std::string_view withoutExtension(std::string_view localPart) {
    std::size_t const plus = localPart.find('+');
    return plus == 0 ? localPart : localPart.substr(0, plus);
}

// Nearly every address that has nothing to fold is told by one look at its bytes: no capital, no '+', no digit.
// A machine-made local part without a digit has nothing that could be replaced, save a signature, which has '='.
bool mayFold(std::string_view address) {
    return std::any_of(address.begin(), address.end(),
                       [](char c) { return isUpperAscii(c) || c == '+' || c == '=' || (c >= '0' && c <= '9'); });
}

struct Folder {
    AddressFolding const& settings;
    bool isSender;

    std::string_view fold(std::string_view address, std::string& room) const {
        if (!mayFold(address)) {
            return address;
        }
        room.clear();
        append(room, address);
        return room == address ? address : room;
    }

    void append(std::string& out, std::string_view address) const {
        MailboxSyntax::Parts const parts = MailboxSyntax::split(address);
        thread_local std::string domain; // keeps its memory from one address to the next
        domain.clear();
        appendLower(domain, parts.domain);
        if (parts.local.starts_with('"')) {
            out += parts.local;
        } else {
            appendLocalPart(out, parts.local, domain);
            if (settings.lowercaseLocalPart) {
                std::transform(out.begin(), out.end(), out.begin(), lowerAscii);
            }
        }
        if (parts.hasDomain) {
            out += '@';
            out += domain;
        }
    }

    void appendLocalPart(std::string& out, std::string_view localPart, std::string_view domain) const {
        bool const numbers = isSender && settings.bounceDigits;
        std::size_t const signature = numbers ? BounceAddress::appendSignature(out, localPart) : 0;
        bool const machineMade = numbers && (signature != 0 || BounceAddress::isMachineMade(localPart, domain));
        localPart.remove_prefix(signature);
        if (settings.extension) {
            localPart = withoutExtension(localPart);
        }
        if (machineMade) {
            BounceAddress::appendWithoutNumbers(out, localPart);
        } else {
            out += localPart;
        }
    }
};

} // namespace

std::string_view AddressFolding::sender(std::string_view address, std::string& room) const {
    return Folder{*this, true}.fold(address, room);
}

std::string_view AddressFolding::recipient(std::string_view address, std::string& room) const {
    return Folder{*this, false}.fold(address, room);
}

} // namespace Vellum::Daemon
