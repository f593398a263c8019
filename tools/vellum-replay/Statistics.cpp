#include "tools/vellum-replay/Statistics.h"

#include <algorithm>

namespace Vellum::Tools {

namespace {

constexpr long secondsPerHour = 3600;

bool isDeferral(Daemon::Verdict::Reason reason) {
    return actionOf(reason) == Daemon::Verdict::Action::defer;
}

} // namespace

void Counts::add(Delivery const& delivery) {
    ++messages;
    if (!isDeferral(delivery.first)) {
        return;
    }
    ++deferred;
    if (!delivery.arrived) {
        ++lost;
        return;
    }
    delays += static_cast<std::uint64_t>(delivery.delay);
    longest = std::max(longest, delivery.delay);
}

void Statistics::add(Delivery const& delivery) {
    Envelope const& envelope = *delivery.envelope;
    long const hour =
        envelope.firstAttempt - ((envelope.firstAttempt % secondsPerHour) + secondsPerHour) % secondsPerHour;
    begin = total.messages == 0 ? envelope.firstAttempt : std::min(begin, envelope.firstAttempt);
    end = std::max(end, envelope.firstAttempt + delivery.delay);
    total.add(delivery);
    ++firstReasons[static_cast<std::size_t>(delivery.first)];
    byLabel[static_cast<std::size_t>(envelope.label)].add(delivery);
    byDayHour[static_cast<std::size_t>((hour / secondsPerHour % 24 + 24) % 24)].add(delivery);
    byHour[hour].add(delivery);
    Network& network = byNetwork[delivery.network];
    network.counts.add(delivery);
    network.autoExempt += delivery.first == Daemon::Verdict::Reason::autoExempt ? 1 : 0;
    bySender[envelope.sender].add(delivery);
    if (isDeferral(delivery.first) && delivery.arrived) {
        delays.push_back(delivery.delay);
    }
}

void Statistics::add(Daemon::Verdict const& verdict) {
    ++answers[static_cast<std::size_t>(verdict.reason)];
    exemptionsEarned += verdict.exemptionEarned ? 1 : 0;
}

long Statistics::delayPercentile(unsigned int percent) {
    if (delays.empty()) {
        return 0;
    }
    std::sort(delays.begin(), delays.end());
    std::size_t const rank = (delays.size() * percent + 99) / 100; // nearest rank
    return delays[std::max<std::size_t>(rank, 1) - 1];
}

std::size_t Statistics::Hash::operator()(IPAddressMask const& network) const {
    auto const& bytes = network.prefix().bytes();
    return std::hash<std::string_view>()({reinterpret_cast<char const*>(bytes.data()), bytes.size()}) + network.cidr();
}

} // namespace Vellum::Tools
