#include "tools/vellumctl/EndpointRecord.h"

#include "foundation/Exception.h"

#include <cstring>

namespace Vellum::Tools {

EndpointRecord EndpointRecord::of(mms_reputation_display_packet const& packet) {
    return {{packet.msisdn, strnlen(packet.msisdn, sizeof packet.msisdn)}, packet.score, packet.expiry};
}

void EndpointRecord::decode(std::string_view payload) {
    mms_reputation_display_packet packet;
    if (payload.size() != sizeof packet) {
        throw Exception("EndpointRecord::decode", Exception::failure, "EndpointRecord")
            .stringParameter("a record of " + std::to_string(payload.size()) + " bytes, expected " +
                             std::to_string(sizeof packet));
    }
    std::memcpy(&packet, payload.data(), sizeof packet);
    *this = of(packet);
}

} // namespace Vellum::Tools
