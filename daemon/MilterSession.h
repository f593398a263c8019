// One connection of a mail server's client, as a milter is told of it: what has been said so far, and what is answered.
//
// A session knows nothing of the milter library; MilterServer.h puts the two together. The mail server reports in the
// order of SMTP: connect, then for each message sender, recipients, headers, end. What is decided:
//
//   recipient accepted by the mail server   the decision at the recipient; refused: the code and text of FrontTexts.h
//   recipient refused by the mail server    nothing: it is refused already. Counts as an invalid recipient where the
//                                           status says that it cannot be delivered to: 5.1.1, 5.1.2, 5.1.3, 5.1.4,
//                                           5.1.6 and 5.1.10
//   end of the message                      the decision at the end; refused like a recipient, or else X-Greylist, when
//                                           one of its recipients had to wait
//
// A transaction that named a recipient, accepted or invalid, is reported to the observer once: at its end, or when it
// is abandoned. One whose recipients all have to wait is not: it comes again. Of one that is refused at its end only
// the invalid recipients are reported, as if it had been abandoned. A transaction is over before it is reported, so an
// observer that throws has it reported no second time.
//
// Used by one thread at a time.
#pragma once

#include "daemon/ContentRules.h"
#include "daemon/Decision.h"
#include "daemon/DecisionCounters.h"
#include "daemon/FrontTexts.h"
#include "daemon/MessageSummary.h"
#include "daemon/Replaceable.h"
#include "daemon/Settings.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace Vellum::Daemon {

struct MilterFrontSettings {
    bool decide = true; // false: only look and count, another front decides
    RefusalTexts texts;
    bool header = true;
    std::string hostName; // this system's, for the header
    bool logDecisions = true;
    ContentRules content;

    static MilterFrontSettings of(Settings const& settings);
};

// What all sessions share. Thread-safe.
class MilterFront {
  public:
    using Clock = std::function<long()>; // seconds since the epoch

    // Decision and observer are borrowed and outlive this object.
    MilterFront(Decision& decision, MessageObserver& observer, MilterFrontSettings settings, Clock clock)
        : m_decision(decision), m_observer(observer), m_settings(std::move(settings)), m_clock(std::move(clock)) {}

    // Holds for every message that begins afterwards.
    void install(MilterFrontSettings settings) { m_settings.replace(std::move(settings)); }

    std::shared_ptr<MilterFrontSettings const> settings() const { return m_settings.get(); }
    Decision& decision() { return m_decision; }
    MessageObserver& observer() { return m_observer; }
    DecisionCounters& counters() { return m_counters; }
    DecisionCounters const& counters() const { return m_counters; }
    long now() const { return m_clock(); }

  private:
    Decision& m_decision;
    MessageObserver& m_observer;
    Replaceable<MilterFrontSettings> m_settings;
    Clock m_clock;
    DecisionCounters m_counters;
};

class MilterSession {
  public:
    // What the mail server knows of one recipient beside its address.
    struct RecipientFacts {
        bool refused = false;             // by the mail server itself
        std::string_view refusalStatus{}; // then: "5.1.1", ...
        std::string_view queueId{};
        std::string_view authenticatedUser{};
    };

    // The front is borrowed and outlives the session.
    explicit MilterSession(MilterFront& front) : m_front(front) {}

    // `clientName` is what the mail server has verified; "unknown" and "[address]" stand for none.
    void connected(std::string_view clientName, IPAddress const& client);

    // The path of MAIL, with or without brackets. Begins a transaction; one that was not ended is abandoned.
    void sender(std::string_view path);
    // The path of RCPT. Answers how the recipient is refused; nothing: go on.
    std::optional<Refusal> recipient(std::string_view path, RecipientFacts const& facts);
    // One header of the message.
    void header(std::string_view name, std::string_view value);
    // The message is complete.
    struct Ending {
        std::optional<Refusal> refusal;    // nothing: go on
        std::optional<std::string> header; // the value of X-Greylist, where one is due
    };
    Ending messageEnded(std::string_view queueId = {});
    // The transaction came to nothing: RSET, a lost connection, another filter. May be called without one.
    void abandoned();

  private:
    struct Transaction {
        std::shared_ptr<MilterFrontSettings const> settings;
        std::string senderPath; // as it came
        bool senderReadable = true;
        MessageSummary summary;
        ContentVerdict content;
        bool counted = false;    // among the messages of this front
        long secondsWaited = -1; // of the recipient that waited longest; -1: none did
    };

    std::optional<Refusal> decide(std::string_view path, EmailAddress const& recipient, RecipientFacts const& facts);
    std::optional<Refusal> decideAtEnd(std::string_view queueId);
    Message message() const;
    void log(Verdict const& verdict, std::string_view recipient, std::string_view queueId,
             std::string_view problem) const;
    void report(MessageSummary const& summary);

    MilterFront& m_front;
    IPAddress m_client;
    std::string m_clientName;
    std::optional<Transaction> m_transaction;
};

} // namespace Vellum::Daemon
