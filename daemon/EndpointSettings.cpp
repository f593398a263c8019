#include "daemon/EndpointSettings.h"

#include "mmsreputation/Period.h"

#include <limits>
#include <string>

namespace Vellum::Daemon {

EndpointSettings readEndpoint(SettingsTable const& endpoint) {
    // Slices are whole minutes, and a slice's number must tell one window from another (see the load of the tables).
    constexpr std::int64_t shortest = MMSReputation::Period::slicesPerWindow;
    constexpr std::int64_t longest = 10'080; // a week
    EndpointSettings settings;
    settings.enabled = endpoint.boolean("enabled", settings.enabled);
    settings.radius = endpoint.boolean("radius", settings.radius);
    settings.backup = endpoint.boolean("backup", settings.backup);
    std::int64_t const window =
        endpoint.integer("window_minutes", settings.windowMinutes, std::numeric_limits<std::int64_t>::min(),
                         std::numeric_limits<std::int64_t>::max());
    if (window < shortest || window > longest) {
        endpoint.refuse("window_minutes", "expected " + std::to_string(shortest) + " to " + std::to_string(longest) +
                                              " minutes: a window is divided into " + std::to_string(shortest) +
                                              " slices of whole minutes");
    }
    settings.windowMinutes = static_cast<unsigned int>(window);
    return settings;
}

} // namespace Vellum::Daemon
