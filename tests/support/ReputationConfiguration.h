// A reputation configuration that a test can turn while it is in use; the process's for its life.
#pragma once

#include "foundation/Exception.h"
#include "reputation/Configuration.h"

#include <atomic>
#include <functional>
#include <string>

namespace Vellum::Reputation {

class InstalledConfiguration final : public Configuration {
  public:
    InstalledConfiguration() : m_before(s_instance.exchange(this)) {}
    ~InstalledConfiguration() { s_instance = m_before; }
    InstalledConfiguration(InstalledConfiguration const&) = delete;
    InstalledConfiguration& operator=(InstalledConfiguration const&) = delete;

    std::string const& backupPath() const override {
        if (path.empty()) {
            throw Exception("InstalledConfiguration::backupPath", Exception::failure).stringParameter("none is set");
        }
        return path;
    }
    void backupDone() override {
        ++backupsDone;
        if (onBackupDone) {
            onBackupDone();
        }
    }
    bool backupEnabled() const override {
        if (enabledThrows) {
            throw Exception("InstalledConfiguration::backupEnabled", Exception::failure);
        }
        return enabled;
    }

    std::string path; // of the backup's script; set before anybody asks, empty: asking throws
    std::atomic<bool> enabled{true};
    std::atomic<bool> enabledThrows{false};
    std::atomic<int> backupsDone{0};
    std::function<void()> onBackupDone; // set before anybody asks

  private:
    Configuration* m_before;
};

} // namespace Vellum::Reputation
