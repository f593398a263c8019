// An endpoint configuration that a test can turn while it is in use.
//
//   InstalledConfiguration configuration;      // 30 minutes, master, enabled
//   configuration->window = 60;                // holds for the next period
#pragma once

#include "foundation/Exception.h"
#include "mmsreputation/Configuration.h"

#include <atomic>
#include <functional>
#include <string>

namespace Vellum::MMSReputation {

class AdjustableConfiguration : public Configuration {
  public:
    std::string const& fnameBackup() const override {
        if (path.empty()) {
            throw Exception("AdjustableConfiguration::fnameBackup", Exception::failure).stringParameter("none is set");
        }
        return path;
    }
    void resyncIfMaster() const override { ++resyncs; }
    bool haMaster() const override {
        if (haMasterThrows) {
            throw Exception("AdjustableConfiguration::haMaster", Exception::failure);
        }
        return master;
    }
    unsigned int maxEntries() const override { return entries; }
    unsigned int windowSize() const override {
        if (onWindowSize) {
            onWindowSize();
        }
        return window;
    }
    bool enabled() const override { return isEnabled; }

    std::atomic<unsigned int> window{30};
    std::atomic<unsigned int> entries{30000};
    std::atomic<bool> master{true};
    std::atomic<bool> haMasterThrows{false};
    std::atomic<bool> isEnabled{true};
    mutable std::atomic<int> resyncs{0};
    std::function<void()> onWindowSize; // where a slice is reckoned; set before anybody asks
    std::string path;                   // of the backup's script; set before anybody asks, empty: asking throws
};

// Makes a configuration the process's for its life, and puts the one before back.
class InstalledConfiguration {
  public:
    InstalledConfiguration() : m_before(Configuration::s_instance.exchange(&m_configuration)) {}
    ~InstalledConfiguration() { Configuration::s_instance = m_before; }
    InstalledConfiguration(InstalledConfiguration const&) = delete;
    InstalledConfiguration& operator=(InstalledConfiguration const&) = delete;

    AdjustableConfiguration* operator->() { return &m_configuration; }

  private:
    AdjustableConfiguration m_configuration;
    Configuration* m_before;
};

// The process has no configuration, for its life.
class NoConfiguration {
  public:
    NoConfiguration() : m_before(Configuration::s_instance.exchange(nullptr)) {}
    ~NoConfiguration() { Configuration::s_instance = m_before; }
    NoConfiguration(NoConfiguration const&) = delete;
    NoConfiguration& operator=(NoConfiguration const&) = delete;

  private:
    Configuration* m_before;
};

} // namespace Vellum::MMSReputation
