// The section [endpoint] of the settings.
#pragma once

#include "foundation/Settings.h"

namespace Vellum::Daemon {

struct EndpointSettings {
    bool enabled = true;             // subscribers are counted and asked about
    unsigned int windowMinutes = 30; // scoring window
    bool radius = false;             // the subscriber of a client address is looked up in the accounting database
    bool backup = true;
};

// Throws SettingsError.
EndpointSettings readEndpoint(SettingsTable const& endpoint);

} // namespace Vellum::Daemon
