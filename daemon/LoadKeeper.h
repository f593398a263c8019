// Sees to it that an empty cache never overwrites a full table.
//
// Until both tables have been loaded, or an administrator has accepted the caches as they are, no backup is allowed and
// loading is tried again. What the caches learned until the retry began is kept beside what is loaded; a tuple that is
// first seen while the rows are being fetched may have to wait once more.
#pragma once

#include "foundation/Locks.h"

#include <functional>
#include <string>

namespace Vellum::Daemon {

class LoadKeeper {
  public:
    // `loaded` is called after a load that was tried again has succeeded, on the thread that tried.
    explicit LoadKeeper(std::function<void()> loaded) : m_loaded(std::move(loaded)) {}

    // Whether a backup may replace the tables, by the last load's report. Thread-safe.
    bool mayBackUp() const;
    // Why not; empty when it may.
    std::string problem() const;
    // The administrator's word that the caches may replace the tables as they are. False when they might already.
    // The word holds for what is wrong now: a later load that fails in another way shuts the gate again.
    bool accept();

    // Loads again when the last load has failed and nobody has accepted that. Logs what comes of it.
    void tryAgain();

  private:
    std::function<void()> m_loaded;
    mutable Mutex m_lock;
    std::string m_acceptedProblem VELLUM_GUARDED_BY(m_lock); // empty: nothing was accepted
};

} // namespace Vellum::Daemon
