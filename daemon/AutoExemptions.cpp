#include "daemon/AutoExemptions.h"

#include "daemon/LogValue.h"
#include "foundation/Logger.h"
#include "foundation/MailboxSyntax.h"
#include "greylist/Configuration.h"

#include <algorithm>
#include <functional>
#include <vector>

namespace Vellum::Daemon {
namespace {

using GreyList::DynamicExemptId;
using GreyList::RefConfiguration;
using GreyList::Status;
using GreyList::TupleId;
using GreyList::TupleParts;

constexpr std::size_t longestDomain = 128; // octets; the width of the table's column
constexpr long secondsPerDay = 86400;
constexpr long secondsPerHour = 3600;

std::uint64_t hashOf(TupleParts const& tuple) {
    std::hash<std::string_view> const hash;
    return hash(tuple.sender) * 0x9e3779b97f4a7c15ULL + hash(tuple.recipient);
}

std::string_view domainOf(TupleId const& tuple) {
    return MailboxSyntax::split(tuple->senderAddress()).domain;
}

void appendPair(std::string& line, DynamicExemptId const& pair) {
    line += "network=";
    line += pair->mask().asString();
    line += ", domain=";
    appendLogValue(line, pair->domain());
}

// Handles on all tuples that have passed and live. The tuples themselves are looked at after the lock is gone. Dead
// ones stay out: all tuples of a pair whose exemption died of disuse are dead by then, and do not earn it again.
std::vector<TupleId> passedTuples(GreyList::_TupleCache const& tuples, long now) {
    long const firstLife = RefConfiguration::instance(nullptr)->initialExpiryHours() * secondsPerHour;
    std::vector<TupleId> passed;
    SharedLock const hold(tuples.lock);
    tuples.forEachInKeyOrder([&](auto const& entry) {
        if (entry.second.expiry >= now && !isWaiting(entry.second, firstLife)) {
            passed.push_back(entry.first);
        }
        return true;
    });
    return passed;
}

} // namespace

AutoExemptions::AutoExemptions(GreyList::_TupleCache& tuples, GreyList::_DynamicExemptCache& exemptions)
    : m_tuples(tuples), m_exemptions(exemptions),
      m_counts(RefConfiguration::instance(nullptr)->maxAutoExemptRecords()) {}

bool AutoExemptions::isPossibleFor(std::string_view domain) {
    return !domain.empty() && domain.size() <= longestDomain && std::none_of(domain.begin(), domain.end(), [](char c) {
        return static_cast<unsigned char>(c) < 0x20 || c == 0x7f || c == '\'' || c == '"' || c == '\\';
    });
}

bool AutoExemptions::countPass(IPAddressMask const& network, std::string_view domain, TupleParts const& tuple,
                               unsigned int needed, long now) {
    DynamicExemptId const pair(network, std::string(domain));
    if (m_counts.count(pair, hashOf(tuple), needed - 1) < needed) {
        return false;
    }
    RefConfiguration const configuration = RefConfiguration::instance(nullptr);
    std::uint32_t const room = configuration->maxAutoExemptRecords();
    long const life = configuration->ttlDays() * secondsPerDay;
    Grant const grant = add(pair, Status(now, now + life, life), room);
    if (grant == Grant::noRoom) {
        sayThereIsNoRoom(pair, room);
        return false;
    }
    if (grant == Grant::busy) {
        return false; // with the pass of the pair's next tuple
    }
    m_counts.forget(pair);
    if (grant == Grant::added) {
        m_saidFull.store(false, std::memory_order_relaxed);
        sayItIsEarned(pair, needed);
    }
    return grant == Grant::added;
}

AutoExemptions::Grant AutoExemptions::add(DynamicExemptId const& pair, Status const& status, std::uint32_t room) {
    UpgradeLock hold(m_exemptions.lock);
    auto const found = m_exemptions.lookup(pair);
    if (found != m_exemptions.end() && found->second.expiry > status.firstSeen) {
        return Grant::held;
    }
    if (!hold.tryPromote()) {
        return Grant::busy;
    }
    hold.promote();
    m_exemptions.removeNoLock(pair); // a dead one
    if (m_exemptions.sizeNoLock() >= room) {
        return Grant::noRoom;
    }
    m_exemptions.addNoLock(pair, status);
    return Grant::added;
}

void AutoExemptions::sayItIsEarned(DynamicExemptId const& pair, unsigned int needed) {
    std::string line = "event=auto-exempt-earned, ";
    appendPair(line, pair);
    line += ", tuples=" + std::to_string(needed);
    Logger::instance(false).note(Logger::Severity::info, line);
}

void AutoExemptions::sayThereIsNoRoom(DynamicExemptId const& pair, std::uint32_t room) {
    if (m_saidFull.exchange(true, std::memory_order_relaxed)) {
        return;
    }
    std::string line = "event=auto-exempt-full, ";
    appendPair(line, pair);
    line += ", room=" + std::to_string(room);
    Logger::instance(false).note(Logger::Severity::warning, line);
}

bool AutoExemptions::isHeld(DynamicExemptId const& pair) const {
    SharedLock const hold(m_exemptions.lock);
    return m_exemptions.lookup(pair) != m_exemptions.end();
}

void AutoExemptions::rebuildPassCounts(unsigned int needed, long now) {
    if (needed == 0) {
        return;
    }
    for (TupleId const& tuple : passedTuples(m_tuples, now)) {
        std::string_view const domain = domainOf(tuple);
        if (isPossibleFor(domain)) {
            DynamicExemptId const pair(tuple->mask(), std::string(domain));
            if (!isHeld(pair)) {
                m_counts.count(pair, hashOf(tuple->parts()), needed - 1);
            }
        }
    }
}

std::size_t AutoExemptions::dropDead(long now) {
    std::vector<DynamicExemptId> dead;
    {
        SharedLock const hold(m_exemptions.lock);
        m_exemptions.forEachInKeyOrder([&](auto const& entry) {
            if (entry.second.expiry <= now) {
                dead.push_back(entry.first);
            }
            return true;
        });
    }
    std::size_t dropped = 0;
    for (DynamicExemptId const& pair : dead) {
        // One hold for each, so that no decision waits for all of them; meanwhile it may have been replaced.
        ExclusiveLock const hold(m_exemptions.lock);
        auto const found = m_exemptions.lookup(pair);
        if (found != m_exemptions.end() && found->second.expiry <= now) {
            m_exemptions.removeNoLock(pair);
            ++dropped;
        }
    }
    return dropped;
}

} // namespace Vellum::Daemon
