// When a mail server tries again after it was deferred.
//
// Deliveries tell when a message was taken, not when its server would have come back had it been turned away. So that
// is assumed. Unless told otherwise, each client network has one of ten paces, chosen by its address: the time from
// first attempt to acceptance, at the 5th, 15th, ... 95th percentile, of 1,328 legitimate messages that servers in the
// field had deferred for five minutes or less. Each further attempt comes after twice the time, at most four hours. A
// server gives up when the next attempt would come later than it is willing to try.
#pragma once

#include "foundation/IPAddressMask.h"

#include <optional>
#include <string>
#include <vector>

namespace Vellum::Tools {

class RetryModel {
  public:
    static constexpr long longestGap = 4L * 3600;

    RetryModel() = default;
    // Everyone waits these seconds (each above 0): after the first attempt the first of them, and so on; the last one
    // is repeated. None: the measured paces.
    RetryModel(std::vector<long> gaps, long givesUpAfter) : m_gaps(std::move(gaps)), m_givesUpAfter(givesUpAfter) {}

    // When attempt number `attempt` (1 is the first) at `now` is followed by another one; nothing when the server gives
    // up instead.
    std::optional<long> next(IPAddressMask const& network, unsigned int attempt, long firstAttempt, long now) const;

    // For people: "after 10, 20 and then every 60 minutes, for 120 hours".
    std::string describe() const;

  private:
    long gap(IPAddressMask const& network, unsigned int attempt) const;

    std::vector<long> m_gaps;
    long m_givesUpAfter = 5L * 86400; // RFC 5321, 4.5.4.1: at least 4 to 5 days
};

} // namespace Vellum::Tools
