#include "tools/vellumctl/ReputationRecord.h"

#include "reputation/ReputationDisplay.h"
#include "reputation/ScoreCalculator.h"
#include "tools/vellumctl/Payload.h"

#include <array>
#include <cstddef>
#include <cstring>

namespace Vellum::Tools {
namespace {

using Reputation::Packet;
using Reputation::RecordPacket;

constexpr std::array<std::string_view, 4> stateNames{"unset", "trusted", "watched", "blocked"};

} // namespace

void ReputationRecord::decode(std::string_view payload) {
    expectSize("ReputationRecord", payload, sizeof(Packet));
    address = IPAddress(at<ip_addr_t>(payload, offsetof(Packet, address)));
    score = at<std::uint32_t>(payload, offsetof(Packet, score));
    state = at<std::uint32_t>(payload, offsetof(Packet, state));
    lastModified = at<std::int64_t>(payload, offsetof(Packet, lastModified));
}

std::string reputationStateText(std::uint32_t state) {
    return state < stateNames.size() ? std::string(stateNames[state]) : std::to_string(state);
}

std::optional<std::uint32_t> parseReputationState(std::string_view text) {
    for (std::uint32_t state = 0; state < stateNames.size(); ++state) {
        if (text == stateNames[state] || text == std::to_string(state)) {
            return state;
        }
    }
    return std::nullopt;
}

void ReputationHour::decode(std::string_view payload) {
    expectSize("ReputationHour", payload, sizeof(RecordPacket));
    period = at<std::uint32_t>(payload, offsetof(RecordPacket, period));
    std::memcpy(&counters, payload.data() + offsetof(RecordPacket, counters), sizeof counters);
}

std::int64_t ReputationHour::from() const {
    return static_cast<std::int64_t>(period) * Reputation::secondsPerPeriod;
}

std::uint32_t ReputationHour::score() const {
    return Reputation::ScoreCalculator::hourScore(counters);
}

} // namespace Vellum::Tools
