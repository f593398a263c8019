// Sees to it that an empty cache never overwrites full tables, for one family of state.
//
// Until the family's tables have been loaded, or an administrator has accepted the caches as they are, no backup of
// them is allowed and loading is tried again. The same once more when this unit of a pair becomes the active one: the
// other one has written the tables since.
#pragma once

#include "foundation/Locks.h"
#include "foundation/RepeatedFailures.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

namespace Vellum::Daemon {

// A family's tables, as the keeper sees them.
struct KeptTables {
    std::string name;                     // for messages: "the tables"
    std::function<std::string()> problem; // of the last load; empty when the caches hold what the tables held
    // Loads once more. What the caches learned until then is kept beside what is loaded.
    std::function<void()> loadAgain;
    // Loads everything, also after a good load: somebody else has written the tables since. What the caches hold is
    // kept beside it likewise.
    std::function<void()> loadAnew = {};
    // Where a backup may be allowed although something could not be loaded: why it is not, empty when it is, and what
    // an administrator's acceptance does beside.
    std::function<std::string()> whyNoBackup = {};
    std::function<void()> accept = {};
};

// Of the greylist: a record that was loaded stays as it was loaded; a tuple that is first seen while the rows are being
// fetched may have to wait once more.
KeptTables greylistTables();
// Of sender reputation: of an hour that was loaded and counted in since the start, each counter's larger value stays.
KeptTables reputationTables();
// Of endpoint reputation, both lists included: of a slice, the larger counts stay. Where only a list was missed, only
// the lists are read again. Only what the entries miss keeps them from being backed up, and the library itself asks:
// no backup writes the lists. An acceptance holds until the entries are loaded again.
KeptTables endpointTables();
class LoadKeeper {
  public:
    // `loaded` is called after a load that was tried again has succeeded, on the thread that tried; it may be empty.
    // `activations` counts how often this unit has become the active one; without it, it always is.
    explicit LoadKeeper(KeptTables tables, std::function<void()> loaded = {},
                        std::function<std::uint64_t()> activations = {})
        : m_tables(std::move(tables)), m_loaded(std::move(loaded)), m_activations(std::move(activations)) {}

    // Whether a backup may replace the tables, by the last load's report. Thread-safe, as the next three are.
    bool mayBackUp() const;
    // Why not; empty when it may.
    std::string whyNoBackup() const;
    // What the last load has missed and nobody has accepted; empty for nothing.
    std::string problem() const;
    // The administrator's word that the caches may replace the tables as they are. False when they might already.
    // The word holds for what is wrong now: a later load that fails in another way shuts the gate again.
    bool accept();

    // Loads again when the last load has failed and nobody has accepted that, and anew after an activation. Logs why it
    // fails when that is not what the load before has said, and that it has succeeded. One at a time.
    void tryAgain();

  private:
    std::uint64_t activations() const;
    void sayWhatCame(bool anew);

    KeptTables m_tables;
    std::function<void()> m_loaded;
    std::function<std::uint64_t()> m_activations;
    std::atomic<std::uint64_t> m_loadedFor{0}; // the activation that the last load belongs to
    RepeatedFailures m_failures;               // of the loads that were tried again
    mutable Mutex m_lock;
    std::string m_acceptedProblem VELLUM_GUARDED_BY(m_lock); // empty: nothing was accepted
};

} // namespace Vellum::Daemon
