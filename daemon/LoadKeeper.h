// Sees to it that an empty cache never overwrites full tables, for one family of state.
//
// Until the family's tables have been loaded, or an administrator has accepted the caches as they are, no backup of
// them is allowed and loading is tried again.
#pragma once

#include "foundation/Locks.h"

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
};

// Of the greylist: a record that was loaded stays as it was loaded; a tuple that is first seen while the rows are being
// fetched may have to wait once more.
KeptTables greylistTables();
// Of sender reputation: of an hour that was loaded and counted in since the start, each counter's larger value stays.
KeptTables reputationTables();
// Of endpoint reputation, both lists included: of a slice, the larger counts stay. Where only a list was missed, only
// the lists are read again. What the entries miss keeps the library itself from backing them up.
KeptTables endpointTables();
// Why no backup may replace the endpoint tables; empty when it may. Missed lists do not matter here: no backup writes
// them.
std::string whyEndpointsAreNotBackedUp();
// The administrator's word that the endpoint cache may replace its tables as it is, until it is loaded again. False
// when it might already.
bool acceptEndpoints();

class LoadKeeper {
  public:
    // `loaded` is called after a load that was tried again has succeeded, on the thread that tried; it may be empty.
    explicit LoadKeeper(KeptTables tables, std::function<void()> loaded = {})
        : m_tables(std::move(tables)), m_loaded(std::move(loaded)) {}

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
    KeptTables m_tables;
    std::function<void()> m_loaded;
    mutable Mutex m_lock;
    std::string m_acceptedProblem VELLUM_GUARDED_BY(m_lock); // empty: nothing was accepted
};

} // namespace Vellum::Daemon
