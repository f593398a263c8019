#include "daemon/AccountableSender.h"

#include "daemon/AsciiCase.h"
#include "foundation/Exception.h"

#include <algorithm>
#include <string>

namespace Vellum::Daemon {
namespace {

std::string lower(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), lowerAscii);
    return result;
}

// Domains name the same host in any case (RFC 5321, 2.4).
EmailAddress withLowerDomain(EmailAddress const& sender) {
    if (!hasUpperAscii(sender.domain())) {
        return sender;
    }
    return EmailAddress::fromAddress(std::string(sender.localPart()) + '@' + lower(sender.domain()));
}

} // namespace

EmailAddress accountableSender(EmailAddress const& sender, std::string_view authenticatedUser, bool strangers) {
    if (authenticatedUser.empty()) {
        return strangers ? withLowerDomain(sender) : EmailAddress();
    }
    try {
        return EmailAddress::parseUnquoted(lower(authenticatedUser));
    } catch (Exception const&) {
        return withLowerDomain(sender);
    }
}

std::vector<EmailAddress> accountableNames(EmailAddress const& written) {
    std::vector<EmailAddress> names{written};
    for (EmailAddress const& other : {withLowerDomain(written), EmailAddress::fromAddress(lower(written.address()))}) {
        if (std::find(names.begin(), names.end(), other) == names.end()) {
            names.push_back(other);
        }
    }
    return names;
}

} // namespace Vellum::Daemon
