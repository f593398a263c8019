// What is held against a client or a sender before greylisting is asked: the first of the decision's steps.
//
//   1. endpoint        a subscriber on the exempt list passes; one on the blacklist, or whose automatic blacklisting
//   has
//                      not expired, is treated as the settings say
//   2. sender block    a sender that has sent too much waits (RateLimits.h)
//   3. reputation      a client address whose score reaches a threshold is deferred or rejected; not one that has
//                      logged in, whose address is that of people on the move
//
// What has no entry in a cache gets none here, and nothing counts as a use: asking changes nothing.
// Thread-safe; takes the caches' and entries' locks in upgrade mode, each for a moment: beside listings, and beside
// whoever waits for a listing's end.
#pragma once

#include "daemon/LimitSettings.h"
#include "daemon/Message.h"
#include "daemon/Verdict.h"

#include "reputation/ReputationEntry.h"

#include <array>
#include <optional>
#include <utility>
#include <vector>

namespace Vellum::Daemon {

class SubscriberDirectory;

struct StandingSettings {
    bool senderBlocks() const { return rate.most != RateLimitSettings().most; }

    RateLimitSettings rate{}; // with all limits 0 nobody is blocked
    ReputationLimitSettings reputation{};
    EndpointLimitSettings endpoint{};
};

// Until when a sender is blocked, and by which counter.
struct SenderBlock {
    long until = 0;            // seconds since the epoch
    std::uint32_t counter = 0; // 1 to 5, 0 for none
};

class Standing {
  public:
    // Everything that judge() looks at.
    struct Facts {
        struct Endpoint {
            bool exempt = false;
            bool blacklisted = false;  // on the list
            long blacklistedUntil = 0; // automatically; seconds since the epoch
            std::uint32_t score = 0;
        };
        struct Rate {
            bool known = false;
            std::array<std::uint32_t, RateLimitSettings::counters> totals{}; // of half an hour
        };
        MSISDN subscriber;             // null: none, or not looked up yet
        bool subscribersKnown = false; // they are looked up at all
        Endpoint endpoint;
        EmailAddress accountable; // whom rate control holds to account; null for nobody
        Rate rate;
        std::optional<SenderBlock> block;
        std::optional<std::uint32_t> score;                                     // of the client's address
        std::vector<std::pair<std::uint32_t, Reputation::Entry::Record>> hours; // its records by period, oldest first
        Reputation::ReputationState state{};
        long lastModified = 0; // seconds since the epoch
    };

    // The directory is borrowed, and null where subscribers are not looked up.
    explicit Standing(SubscriberDirectory* subscribers) : m_subscribers(subscribers) {}

    // The verdict that needs no further look; nothing when the rest of the decision has the word. `now`: seconds since
    // the epoch.
    std::optional<Verdict> judge(Message const& message, StandingSettings const& settings, long now) const;

    Facts facts(Message const& message, StandingSettings const& settings, long now) const;

    // To be called as soon as a client is known, so that its subscriber is, too, when it matters. Does not wait.
    void expect(IPAddress const& client) const;

  private:
    std::optional<Verdict> endpoint(Message const& message, EndpointLimitSettings const& settings, long now) const;

    SubscriberDirectory* m_subscribers;
};

// The parts of it, each without a change to anything.

// The score of an address as of `now`, 0 to 100; nothing for one without an entry.
std::optional<std::uint32_t> reputationScore(IPAddress const& client, long now);

// The block of a sender. Nothing when it is not blocked, or when that time is over: at exactly `until` it is.
std::optional<SenderBlock> senderBlock(EmailAddress const& sender, long now);

} // namespace Vellum::Daemon
