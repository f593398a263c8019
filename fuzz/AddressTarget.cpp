// An address: as text, and as the bytes of a packet.
#include "foundation/IPAddress.h"
#include "fuzz/FuzzTarget.h"
#include "fuzz/Parsed.h"

#include <arpa/inet.h>
#include <cstring>

namespace Vellum::Fuzz {
namespace {

// The C library's word for it.
bool isAddress(std::string_view text) {
    std::string const terminated(text);
    unsigned char bytes[16];
    return text.find('\0') == std::string_view::npos &&
           (inet_pton(AF_INET, terminated.c_str(), bytes) == 1 || inet_pton(AF_INET6, terminated.c_str(), bytes) == 1);
}

void checkValue(IPAddress const& address) {
    require(IPAddress(address.asIpAddr()) == address, "the bytes of an address read back");
    std::string const text = address.asString();
    require(address.isNull() ? text.empty() : IPAddress(text) == address, "the text of an address reads back");
    require(address.isNull() || IPAddress(text).asString() == text, "an address has one text");
    require(!(address < address), "no address is before itself");
}

void run(std::string_view input) {
    auto const fromText = parsed<IPAddress>(input);
    require(fromText.has_value() == isAddress(input), "an address is what the C library takes for one");
    if (fromText) {
        checkValue(*fromText);
    }
    if (input.size() >= sizeof(ip_addr_t)) {
        ip_addr_t raw;
        std::memcpy(&raw, input.data(), sizeof raw);
        auto const fromBytes = accepted([&] { return IPAddress(raw); });
        require(fromBytes.has_value() == (raw.family == 0 || raw.family == 4 || raw.family == 6),
                "the family alone tells whether bytes are an address");
        if (fromBytes) {
            checkValue(*fromBytes);
        }
    }
}

Target const target("address", run);

} // namespace
} // namespace Vellum::Fuzz
