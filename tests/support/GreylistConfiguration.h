// A greylist configuration that a test can turn while it is in use.
//
//   InstalledConfiguration configuration;      // five minutes, four hours, 36 days; 1000 records
//   _TupleCache cache;                         // takes its capacity from it
//   configuration->minutes = 7;                // holds for the next decision
#pragma once

#include "foundation/Exception.h"
#include "greylist/Configuration.h"

#include <atomic>
#include <string>

namespace Vellum::GreyList {

class AdjustableConfiguration : public Configuration {
  public:
    int initialExpiryHours() const override { return hours; }
    int ttlDays() const override { return days; }
    int greylistMinutes() const override { return minutes; }
    std::string backupPath() const override {
        if (path.empty()) {
            throw Exception("AdjustableConfiguration::backupPath", Exception::failure).stringParameter("none is set");
        }
        return path;
    }
    void backupDone() override { ++backupsDone; }
    bool backupEnabled() const override {
        if (enabledThrows) {
            throw Exception("AdjustableConfiguration::backupEnabled", Exception::failure);
        }
        return enabled;
    }
    int maxRecords() const override { return records; }

    std::atomic<int> hours{4};
    std::atomic<int> days{36};
    std::atomic<int> minutes{5};
    std::atomic<int> records{1000};
    std::atomic<bool> enabled{true};
    std::atomic<bool> enabledThrows{false};
    std::atomic<int> backupsDone{0};
    std::string path; // of the backup's script; set before anybody asks, empty: asking throws
};

// Makes a configuration the process's; it stays so until another is installed.
class InstalledConfiguration {
  public:
    explicit InstalledConfiguration(int maxRecords = 1000) : m_configuration(new AdjustableConfiguration) {
        m_configuration->records = maxRecords;
        m_handle = RefConfiguration::instance(m_configuration);
    }
    AdjustableConfiguration* operator->() const { return m_configuration; }

  private:
    AdjustableConfiguration* m_configuration; // kept by the handle
    RefConfiguration m_handle;
};

} // namespace Vellum::GreyList
