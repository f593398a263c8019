// The section [high_availability] of the daemon's settings.
#pragma once

#include "foundation/Settings.h"

#include <chrono>
#include <string>
#include <vector>

namespace Vellum::Daemon {

struct HighAvailabilitySettings {
    std::string activeFile;                 // at most one of these two; neither: this unit is always the active one
    std::vector<std::string> activeCommand; // an absolute path and arguments
    std::vector<std::string> resyncCommand; // likewise; empty: none
    std::chrono::seconds commandLimit{10};
    std::chrono::seconds answerHolds{5};

    bool operator==(HighAvailabilitySettings const&) const = default;
};

// Throws SettingsError.
HighAvailabilitySettings readHighAvailability(SettingsTable const& section);

} // namespace Vellum::Daemon
