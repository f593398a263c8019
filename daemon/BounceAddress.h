// Finds what a machine made up anew in a sender's local part, and takes it out (the forms are in AddressFolding.h).
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Vellum::Daemon::BounceAddress {

// Whether the address looks made by a machine: VERP, a bounce handler's name or domain, a long hexadecimal number.
// `domain` is in lower case.
bool isMachineMade(std::string_view localPart, std::string_view domain);

// Appends `localPart` to `out` with '#' in place of its numbers.
void appendWithoutNumbers(std::string& out, std::string_view localPart);

// A signature or timestamp in front of the real local part (BATV, SRS): appends it to `out` with '#' in place of what
// varies, and answers how many bytes of `localPart` it was; 0 when there is none.
std::size_t appendSignature(std::string& out, std::string_view localPart);

} // namespace Vellum::Daemon::BounceAddress
