#include "daemon/Standing.h"

#include "daemon/AccountableSender.h"
#include "daemon/MailCounts.h"
#include "daemon/SubscriberDirectory.h"
#include "mmsreputation/RefCache.h"
#include "reputation/Cache.h"
#include "senderratecontrol/SenderRateControlCache.h"

namespace Vellum::Daemon {
namespace {

Verdict verdict(Verdict::Action action, Verdict::Reason reason) {
    Verdict made;
    made.action = action;
    made.reason = reason;
    return made;
}

// A handle on the entry of `key`, empty for none; not a use. In upgrade mode, as all reading here: a shared hold would
// wait behind a count that waits for a listing.
template <class Handle, class Cache, class Key>
Handle peek(Cache const& cache, Key const& key) {
    UpgradeLock const hold(cache.lock);
    auto const found = cache.lookup(key);
    return found == cache.end() ? Handle(false) : found->second;
}

bool isAutomaticallyBlacklisted(MMSReputation::Cache const& cache, MSISDN const& number, long now) {
    auto const entry = peek<MMSReputation::RefEntry>(cache, number);
    return !entry.isNull() && entry->blacklistExpiry() != 0 && now <= entry->blacklistExpiry();
}

std::optional<Verdict> byReputation(IPAddress const& client, ReputationLimitSettings const& settings, long now) {
    if (settings.deferScore == 0 && settings.rejectScore == 0) {
        return std::nullopt;
    }
    std::uint32_t const score = reputationScore(client, now).value_or(0);
    bool const rejects = settings.rejectScore != 0 && score >= settings.rejectScore;
    bool const defers = settings.deferScore != 0 && score >= settings.deferScore;
    if (!rejects && !defers) {
        return std::nullopt;
    }
    Verdict made = verdict(rejects ? Verdict::Action::reject : Verdict::Action::defer, Verdict::Reason::badReputation);
    made.score = score;
    return made;
}

} // namespace

std::optional<std::uint32_t> reputationScore(IPAddress const& client, long now) {
    auto const entry = peek<Reputation::RefEntry>(**Reputation::RefCache::instance(), client);
    if (entry.isNull()) {
        return std::nullopt;
    }
    auto const current = static_cast<std::uint32_t>(now / Reputation::secondsPerPeriod);
    UpgradeLock const hold(Reputation::Entry::s_lock);
    return entry->score(now, current - (Reputation::scoredPeriods - 1));
}

std::optional<SenderBlock> senderBlock(EmailAddress const& sender, long now) {
    if (sender.isNull()) {
        return std::nullopt;
    }
    auto const entry = peek<SenderRateControl::RefEntry>(**SenderRateControl::RefCache::instance(), sender);
    if (entry.isNull() || entry->state() != SenderRateControl::RateControlState::blocked) {
        return std::nullopt;
    }
    long const until = entry->blockedUntil();
    if (until <= now) {
        return std::nullopt;
    }
    return SenderBlock{until, entry->blockedReason()};
}

std::optional<Verdict> Standing::judge(Message const& message, StandingSettings const& settings, long now) const {
    if (auto found = endpoint(message, settings.endpoint, now)) {
        return found;
    }
    if (settings.senderBlocks()) {
        EmailAddress const sender =
            accountableSender(message.sender, message.authenticatedUser, settings.rate.strangers);
        if (auto const block = senderBlock(sender, now)) {
            Verdict blocked = verdict(Verdict::Action::defer, Verdict::Reason::senderBlocked);
            blocked.secondsLeft = block->until - now;
            blocked.counter = block->counter;
            return blocked;
        }
    }
    return message.authenticatedUser.empty() ? byReputation(message.client, settings.reputation, now) : std::nullopt;
}

void Standing::expect(IPAddress const& client) const {
    if (m_subscribers != nullptr) {
        m_subscribers->of(client);
    }
}

std::optional<Verdict> Standing::endpoint(Message const& message, EndpointLimitSettings const& settings,
                                          long now) const {
    MSISDN const number = m_subscribers == nullptr ? MSISDN() : m_subscribers->of(message.client);
    if (number.isNull()) {
        return std::nullopt;
    }
    MMSReputation::RefCache const cache = MMSReputation::RefCache::instance(nullptr, 0);
    if (cache.isNull()) {
        return std::nullopt;
    }
    Verdict made;
    if (cache->isExempt(number)) {
        made = verdict(Verdict::Action::pass, Verdict::Reason::endpointExempt);
    } else if (settings.blacklisted != Verdict::Action::pass &&
               (cache->isBlacklisted(number) || isAutomaticallyBlacklisted(*cache, number, now))) {
        made = verdict(settings.blacklisted, Verdict::Reason::endpointBlacklisted);
    } else {
        return std::nullopt;
    }
    made.subscriber = number;
    return made;
}

namespace {

Standing::Facts::Endpoint endpointFacts(MSISDN const& number, long now) {
    Standing::Facts::Endpoint facts;
    MMSReputation::RefCache const cache =
        number.isNull() ? MMSReputation::RefCache(false) : MMSReputation::RefCache::instance(nullptr, 0);
    if (cache.isNull()) {
        return facts;
    }
    facts.exempt = cache->isExempt(number);
    facts.blacklisted = cache->isBlacklisted(number);
    if (auto const entry = peek<MMSReputation::RefEntry>(*cache, number); !entry.isNull()) {
        facts.blacklistedUntil = entry->blacklistExpiry();
        facts.score = entry->score(MMSReputation::Period(now, 0, MMSReputation::Period::slicesPerWindow).index, true);
    }
    return facts;
}

// Totals without forgetting older periods, as Entry::totals() would.
Standing::Facts::Rate rateFacts(EmailAddress const& sender, long now) {
    Standing::Facts::Rate facts;
    auto const entry = sender.isNull()
                           ? SenderRateControl::RefEntry(false)
                           : peek<SenderRateControl::RefEntry>(**SenderRateControl::RefCache::instance(), sender);
    if (entry.isNull()) {
        return facts;
    }
    facts.known = true;
    UpgradeLock const hold(SenderRateControl::Entry::s_lock);
    auto const records = entry->records();
    for (auto at = records.lower_bound(SenderRateControl::firstPeriodAt(now)); at != records.end(); ++at) {
        auto const& record = at->second;
        std::array<std::uint32_t, RateLimitSettings::counters> const counts{record.count1, record.count2, record.count3,
                                                                            record.count4, record.count5};
        for (std::size_t i = 0; i < counts.size(); ++i) {
            facts.totals[i] += counts[i];
        }
    }
    return facts;
}

} // namespace

Standing::Facts Standing::facts(Message const& message, StandingSettings const& settings, long now) const {
    Facts all;
    all.subscribersKnown = m_subscribers != nullptr;
    all.subscriber = m_subscribers == nullptr ? MSISDN() : m_subscribers->of(message.client);
    all.endpoint = endpointFacts(all.subscriber, now);
    all.accountable = accountableSender(message.sender, message.authenticatedUser, settings.rate.strangers);
    all.rate = rateFacts(all.accountable, now);
    all.block = senderBlock(all.accountable, now);
    all.score = reputationScore(message.client, now);
    if (auto const entry = peek<Reputation::RefEntry>(**Reputation::RefCache::instance(), message.client)) {
        UpgradeLock const hold(Reputation::Entry::s_lock);
        all.hours.assign(entry->records().begin(), entry->records().end());
        all.state = entry->state();
        all.lastModified = entry->lastModified();
    }
    return all;
}

} // namespace Vellum::Daemon
