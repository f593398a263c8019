// What the host tells sender reputation.
#pragma once

#include <atomic>
#include <string>

namespace Vellum::Reputation {

// Implemented by the host. It is read afresh at every use, from many threads at once. The order of the virtual
// operations is fixed, and there are no others, so the host destroys its object as what it is.
class Configuration {
  public:
    virtual std::string const& backupPath() const = 0; // file that the backup writes
    virtual void backupDone() = 0;          // called after the database daemon was asked, whatever it answered
    virtual bool backupEnabled() const = 0; // whether the periodic backup does anything

    // The installed configuration. Throws Exception when there is none.
    static Configuration* instance();

    // Installed by the host before the first backup or restore; borrowed, it outlives every use.
    static std::atomic<Configuration*> s_instance;

  protected:
    Configuration() = default;
    ~Configuration() = default;
};

} // namespace Vellum::Reputation
