// The rules of a script: what may follow what, so that it is all or nothing.
#pragma once

#include "foundation/database/ScriptTransaction.h"

#include <cstdint>
#include <string_view>

namespace Vellum::Database {

// Takes a script's statements in order and runs those that are to run; QueryFile.h has the rules. Throws
// DatabaseException for a statement that fails or that must not stand where it stands.
class ScriptRun {
  public:
    explicit ScriptRun(ScriptSession& session) : m_session(session) {}

    void take(std::string_view statement);
    // The end of the script: commits, unless the script was cut off.
    void finish();

    std::uint64_t affectedRows() const { return m_affectedRows; }

  private:
    void refuseAfterChange(std::string_view statement) const;

    ScriptSession& m_session; // borrowed
    bool m_empty = true;
    bool m_changed = false; // a row may have changed
    bool m_closed = true;   // nothing but commits and unlocks since the last change
    bool m_locked = false;
    bool m_unlocked = false;
    std::uint64_t m_affectedRows = 0;
};

} // namespace Vellum::Database
