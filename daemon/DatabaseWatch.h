// Whether the database server can be reached, as last tried. Trouble is said once, and so is its end.
#pragma once

#include "daemon/AdminServices.h"
#include "foundation/Locks.h"

namespace Vellum::Daemon {

class DatabaseWatch {
  public:
    // Opens a connection and closes it again; waits for the server as long as the settings allow. `now`: seconds since
    // the epoch.
    void look(long now);
    DaemonStatus::DatabaseState state() const;

  private:
    mutable Mutex m_lock;
    DaemonStatus::DatabaseState m_state VELLUM_GUARDED_BY(m_lock);
};

} // namespace Vellum::Daemon
