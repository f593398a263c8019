#include "daemon/MailCounts.h"

#include "daemon/AccountableSender.h"
#include "daemon/LogValue.h"
#include "daemon/SubscriberDirectory.h"
#include "foundation/Exception.h"
#include "foundation/Logger.h"
#include "mmsreputation/RefCache.h"
#include "reputation/Cache.h"
#include "senderratecontrol/SenderRateControlCache.h"

#include <array>
#include <vector>

namespace Vellum::Daemon {
namespace {

using RateEntry = SenderRateControl::Entry;
using RateState = SenderRateControl::RateControlState;

// One counter of either family, and what a message adds to it.
struct Amount {
    Reputation::Entry::AttributeType reputation;
    RateEntry::AttributeType rate;
    std::uint32_t amount;
};

// A counter comes after the one that bounds it.
std::array<Amount, 5> amountsOf(MessageSummary const& message) {
    using Type = Reputation::Entry::AttributeType;
    return {{{Type::MessageCount, RateCounter::messages, 1},
             {Type::Recipients, RateCounter::recipients, message.recipients},
             {Type::InvalidRecipients, RateCounter::invalidRecipients, message.invalidRecipients},
             {Type::Spam, RateCounter::spam, message.spam ? 1U : 0U},
             {Type::Infected, RateCounter::infected, message.infected ? 1U : 0U}}};
}

template <class Increment>
void countEach(MessageSummary const& message, Increment increment) {
    for (Amount const& one : amountsOf(message)) {
        if (one.amount != 0) {
            increment(one);
        }
    }
}

void appendField(std::string& line, std::string_view key, std::uint64_t value) {
    line += ", ";
    line += key;
    line += '=';
    line += std::to_string(value);
}

// The line of a block. `who` is "sender" or "subscriber".
void logBlock(std::string_view who, std::string const& name, std::string_view reason, std::uint32_t total,
              std::uint32_t limit, long seconds) {
    std::string line = "action=block, ";
    line += who;
    line += '=';
    appendLogValue(line, name);
    line += ", reason=";
    line += reason;
    appendField(line, "total", total);
    appendField(line, "limit", limit);
    appendField(line, "seconds", static_cast<std::uint64_t>(seconds));
    Logger::instance(false).note(Logger::Severity::info, line);
}

bool isBlocked(RateEntry const& entry, long now) {
    return entry.state() == RateState::blocked && entry.blockedUntil() > now;
}

std::array<std::uint32_t, RateLimitSettings::counters> totalsOf(RateEntry const& entry, long now) {
    SenderRateControlRecord totals;
    entry.totals(now, totals);
    return {totals.count1, totals.count2, totals.count3, totals.count4, totals.count5};
}

// State, end and reason change together, so that a block that is over is not lifted while a new one begins, and no
// block begins for totals that a reset has forgotten. Innermost but for the entry lock.
Mutex& blocking() {
    static Mutex& mutex = *new Mutex; // fronts may outlive main()
    return mutex;
}

// Answers whether it was this call that blocked.
bool block(RateEntry& entry, RateEntry::AttributeType counter, RateLimitSettings const& limits, long now) {
    Synchronized const hold(blocking());
    if (isBlocked(entry, now) || totalsOf(entry, now)[counter - 1] <= limits.most[counter - 1]) {
        return false;
    }
    entry.blockedReason(counter); // the state last: whoever sees it sees the others
    entry.blockedUntil(now + limits.blockSeconds);
    entry.state(RateState::blocked);
    return true;
}

// Answers whether there was a block whose time was over.
bool unblock(RateEntry& entry, long now) {
    Synchronized const hold(blocking());
    if (entry.state() != RateState::blocked || entry.blockedUntil() > now) {
        return false;
    }
    entry.reset();
    return true;
}

// Blocks the sender when one of the totals is above its limit, the first such counter being the reason. One that is
// blocked already stays so until his time is over.
void blockWhereDue(EmailAddress const& sender, RateEntry& entry, RateLimitSettings const& limits, long now) {
    if (isBlocked(entry, now)) {
        return;
    }
    auto const counted = totalsOf(entry, now);
    for (std::size_t i = 0; i < counted.size(); ++i) {
        if (limits.most[i] == 0 || counted[i] <= limits.most[i]) {
            continue;
        }
        auto const counter = static_cast<RateEntry::AttributeType>(i + 1);
        if (block(entry, counter, limits, now)) {
            logBlock("sender", sender.asString(), rateCounterName(counter), counted[i], limits.most[i],
                     limits.blockSeconds);
        }
        return;
    }
}

void countReputation(MessageSummary const& message, long now) {
    auto const entry = (*Reputation::RefCache::instance())->entry(message.client);
    auto const period = static_cast<std::uint32_t>(now / Reputation::secondsPerPeriod);
    countEach(message, [&](Amount const& one) { entry->increment(one.reputation, period, one.amount); });
}

void countRate(MessageSummary const& message, EmailAddress const& sender, RateLimitSettings const& limits, long now) {
    auto const entry = (*SenderRateControl::RefCache::instance())->entryOf(sender);
    auto const period = static_cast<std::uint32_t>(now / SenderRateControl::periodSeconds);
    countEach(message, [&](Amount const& one) { entry->increment(one.rate, period, one.amount); });
    blockWhereDue(sender, *entry, limits, now);
}

} // namespace

std::string_view rateCounterName(std::uint32_t counter) {
    static constexpr std::array<std::string_view, RateLimitSettings::counters> names{
        "messages", "recipients", "invalid_recipients", "spam", "infected"};
    return counter >= 1 && counter <= names.size() ? names[counter - 1] : std::string_view();
}

void MailCounts::messageEnded(MessageSummary const& message, long now) {
    auto const limits = m_limits.get();
    if (!message.client.isNull() && message.authenticatedUser.empty()) {
        countReputation(message, now);
    }
    EmailAddress const sender = accountableSender(message.sender, message.authenticatedUser, limits->rate.strangers);
    if (!sender.isNull()) {
        countRate(message, sender, limits->rate, now);
    }
    if (message.spam || message.infected) {
        countEndpoint(message, limits->endpoint, now);
    }
}

void MailCounts::countEndpoint(MessageSummary const& message, EndpointLimitSettings const& limits, long now) {
    using Type = MMSReputation::Entry::AttributeType;
    MSISDN const number = m_subscribers == nullptr ? MSISDN() : m_subscribers->of(message.client);
    MMSReputation::RefCache const cache =
        number.isNull() ? MMSReputation::RefCache(false) : MMSReputation::RefCache::instance(nullptr, 0);
    if (cache.isNull() || cache->isExempt(number)) {
        return;
    }
    std::uint32_t const slice = MMSReputation::Period(now, 0, MMSReputation::Period::slicesPerWindow).index;
    auto const entry = cache->entry(number, slice, true);
    if (message.spam) {
        entry->increment(Type::spam, slice);
    }
    if (message.infected) {
        entry->increment(Type::infected, slice);
    }
    std::uint32_t const score = entry->score(slice, true);
    bool const blocked = entry->blacklistExpiry() != 0 && now <= entry->blacklistExpiry();
    if (limits.blockScore != 0 && score >= limits.blockScore && !blocked) {
        entry->blacklistExpiry(now + limits.blockSeconds);
        logBlock("subscriber", number.asString(), "score", score, limits.blockScore, limits.blockSeconds);
    }
}

MailCounts::BlockRound MailCounts::liftBlocks(long now) {
    using SenderRateControl::RefEntry;
    BlockRound round;
    std::vector<std::pair<EmailAddress, RefEntry>> over;
    SenderRateControl::Cache const& cache = **SenderRateControl::RefCache::instance();
    {
        SharedLock const hold(cache.lock);
        cache.forEachInKeyOrder([&](auto const& pair) {
            bool const blocked = pair.second->state() == RateState::blocked;
            if (blocked && pair.second->blockedUntil() <= now) {
                over.emplace_back(pair.first, pair.second);
            } else if (blocked) {
                ++round.remaining;
            }
            return true;
        });
    }
    for (auto const& [sender, entry] : over) {
        if (!unblock(*entry, now)) {
            continue;
        }
        ++round.lifted;
        std::string line = "action=unblock, sender=";
        appendLogValue(line, sender.asString());
        Logger::instance(false).note(Logger::Severity::info, line);
    }
    return round;
}

MailCounts::Reset MailCounts::reset(EmailAddress const& sender) {
    SenderRateControl::RefEntry entry(false);
    {
        SenderRateControl::Cache const& cache = **SenderRateControl::RefCache::instance();
        SharedLock const hold(cache.lock);
        if (auto const found = cache.lookup(sender); found != cache.end()) {
            entry = found->second;
        }
    }
    if (entry.isNull()) {
        return {};
    }
    Synchronized const hold(blocking());
    bool const wasBlocked = entry->state() != RateState::normal;
    std::size_t const periods = entry->forget();
    entry->reset();
    return {.known = true, .wasBlocked = wasBlocked, .periods = periods};
}

void MailCounts::dropOldHours(long now) {
    std::vector<Reputation::RefEntry> entries;
    Reputation::Cache const& cache = **Reputation::RefCache::instance();
    {
        SharedLock const hold(cache.lock);
        cache.forEachInKeyOrder([&](auto const& pair) {
            entries.push_back(pair.second);
            return true;
        });
    }
    for (Reputation::RefEntry const& entry : entries) {
        entry->scoreAndDrop(now);
    }
}

} // namespace Vellum::Daemon
