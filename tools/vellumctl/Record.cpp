#include "tools/vellumctl/Record.h"

#include "greylist/GlDisplay.h"
#include "tools/vellumctl/Payload.h"

#include <cstddef>
#include <cstring>

namespace Vellum::Tools {
namespace {

using GreyList::Packet;

// A field of text up to its NUL; the last byte is one in any record of a daemon.
std::string_view textAt(std::string_view payload, std::size_t offset) {
    std::string_view const field = payload.substr(offset, Packet::textSize - 1);
    return field.substr(0, field.find('\0'));
}

} // namespace

std::string_view stateText(State state) {
    switch (state) {
    case State::waiting:
        return "waiting";
    case State::passed:
        return "passed";
    case State::active:
        return "active";
    case State::expired:
        return "expired";
    }
    return "";
}

void Record::decode(std::string_view payload) {
    expectSize("Record", payload, sizeof(Packet));
    network = IPAddressMask(at<ip_addr_t>(payload, offsetof(Packet, address)),
                            at<std::uint32_t>(payload, offsetof(Packet, prefixLength)));
    sender = textAt(payload, offsetof(Packet, sender));
    recipient = textAt(payload, offsetof(Packet, recipient));
    passed = payload[offsetof(Packet, passed)] != 0;
    passTime = at<std::int64_t>(payload, offsetof(Packet, passTime));
    expiry = at<std::int64_t>(payload, offsetof(Packet, expiry));
}

State Record::stateAt(std::int64_t now, Listed listed) const {
    if (listed == Listed::exemptions) {
        return expiry <= now ? State::expired : State::active;
    }
    if (expiry < now) {
        return State::expired;
    }
    return passed || passTime <= now ? State::passed : State::waiting;
}

} // namespace Vellum::Tools
