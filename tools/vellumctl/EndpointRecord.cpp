#include "tools/vellumctl/EndpointRecord.h"

#include "tools/vellumctl/Payload.h"

#include <cstring>

namespace Vellum::Tools {

EndpointRecord EndpointRecord::of(mms_reputation_display_packet const& packet) {
    return {{packet.msisdn, strnlen(packet.msisdn, sizeof packet.msisdn)}, packet.score, packet.expiry};
}

void EndpointRecord::decode(std::string_view payload) {
    expectSize("EndpointRecord", payload, sizeof(mms_reputation_display_packet));
    *this = of(at<mms_reputation_display_packet>(payload, 0));
}

} // namespace Vellum::Tools
