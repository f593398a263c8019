// What became of the backups' scripts that the database daemon has accepted, as last asked. A script that it can never
// run is said once, and so is the end of that; and that it does not answer.
#pragma once

#include "foundation/Locks.h"
#include "foundation/database/DatabaseDaemon.h"

#include <array>
#include <optional>

namespace Vellum::Daemon {

// A family of state that is backed up by scripts.
struct ScriptFamily {
    DatabaseDaemon::RequestCode code;
    char const* name; // as metrics and messages call it
};
inline constexpr std::array scriptFamilies{
    ScriptFamily{DatabaseDaemon::RequestCode::greylistScript, "greylist"},
    ScriptFamily{DatabaseDaemon::RequestCode::reputationScript, "reputation"},
    ScriptFamily{DatabaseDaemon::RequestCode::endpointScript, "endpoint"},
};

// The outcome of one code's scripts; nothing is known of one that is not told.
DatabaseDaemon::ScriptOutcome outcomeOf(DatabaseDaemon::ScriptOutcomes const& outcomes,
                                        DatabaseDaemon::RequestCode code);

// Thread-safe.
class ScriptWatch {
  public:
    // Asks the database daemon, and waits for its answer as long as the settings allow. While it does not answer, what
    // it told last stays.
    void look();
    // It was asked something else just now, and did not answer, which was said.
    void isUnreachable();

    // Whether it has answered; nothing: it was not asked yet.
    std::optional<bool> isAnswered() const;
    DatabaseDaemon::ScriptOutcomes outcomes() const;

  private:
    mutable Mutex m_lock;
    std::optional<bool> m_answered VELLUM_GUARDED_BY(m_lock);
    DatabaseDaemon::ScriptOutcomes m_outcomes VELLUM_GUARDED_BY(m_lock);
};

} // namespace Vellum::Daemon
