#include "tools/vellumctl/RateRecord.h"

#include "foundation/Exception.h"
#include "senderratecontrol/SenderRateControlDisplay.h"
#include "tools/vellumctl/Payload.h"

#include <cstddef>
#include <cstring>
#include <numeric>

namespace Vellum::Tools {
namespace {

using SenderRateControl::Packet;
using SenderRateControl::RecordPacket;

} // namespace

void RateRecord::decode(std::string_view payload) {
    expectSize("RateRecord", payload, sizeof(Packet));
    auto const length = at<std::int32_t>(payload, offsetof(Packet, length));
    if (length < 0 || static_cast<std::size_t>(length) > Packet::addressSize) {
        throw Exception("RateRecord::decode", Exception::failure, "RateRecord")
            .stringParameter("an address of " + std::to_string(length) + " bytes, expected 0 to " +
                             std::to_string(Packet::addressSize));
    }
    sender = payload.substr(offsetof(Packet, address), static_cast<std::size_t>(length));
    totals = at<RateCounts>(payload, offsetof(Packet, totals));
    state = at<std::uint32_t>(payload, offsetof(Packet, state));
    blockedUntil = at<std::int64_t>(payload, offsetof(Packet, blockedUntil));
    reason = at<std::uint32_t>(payload, offsetof(Packet, blockedReason));
}

void RatePeriod::decode(std::string_view payload) {
    expectSize("RatePeriod", payload, sizeof(RecordPacket));
    period = at<std::uint32_t>(payload, offsetof(RecordPacket, period));
    counts = at<RateCounts>(payload, offsetof(RecordPacket, record));
}

std::int64_t RatePeriod::from() const {
    return static_cast<std::int64_t>(period) * SenderRateControl::periodSeconds;
}

std::uint64_t RatePeriod::together() const {
    return std::accumulate(counts.begin(), counts.end(), std::uint64_t{0});
}

std::string rateStateText(std::uint32_t state) {
    using SenderRateControl::RateControlState;
    switch (static_cast<RateControlState>(state)) {
    case RateControlState::normal:
        return "normal";
    case RateControlState::blocked:
        return "blocked";
    }
    return std::to_string(state);
}

std::string rateReasonText(std::uint32_t reason) {
    return reason == 0 ? "-" : "count" + std::to_string(reason);
}

} // namespace Vellum::Tools
