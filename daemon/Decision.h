// The one place where the fate of a message is decided. Every front asks here, and the replay tool too.
//
// At the recipient, the first that applies:
//
//   1. nothing to go by     without a client address or a recipient: pass
//   2. standing             what is held against the client or the sender, see Standing.h
//   3. authenticated        a client that has logged in passes
//   4. disabled             with greylisting off, everything else passes
//   5. exempt rule          the administrator's rule with the lowest id that matches
//   6. automatic exemption  of (client network, sender domain), see AutoExemptions.h
//   7. the tuple            (client network, sender, recipient), see greylist/TupleCache.h
//
// At the other stages less is known, and only what cannot change any more is decided:
//
//   connect           nothing yet (who the client is may only come with its login), but what has to be looked up is
//   sender            standing
//   end of message    standing, as it is by then
//
// Rules see the mailboxes as they came, the rest sees them folded (AddressFolding.h). A null sender has no domain and
// so no automatic exemption; its tuple is like any other.
//
// Threads: any number may ask at once. Cost: one to three microseconds (docs/performance.md), no allocation for a tuple
// that is known; the locks taken are those of the caches and of the settings, each for a moment. Nothing here waits for
// a disk, a database, a client or a log.
#pragma once

#include "daemon/AddressFolding.h"
#include "daemon/AutoExemptions.h"
#include "daemon/LateTuples.h"
#include "daemon/Message.h"
#include "daemon/Replaceable.h"
#include "daemon/Standing.h"
#include "daemon/Verdict.h"
#include "greylist/ExemptRuleSet.h"

#include <optional>
#include <string_view>

namespace Vellum::Daemon {

// What an administrator chooses of the above; times and sizes are GreyList::Configuration's.
struct DecisionSettings {
    bool greylisting = true;
    AddressFolding folding{};
    unsigned int autoExemptAfter = 5;         // different tuples that must pass; 0: no automatic exemptions, old or new
    GreyList::RefExemptRuleSet exemptRules{}; // null: none
    StandingSettings standing{};
};

// How far a message has come.
enum class Stage : std::uint8_t { connect, sender, recipient, endOfMessage };
// "connect", "sender", "recipient", "end-of-message"
std::string_view stageText(Stage stage);

// What a decision rests on, step by step. A step that was not reached is told all the same.
struct Explanation {
    Verdict verdict;
    Stage stage = Stage::recipient; // that the verdict is of
    IPAddressMask network;
    EmailAddress sender; // as greylisting takes them: folded
    EmailAddress recipient;
    std::optional<std::uint32_t> rule; // the exempt rule that matches
    std::size_t rules = 0;             // how many there are
    bool canEarnExemption = false;     // the pair of network and domain
    long exemptUntil = 0;              // of that pair, seconds since the epoch; 0: it is not
    unsigned int autoExemptAfter = 0;
    GreyList::TupleDecision tuple;
    Standing::Facts standing;
    StandingSettings limits;
};

class Decision {
  public:
    // Everything is borrowed and outlives this object; without a standing that step is left out. Throws Exception when
    // no configuration is installed.
    Decision(GreyList::_TupleCache& tuples, GreyList::_DynamicExemptCache& exemptions, DecisionSettings settings,
             Standing const* standing = nullptr);

    // Holds for every decision that begins afterwards. The rule set must not be changed any more.
    void install(DecisionSettings settings) { m_settings.replace(std::move(settings)); }

    // Decides at `now` (seconds since the epoch) whether a message may go on from this stage, and at the recipient
    // learns from it. A pass before the recipient, or after it, has the reason "incomplete".
    // Throws std::bad_alloc, and Exception when an address is longer than any mailbox or a rule cannot be matched.
    Verdict at(Stage stage, Message const& message, long now);
    Verdict atRecipient(Message const& message, long now);

    // What at() would answer now, and the facts on the way; before the recipient, what is held against those who are
    // known so far (nothing: "incomplete"), although a mail server may only be told at the recipient. Changes nothing;
    // an address that was never looked up is looked up, so the next answer knows its subscriber.
    Explanation explain(Message const& message, long now, Stage stage = Stage::recipient) const;
    // Lets the next message of this tuple through: see _TupleCache::release().
    bool release(Message const& message, long now);

    // To be called after the caches were loaded, at start or later: see AutoExemptions.
    void rebuildPassCounts(long now) { m_autoExemptions.rebuildPassCounts(m_settings.get()->autoExemptAfter, now); }
    // To be called now and then: see AutoExemptions::dropDead().
    std::size_t dropDeadExemptions(long now) { return m_autoExemptions.dropDead(now); }
    // Waits until every tuple that was decided is in the cache: see LateTuples.
    void settle() { m_late.waitUntilDone(); }

  private:
    Verdict preview(Message const& message, DecisionSettings const& settings, Explanation const& facts, long now) const;
    std::optional<Verdict> standing(Message const& message, DecisionSettings const& settings, long now) const;
    // A message as greylisting takes it. Views are into the message, or into memory of this thread that its next use
    // overwrites.
    struct Folded {
        Folded(Message const& message, DecisionSettings const& settings);
        GreyList::TupleParts parts() const { return {network, sender, recipient}; }

        std::string_view sender;
        std::string_view recipient;
        IPAddressMask network;
        std::string_view domain;
        bool canEarn; // an automatic exemption
    };

    Verdict greylist(Message const& message, DecisionSettings const& settings, long now);

    GreyList::_TupleCache& m_tuples;
    LateTuples m_late;
    AutoExemptions m_autoExemptions;
    Replaceable<DecisionSettings> m_settings;
    Standing const* m_standing;
};

} // namespace Vellum::Daemon
