// Who may speak on a dispatcher's port: root, the user of this process, and those in the settings.
//
// A stranger is logged once for each user, a peer of which the kernel cannot tell whose it is as often as the limiter
// lets it. One thread at a time.
#pragma once

#include "foundation/NoteLimiter.h"
#include "foundation/ipc/PeerOwner.h"

#include <optional>
#include <set>
#include <string>
#include <sys/types.h>

namespace Vellum::IPC {

class Doorkeeper {
  public:
    // `port` is named in the log.
    Doorkeeper(std::set<uid_t> allowedUsers, unsigned int port);

    // What logs may call the peer of a socket that was just accepted: "127.0.0.1:40000 (user 0)". Nothing when it is to
    // be cut off, which is logged then.
    std::optional<std::string> admit(int socket);
    bool isAllowed(uid_t user) const;

  private:
    void logStranger(uid_t user, std::string const& peer);

    std::set<uid_t> const m_allowedUsers;
    unsigned int const m_port;
    PeerOwner m_owners;
    std::set<uid_t> m_strangers; // that were logged
    NoteLimiter m_notes;
};

} // namespace Vellum::IPC
