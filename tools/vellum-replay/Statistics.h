// What a replay has found, counted up.
#pragma once

#include "daemon/Verdict.h"
#include "tools/vellum-replay/EnvelopeFile.h"

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Vellum::Tools {

// One row's fate.
struct Delivery {
    Envelope const* envelope = nullptr;
    IPAddressMask network;
    Daemon::Verdict::Reason first = Daemon::Verdict::Reason::incomplete; // of its first attempt
    std::uint32_t deferrals = 0;                                         // attempts that were deferred
    bool arrived = false;
    long delay = 0; // from first attempt to arrival, or to the last attempt
};

struct Counts {
    std::uint64_t messages = 0;
    std::uint64_t deferred = 0; // messages that had to come back
    std::uint64_t lost = 0;     // of those, never let in: the server gave up, or it never came back
    std::uint64_t delays = 0;   // seconds, of all that arrived after they were deferred
    long longest = 0;           // seconds, of one

    void add(Delivery const& delivery);
    std::uint64_t arrivedLate() const { return deferred - lost; }
    long meanDelay() const { return arrivedLate() == 0 ? 0 : static_cast<long>(delays / arrivedLate()); }
};

class Statistics {
  public:
    void add(Delivery const& delivery);
    void add(Daemon::Verdict const& verdict);

    Counts total;
    std::array<std::uint64_t, Daemon::greylistReasonCount> firstReasons{}; // of messages
    std::array<std::uint64_t, Daemon::greylistReasonCount> answers{};      // of attempts
    std::uint64_t exemptionsEarned = 0;
    std::array<Counts, 3> byLabel;    // in the order of Label
    std::array<Counts, 24> byDayHour; // hour of the day, UTC, of the first attempt
    std::map<long, Counts> byHour;    // by start of the hour, seconds since the epoch
    std::vector<long> delays;         // of all that arrived after they were deferred
    long begin = 0;                   // first and last attempt of all
    long end = 0;

    struct Network {
        Counts counts;
        std::uint64_t autoExempt = 0; // messages that passed by an automatic exemption
    };
    struct Hash {
        std::size_t operator()(IPAddressMask const& network) const;
    };
    std::unordered_map<IPAddressMask, Network, Hash> byNetwork;
    std::unordered_map<std::string_view, Counts> bySender; // as written in the file

    // The delay that `percent` of those that had to wait did not exceed; 0 when none had to. Sorts `delays`.
    long delayPercentile(unsigned int percent);
};

} // namespace Vellum::Tools
