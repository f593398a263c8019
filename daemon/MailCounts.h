// Counts mail for the families that learn from it, and blocks whoever passes a limit. See MessageSummary.h for what a
// message is here.
//
//   sender reputation   of the client's address, by hour: messages, recipients, invalid recipients, spam, infected.
//                       Not for clients that have logged in: their addresses are those of people on the move
//   rate control        of the sender, by five minutes: the counters of RateCounter. The sender is who has logged in,
//                       else the envelope's (AccountableSender.h); a bounce has none. Who has not logged in is only
//                       counted where the settings say so: he can write anybody's address into a message, and would
//                       have the owner blocked
//   endpoint            of the subscriber whose address the client has, by slice: spam, infected
//
// A sender whose total of half an hour is above its limit is blocked for a while, by the first such counter; the entry
// says so in state, reason and end. The block is lifted when its time is over. The totals stay: of a block shorter than
// half an hour they may still be above the limit then, and one message more blocks again, for the limits are those of
// half an hour. Only reset() forgets them. A subscriber whose score reaches its threshold is blacklisted until an
// expiry. Each has a line in the log:
//
//   action=block, sender=jo@example.org, reason=recipients, total=501, limit=500, seconds=1800
//   action=unblock, sender=jo@example.org
//   action=block, subscriber=15555550100, reason=score, total=20, limit=20, seconds=86400
//
// Thread-safe; takes the families' own locks, each for a moment, and never waits for anything else.
#pragma once

#include "daemon/LimitSettings.h"
#include "daemon/MessageSummary.h"
#include "daemon/Replaceable.h"
#include "senderratecontrol/Entry.h"

#include <string_view>

namespace Vellum::Daemon {

class SubscriberDirectory;

// What the five counters of rate control mean here.
namespace RateCounter {
using Attribute = SenderRateControl::Entry::AttributeType;
inline constexpr Attribute messages = SenderRateControl::Entry::Attribute1;
inline constexpr Attribute recipients = SenderRateControl::Entry::Attribute2;
inline constexpr Attribute invalidRecipients = SenderRateControl::Entry::Attribute3;
inline constexpr Attribute spam = SenderRateControl::Entry::Attribute4;
inline constexpr Attribute infected = SenderRateControl::Entry::Attribute5;
} // namespace RateCounter

// "messages", "recipients", "invalid_recipients", "spam", "infected"; "" for any other number.
std::string_view rateCounterName(std::uint32_t counter);

struct MailLimits {
    RateLimitSettings rate{};
    EndpointLimitSettings endpoint{};
};

class MailCounts : public MessageObserver {
  public:
    // The directory is borrowed, and null where subscribers are not looked up.
    MailCounts(MailLimits limits, SubscriberDirectory* subscribers)
        : m_limits(std::move(limits)), m_subscribers(subscribers) {}

    // Holds for every message that ends afterwards.
    void install(MailLimits limits) { m_limits.replace(std::move(limits)); }

    void messageEnded(MessageSummary const& message, long now) override;

    // Lifts the blocks whose time is over; to be called now and then. A decision does not wait for this: it looks at
    // the end itself.
    struct BlockRound {
        std::size_t lifted = 0;
        std::size_t remaining = 0; // senders that are blocked still
    };
    static BlockRound liftBlocks(long now);

    // Lifts the sender's block, if there is one, and forgets his totals: he may send as much again as anybody.
    struct Reset {
        bool known = false;      // there is an entry
        bool wasBlocked = false; // or in another state that the host has set
        std::size_t periods = 0; // of five minutes, forgotten
    };
    static Reset reset(EmailAddress const& sender);

    // Drops the hours of sender reputation that no score counts any more; to be called now and then. An address that
    // sends on would otherwise gather one record each hour, in memory and in the table.
    static void dropOldHours(long now);

  private:
    void countEndpoint(MessageSummary const& message, EndpointLimitSettings const& limits, long now);

    Replaceable<MailLimits> m_limits;
    SubscriberDirectory* m_subscribers;
};

} // namespace Vellum::Daemon
