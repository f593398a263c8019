// The section [milter] of the daemon's settings.
#pragma once

#include "daemon/ContentRules.h"
#include "daemon/ListeningSocket.h"
#include "foundation/Settings.h"

#include <optional>
#include <sys/types.h>

namespace Vellum::Daemon {

struct MilterSettings {
    std::optional<ListenAddress> listen; // nothing: no milter front
    mode_t socketMode = 0666;
    unsigned int maxConnections = 2000;
    unsigned int timeoutSeconds = 1800; // for the mail server to say the next thing
    bool decide = true;
    ContentRules content;
};

// Throws SettingsError.
MilterSettings readMilter(SettingsTable const& milter);

} // namespace Vellum::Daemon
