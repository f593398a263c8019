// Automatic exemptions: a network whose mail of one sender domain has proved often enough that it comes back.
//
// After a number of different tuples of one (network, sender domain) have passed, the pair is added to the cache of
// dynamic exemptions, and its mail need not wait any more while it keeps coming (Configuration::ttlDays()).
//
// Bounds: the pairs in the cache that this class adds to are at most Configuration::maxAutoExemptRecords(). When there
// is no room, nothing is put out for a newcomer, since the cache cannot tell which exemption is used least; the pair
// stays with its tuples, which works too, and gets its exemption at the next first pass after there is room again.
// The pairs being counted are at most as many.
//
// A null sender, an address without a domain, and a domain that could not be stored have no automatic exemption.
#pragma once

#include "daemon/PassCounts.h"
#include "greylist/DynamicExemptCache.h"
#include "greylist/TupleCache.h"

#include <atomic>
#include <string>
#include <string_view>

namespace Vellum::Daemon {

class AutoExemptions {
  public:
    // Both caches are borrowed and outlive this object. Reads the bounds from the configuration; throws Exception when
    // none is installed.
    AutoExemptions(GreyList::_TupleCache& tuples, GreyList::_DynamicExemptCache& exemptions);

    // Whether a folded sender domain can have an exemption at all: not empty, at most 128 octets as the tables take it,
    // nothing in it that an SQL script could not carry.
    static bool isPossibleFor(std::string_view domain);

    // Whether the pair is exempt at `now` (seconds since the epoch); its exemption then lives on.
    bool isExempt(IPAddressMask const& network, std::string_view domain, long now) const {
        return m_exemptions.exemptAtOnce({network, domain}, now);
    }
    // Until when it is, without a change to it; 0 when it is not.
    long exemptUntil(IPAddressMask const& network, std::string_view domain, long now) const {
        return m_exemptions.exemptUntil({network, domain}, now);
    }
    // Counts a tuple that has just passed for the first time in its life. True when `needed` different tuples of the
    // pair have passed with it and the pair is exempt from now on, which is said in the log; its count starts again, so
    // that a pair that loses its exemption has to earn it anew.
    bool countPass(IPAddressMask const& network, std::string_view domain, GreyList::TupleParts const& tuple,
                   unsigned int needed, long now);

    // Counts all tuples in the cache that have passed and live at `now`, those counted already excepted: after the
    // caches were loaded. A pair that is exempt is left out. Grants nothing: who has enough gets it at the next first
    // pass. Takes both caches' locks shared, the tuples' while it gathers handles (some 50 ms for a million).
    void rebuildPassCounts(unsigned int needed, long now);

    // Removes exemptions that nobody has used for their whole life, so that they take no room from others; a decision
    // removes only the one it meets. Answers how many. To be called now and then; holds the lock shared for one walk.
    std::size_t dropDead(long now);

  private:
    // held: another message of the pair was quicker; busy: somebody reads the exemptions
    enum class Grant { added, held, noRoom, busy };
    Grant add(GreyList::DynamicExemptId const& pair, GreyList::Status const& status, std::uint32_t room);
    static void sayItIsEarned(GreyList::DynamicExemptId const& pair, unsigned int needed);
    bool isHeld(GreyList::DynamicExemptId const& pair) const;
    void sayThereIsNoRoom(GreyList::DynamicExemptId const& pair, std::uint32_t room);

    GreyList::_TupleCache& m_tuples;
    GreyList::_DynamicExemptCache& m_exemptions;
    PassCounts m_counts;
    std::atomic<bool> m_saidFull{false}; // once until there is room again
};

} // namespace Vellum::Daemon
