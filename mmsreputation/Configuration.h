// What the host tells endpoint reputation.
#pragma once

#include <atomic>
#include <string>

namespace Vellum::MMSReputation {

// Implemented by the host. It is read afresh at every use, from many threads at once. The order of the virtual
// operations is fixed.
class Configuration {
  public:
    Configuration() = default;
    virtual ~Configuration() = default;
    Configuration(Configuration const&) = delete;
    Configuration& operator=(Configuration const&) = delete;

    virtual std::string const& fnameBackup() const = 0; // file that the backup writes
    virtual void resyncIfMaster() const = 0;            // called after every backup that got as far as its request
    virtual bool haMaster() const = 0;                  // this unit is the active one: only then the job backs up
    virtual unsigned int maxEntries() const = 0;        // for the host only; the cache holds 10000 whatever it says
    // Minutes; at least 15. Slices are counted from the epoch, so another window gives old slices another meaning: a
    // host that changes it loads the cache again.
    virtual unsigned int windowSize() const = 0;
    virtual bool enabled() const = 0; // for the host only

    // The installed configuration. Throws Exception when there is none.
    static Configuration* instance();

    // Installed by the host before anything else of the family is used; borrowed, it outlives every use.
    static std::atomic<Configuration*> s_instance;
};

// For processes without settings of their own, such as tools: no backup file, master, 30000 entries, 30 minutes,
// enabled.
class StubConfiguration : public Configuration {
  public:
    std::string const& fnameBackup() const override { return m_fnameBackup; }
    void resyncIfMaster() const override {}
    bool haMaster() const override { return true; }
    unsigned int maxEntries() const override { return 30000; }
    unsigned int windowSize() const override { return 30; }
    bool enabled() const override { return true; }

    // Installs a stub unless a configuration is installed already. Returns what is installed then, which may be the
    // host's. Thread-safe.
    static Configuration* instance();

  private:
    std::string const m_fnameBackup; // empty: nothing can be backed up
};

} // namespace Vellum::MMSReputation
