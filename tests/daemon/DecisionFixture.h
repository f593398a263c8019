// Caches, a configuration and a decision of one's own for a test, and messages to ask about.
#pragma once

#include "daemon/Decision.h"
#include "greylist/Configuration.h"
#include "tests/support/CapturingLogger.h"

#include <string>

namespace Vellum::Daemon {

// Five minutes, four hours and 36 days, unless told otherwise.
struct TestTimes {
    int delayMinutes = 5;
    int firstLifeHours = 4;
    int lifeDays = 36;
    int maxRecords = 1000;
};

class TestConfiguration : public GreyList::Configuration {
  public:
    explicit TestConfiguration(TestTimes const& times) : m_times(times) {}
    int initialExpiryHours() const override { return m_times.firstLifeHours; }
    int ttlDays() const override { return m_times.lifeDays; }
    int greylistMinutes() const override { return m_times.delayMinutes; }
    std::string backupPath() const override { return {}; }
    void backupDone() override {}
    bool backupEnabled() const override { return false; }
    int maxRecords() const override { return m_times.maxRecords; }

  private:
    TestTimes m_times;
};

inline void installTimes(TestTimes const& times) {
    GreyList::RefConfiguration::instance(new TestConfiguration(times));
}

struct DecisionFixture {
    explicit DecisionFixture(TestTimes const& times = {}, DecisionSettings const& settings = {})
        : configured((installTimes(times), true)), decision(tuples, exemptions, settings) {}

    Verdict ask(Message const& message, long now) { return decision.atRecipient(message, now); }
    // The answer to the message's first attempt that may pass: at `now`, and `delay` later.
    Verdict askTwice(Message const& message, long now, long delay = 300) {
        ask(message, now);
        return ask(message, now + delay);
    }

    CapturingLogger log;
    bool configured; // before the caches, which read it
    GreyList::_TupleCache tuples;
    GreyList::_DynamicExemptCache exemptions;
    Decision decision;
};

inline Message message(std::string const& client, std::string const& sender, std::string const& recipient,
                       std::string const& clientName = "") {
    Message made;
    if (!client.empty()) {
        made.client = IPAddress(client);
    }
    made.clientName = HostName(clientName);
    made.sender = EmailAddress::fromAddress(sender);
    made.recipient = EmailAddress::fromAddress(recipient);
    return made;
}

} // namespace Vellum::Daemon
