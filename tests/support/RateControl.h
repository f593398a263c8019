// Sender rate control for tests: a configuration, and the process's cache.
#pragma once

#include "senderratecontrol/SenderRateControlCache.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>

namespace Vellum::SenderRateControl {

// The process's configuration for its life.
class InstalledConfiguration : public Configuration {
  public:
    explicit InstalledConfiguration(std::uint32_t senders) : m_senders(senders), m_before(s_instance.exchange(this)) {}
    ~InstalledConfiguration() override { s_instance = m_before; }
    InstalledConfiguration(InstalledConfiguration const&) = delete;
    InstalledConfiguration& operator=(InstalledConfiguration const&) = delete;

    std::uint32_t cacheSize() const override { return m_senders; }

  private:
    std::uint32_t m_senders;
    Configuration* m_before;
};

inline EmailAddress mailbox(std::string const& address) {
    return EmailAddress::fromAddress(address);
}
// Numbered senders, in ascending order of address.
inline EmailAddress sender(unsigned int n) {
    char text[40];
    std::snprintf(text, sizeof text, "sender%06u@example.net", n);
    return mailbox(text);
}

inline std::uint32_t sizeOf(Cache const& cache) {
    SharedLock const hold(cache.lock);
    return cache.sizeNoLock();
}
// Without counting as a use.
inline RefEntry held(Cache const& cache, EmailAddress const& of) {
    SharedLock const hold(cache.lock);
    auto const found = cache.lookup(of);
    return found == cache.end() ? RefEntry(false) : found->second;
}

// The cache of the process, as handlers use it, empty at the start of a test.
class ProcessCache : public testing::Test {
  public:
    static constexpr std::uint32_t capacity = 5000;

  protected:
    ProcessCache() { m_cache.clear(); }

    InstalledConfiguration const m_configuration{capacity};
    Cache& m_cache = **RefCache::instance();
};

} // namespace Vellum::SenderRateControl
