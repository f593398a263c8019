// The process's caches of the families, empty, with their configurations, and a directory of subscribers that a test
// fills.
#pragma once

#include "daemon/MailCounts.h"
#include "daemon/Standing.h"
#include "daemon/SubscriberDirectory.h"
#include "reputation/Cache.h"
#include "tests/support/LoadedEndpoints.h"
#include "tests/support/RateControl.h"

#include <map>
#include <string>
#include <vector>

namespace Vellum::Daemon {

class FamiliesFixture : public MMSReputation::LoadedEndpoints {
  public:
    static constexpr long start = 1795252757; // Sat, 21 Nov 2026 09:19:17 UTC

    FamiliesFixture() {
        reputations().clear();
        rates().clear();
        m_log.clear();
    }

    static Reputation::Cache& reputations() { return **Reputation::RefCache::instance(); }
    static SenderRateControl::Cache& rates() { return **SenderRateControl::RefCache::instance(); }
    static Reputation::RefEntry reputationOf(std::string const& client) {
        return reputations().entry(IPAddress(client));
    }
    static SenderRateControl::RefEntry rateOf(std::string const& sender) {
        return rates().entryOf(EmailAddress::fromAddress(sender));
    }
    // The address is known to be the subscriber's from now on.
    void learn(std::string const& client, std::string const& number) {
        numbers[IPAddress(client)] = number;
        subscribers.of(IPAddress(client));
        subscribers.waitUntilIdle();
    }
    std::vector<std::string> logged() {
        std::vector<std::string> const notes = m_log.notes();
        m_log.clear();
        return notes;
    }

    SenderRateControl::InstalledConfiguration rateConfiguration{1000};
    std::map<IPAddress, std::string> numbers; // looked at by the directory's threads, changed only when they are idle
    SubscriberDirectory subscribers{
        [this](IPAddress const& address) { return numbers[address]; }, [] { return start; }, {.threads = 1}};
};

inline MessageSummary summary(std::string const& client, std::string const& sender, std::uint32_t recipients = 1) {
    MessageSummary made;
    made.client = IPAddress(client);
    made.sender = EmailAddress::fromAddress(sender);
    made.recipients = recipients;
    made.finished = true;
    return made;
}

} // namespace Vellum::Daemon
