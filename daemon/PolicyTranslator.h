// Between the policy protocol and the decision: makes a message of a request, and an answer of a verdict.
//
//   request                                      answer
//   anything but smtpd_access_policy             DUNNO
//   CONNECT, EHLO, HELO                          DUNNO; what the decision will have to look up is looked up
//   MAIL                                         the decision at the sender
//   DATA, END-OF-MESSAGE                         the decision at the end of the message
//   RCPT                                         the decision at the recipient
//   other states                                 DUNNO
//
//   decision                                     answer
//   no or no valid client address or recipient,  DUNNO, and a warning in the log
//   or no valid sender
//   deferred                                     DEFER_IF_PERMIT <status and text of FrontTexts.h>
//   rejected                                     REJECT <status and text of FrontTexts.h>
//   passed, after it had to wait                 PREPEND X-Greylist: ..., once for each message; then DUNNO
//   passed                                       DUNNO
//
// A request without a sender is one with the null sender. The client's name is the verified one (client_name); what its
// address claims alone (reverse_client_name) is not believed. A client counts as authenticated when it has a
// sasl_username.
//
// Before and after the recipient, only what is refused is counted and logged.
//
// Nothing that came from outside is in an answer.
#pragma once

#include "daemon/Decision.h"
#include "daemon/DecisionCounters.h"
#include "daemon/FrontTexts.h"
#include "daemon/PolicyAnswerer.h"
#include "daemon/RecentMessages.h"
#include "daemon/Settings.h"

#include <functional>
#include <string>

namespace Vellum::Daemon {

struct PolicyTranslatorSettings {
    RefusalTexts texts;
    bool header = true;
    std::string hostName; // this system's, for the header
    bool logDecisions = true;

    // As the settings have it; the host name is the system's own where they give none.
    static PolicyTranslatorSettings of(Settings const& settings);
};

class PolicyTranslator : public PolicyAnswerer {
  public:
    // Seconds since the epoch.
    using Clock = std::function<long()>;

    // The decision is borrowed and outlives this object.
    PolicyTranslator(Decision& decision, PolicyTranslatorSettings settings, Clock clock);

    // Holds for every request that comes afterwards.
    void install(PolicyTranslatorSettings settings) { m_settings.replace(std::move(settings)); }

    // Throws what Decision::atRecipient() throws.
    void answer(PolicyRequest const& request, PolicyConnectionMemory& memory, std::string& out) override;

    DecisionCounters const& counters() const { return m_counters; }

  private:
    void appendAnswer(std::string& out, Verdict const& verdict, PolicyTranslatorSettings const& settings, long now,
                      std::string_view instance, PolicyConnectionMemory& memory);
    void countMessage(std::string_view instance, PolicyConnectionMemory& memory);
    bool isFirstHeader(std::string_view instance, PolicyConnectionMemory& memory);

    Decision& m_decision;
    Replaceable<PolicyTranslatorSettings> m_settings;
    Clock const m_clock;
    DecisionCounters m_counters;
    RecentMessages m_withHeader{4096}; // messages that have their header, far more than are under way at once
};

} // namespace Vellum::Daemon
