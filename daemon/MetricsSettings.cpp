#include "daemon/MetricsSettings.h"

#include "daemon/ListenSettings.h"

namespace Vellum::Daemon {
namespace {

bool isLoopback(IPAddress const& address) {
    constexpr std::uint8_t v4Loopback = 127; // the whole network 127.0.0.0/8
    return address.isV4() ? address.bytes().front() == v4Loopback : address == IPAddress("::1");
}

} // namespace

// There is no password: whoever reaches the port reads what it tells, so wider than this machine must be asked for.
MetricsSettings readMetrics(SettingsTable const& metrics) {
    MetricsSettings settings;
    bool const anywhere = metrics.boolean("anywhere", false);
    std::string const text = metrics.text("listen", "");
    if (text.empty()) {
        return settings;
    }
    settings.listen = parseListen(metrics, "listen", text);
    if (settings.listen->isUnix()) {
        metrics.refuse("listen", "expected inet:ADDRESS:PORT: metrics are asked for over HTTP");
    }
    if (!anywhere && !isLoopback(settings.listen->inet.address())) {
        metrics.refuse("listen", "expected an address of the loopback (127.0.0.1, ::1), unless \"anywhere\" is true");
    }
    return settings;
}

} // namespace Vellum::Daemon
