#include "daemon/SubscriberDirectory.h"

#include <string>
#include <utility>

namespace Vellum::Daemon {

SubscriberDirectory::SubscriberDirectory(Lookup lookup, Clock clock, Options options)
    : m_lookup(std::move(lookup)), m_clock(std::move(clock)), m_options(options), m_known(options.mostAddresses) {
    for (unsigned int i = 0; i < m_options.threads; ++i) {
        m_threads.emplace_back([this] { work(); });
    }
}

SubscriberDirectory::~SubscriberDirectory() {
    {
        std::lock_guard<std::mutex> const held(m_mutex);
        m_ending = true;
        m_changed.notify_all();
    }
    for (std::thread& thread : m_threads) {
        thread.join();
    }
}

MSISDN SubscriberDirectory::of(IPAddress const& address) {
    if (address.isNull()) {
        return {};
    }
    MSISDN number;
    bool fresh = false;
    {
        long const now = m_clock();
        ExclusiveLock const hold(m_known.lock);
        auto const found = m_known.findNoLock(address);
        if (found != m_known.end()) {
            long const age = now - found->second.since;
            bool const believable = age >= 0 && age <= m_options.staleSeconds; // a clock that was put back: ask again
            number = believable ? found->second.number : MSISDN();
            fresh = believable && age < m_options.freshSeconds;
        }
    }
    if (!fresh) {
        enqueue(address);
    }
    return number;
}

void SubscriberDirectory::enqueue(IPAddress const& address) {
    long const now = m_clock();
    std::lock_guard<std::mutex> const held(m_mutex);
    long const pause = m_pausedUntil - now;
    bool const paused = pause > 0 && pause <= m_options.pauseSeconds; // a longer one: the clock was set back
    if (!paused && m_queue.size() < m_options.mostQueued && m_underWay.insert(address).second) {
        m_queue.push_back(address);
        m_changed.notify_one();
    }
}

void SubscriberDirectory::work() {
    std::unique_lock<std::mutex> held(m_mutex);
    for (;;) {
        m_changed.wait(held, [this] { return m_ending || !m_queue.empty(); });
        if (m_ending) {
            return;
        }
        IPAddress const address = m_queue.front();
        m_queue.pop_front();
        ++m_inHand;
        held.unlock();
        lookUp(address);
        held.lock();
        m_underWay.erase(address);
        --m_inHand;
        m_changed.notify_all();
    }
}

void SubscriberDirectory::lookUp(IPAddress const& address) {
    try {
        Known const found{MSISDN(m_lookup(address)), m_clock()};
        m_trouble.ends("the accounting database answers again");
        ExclusiveLock const hold(m_known.lock);
        m_known.removeNoLock(address);
        m_known.addNoLock(address, found);
    } catch (std::exception const& failed) {
        m_trouble.begins(std::string("subscribers cannot be looked up: ") + failed.what());
        pause();
    }
}

// What is queued is dropped: it is asked for again with the next message.
void SubscriberDirectory::pause() {
    long const now = m_clock();
    std::lock_guard<std::mutex> const held(m_mutex);
    m_pausedUntil = now + m_options.pauseSeconds;
    for (IPAddress const& address : m_queue) {
        m_underWay.erase(address);
    }
    m_queue.clear();
}

void SubscriberDirectory::waitUntilIdle() {
    std::unique_lock<std::mutex> held(m_mutex);
    m_changed.wait(held, [this] { return m_queue.empty() && m_inHand == 0; });
}

} // namespace Vellum::Daemon
