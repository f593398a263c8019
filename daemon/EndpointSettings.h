// The section [endpoint] of the settings.
#pragma once

#include "foundation/Settings.h"

namespace Vellum::Daemon {

struct EndpointSettings {
    bool enabled = true;             // subscribers are counted and asked about
    unsigned int windowMinutes = 30; // scoring window
    bool backup = true;
};

// Throws SettingsError.
EndpointSettings readEndpoint(SettingsTable const& endpoint);

} // namespace Vellum::Daemon
