// Which subscriber of the mobile network has an address, told at once from memory.
//
// The answer is in the accounting database, and no decision waits for that: an address that is not known yet, or was
// looked up too long ago, is queued, and a thread of this object asks. Until then an unknown address has no subscriber.
// So that the answer is there at the recipient, fronts call of() as soon as they know the client, at its connection.
//
//   known for less than `fresh`    answered
//   older                          answered, and looked up again
//   older than `stale`             not answered any more (the address may have changed hands), and looked up again
//
// An address without a subscriber is remembered, too. While the database fails, what is known goes stale; the failure
// is said once, and its end; and nothing is asked for some seconds after a failure, lest every message add to the
// trouble. Bounded: addresses known (the one unused for longest goes first) and addresses queued (what comes beyond is
// not queued, and asks again with its next message).
//
// Thread-safe. of() takes two short locks.
#pragma once

#include "daemon/OngoingTrouble.h"
#include "foundation/IPAddressKeyOrder.h"
#include "foundation/Locks.h"
#include "foundation/MSISDN.h"
#include "include2/LRUCache.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace Vellum::Daemon {

class SubscriberDirectory {
  public:
    // Asks the accounting database: the number, or "" for none. May wait. Throws std::exception.
    using Lookup = std::function<std::string(IPAddress const&)>;
    using Clock = std::function<long()>; // seconds since the epoch

    struct Options {
        std::uint32_t mostAddresses = 100'000;
        std::size_t mostQueued = 10'000;
        long freshSeconds = 60;
        long staleSeconds = 600;
        long pauseSeconds = 5; // after a failure
        unsigned int threads = 4;
    };

    SubscriberDirectory(Lookup lookup, Clock clock, Options options);
    // Waits for the lookups in hand; what is queued is dropped.
    ~SubscriberDirectory();
    SubscriberDirectory(SubscriberDirectory const&) = delete;
    SubscriberDirectory& operator=(SubscriberDirectory const&) = delete;

    // The subscriber as far as it is known; null for none. Never waits.
    MSISDN of(IPAddress const& address);

    // For tests: waits until nothing is queued or in hand.
    void waitUntilIdle();

  private:
    struct Known {
        MSISDN number; // null: none
        long since = 0;
    };

    void enqueue(IPAddress const& address);
    void work();
    void lookUp(IPAddress const& address);
    void pause();

    Lookup const m_lookup;
    Clock const m_clock;
    Options const m_options;
    LRUCache<IPAddress, Known> m_known;
    OngoingTrouble m_trouble{std::chrono::seconds(60)};

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<IPAddress> m_queue;  // under m_mutex, as are the next three
    std::set<IPAddress> m_underWay; // queued or in hand
    unsigned int m_inHand = 0;
    long m_pausedUntil = 0; // seconds since the epoch
    bool m_ending = false;
    std::vector<std::thread> m_threads; // last: they use everything above
};

} // namespace Vellum::Daemon
