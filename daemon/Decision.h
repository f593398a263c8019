// The one place where the fate of a message is decided. Every front asks here, and the replay tool too.
//
// At the recipient, the first that applies:
//
//   1. nothing to go by     without a client address or a recipient: pass
//   2. authenticated        a client that has logged in passes
//   3. disabled             with greylisting off, everything passes
//   4. exempt rule          the administrator's rule with the lowest id that matches
//   5. automatic exemption  of (client network, sender domain), see AutoExemptions.h
//   6. the tuple            (client network, sender, recipient), see greylist/TupleCache.h
//
// Rules see the addresses as they came, the rest sees them folded (AddressFolding.h). A null sender has no domain and
// so no automatic exemption; its tuple is like any other.
//
// Threads: any number may ask at once. Cost: about a microsecond, with half a dozen small allocations; the locks taken
// are those of the two caches and of the settings, each for a moment. Nothing here waits for a disk, a database, a
// client or a log.
#pragma once

#include "daemon/AddressFolding.h"
#include "daemon/AutoExemptions.h"
#include "daemon/Message.h"
#include "daemon/Replaceable.h"
#include "daemon/Verdict.h"
#include "greylist/ExemptRuleSet.h"

namespace Vellum::Daemon {

// What an administrator chooses of the above; times and sizes are GreyList::Configuration's.
struct DecisionSettings {
    bool greylisting = true;
    AddressFolding folding{};
    unsigned int autoExemptAfter = 5;         // different tuples that must pass; 0: no automatic exemptions, old or new
    GreyList::RefExemptRuleSet exemptRules{}; // null: none
};

class Decision {
  public:
    // Both caches are borrowed and outlive this object. Throws Exception when no configuration is installed.
    Decision(GreyList::_TupleCache& tuples, GreyList::_DynamicExemptCache& exemptions, DecisionSettings settings);

    // Holds for every decision that begins afterwards. The rule set must not be changed any more.
    void install(DecisionSettings settings) { m_settings.replace(std::move(settings)); }

    // Decides at `now` (seconds since the epoch) whether this recipient may be accepted, and learns from it.
    // Throws std::bad_alloc, and Exception when an address is longer than any mailbox or a rule cannot be matched.
    Verdict atRecipient(Message const& message, long now);

    // To be called after the caches were loaded, at start or later: see AutoExemptions.
    void rebuildPassCounts(long now) { m_autoExemptions.rebuildPassCounts(m_settings.get()->autoExemptAfter, now); }
    // To be called now and then: see AutoExemptions::dropDead().
    std::size_t dropDeadExemptions(long now) { return m_autoExemptions.dropDead(now); }

  private:
    Verdict greylist(Message const& message, DecisionSettings const& settings, long now);

    GreyList::_TupleCache& m_tuples;
    AutoExemptions m_autoExemptions;
    Replaceable<DecisionSettings> m_settings;
};

} // namespace Vellum::Daemon
