// Sizing of sender rate control, as the host gives it.
#pragma once

#include <atomic>
#include <cstdint>

namespace Vellum::SenderRateControl {

// Implemented by the host, which installs one object and keeps it alive while the process runs.
class Configuration {
  public:
    virtual ~Configuration() = default;

    // Senders that the cache holds at most; read when the cache is made.
    virtual std::uint32_t cacheSize() const = 0;

    // The installed configuration. Throws Exception when there is none.
    static Configuration* instance();

    // Borrowed; set by the host before the first use of the cache.
    static std::atomic<Configuration*> s_instance;
};

} // namespace Vellum::SenderRateControl
