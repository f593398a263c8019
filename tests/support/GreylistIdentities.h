// Identities for tests, from texts.
#pragma once

#include "greylist/DynamicExemptId.h"
#include "greylist/TupleId.h"

#include <string>

namespace Vellum::GreyList {

// A mailbox that holds exactly these bytes; "" is null. Nothing is checked.
inline EmailAddress mailbox(std::string const& address) {
    return EmailAddress::fromAddress(address);
}

inline TupleId tuple(std::string const& network, std::string const& sender, std::string const& recipient) {
    return TupleId(IPAddressMask(network), mailbox(sender), mailbox(recipient));
}
// Number n of a row of different tuples, in ascending order as long as n is below a million.
inline TupleId tuple(unsigned int n) {
    std::string const digits = std::to_string(1000000 + n);
    return tuple("192.0.2.0/24", "sender" + digits + "@example.net", "recipient@example.org");
}

inline DynamicExemptId exemption(std::string const& network, std::string const& domain) {
    return DynamicExemptId(IPAddressMask(network), domain);
}
inline DynamicExemptId exemption(unsigned int n) {
    return exemption("192.0.2.0/24", "d" + std::to_string(1000000 + n) + ".example");
}

} // namespace Vellum::GreyList
