// The settings of vellumd: one TOML file (packaging/vellumd.toml is the example, with every key and its default).
//
// A value object: read once at start and again at SIGHUP. What a second reading changes while the daemon runs is up to
// the daemon; nothing here acts. Every mistake in the file is an error that names file, line, key, value and what is
// allowed; a key that nobody knows is a mistake. Relative paths are taken from the directory of the file.
#pragma once

#include "daemon/AddressFolding.h"
#include "daemon/EndpointSettings.h"
#include "daemon/HighAvailabilitySettings.h"
#include "daemon/LimitSettings.h"
#include "daemon/ListeningSocket.h"
#include "daemon/MetricsSettings.h"
#include "daemon/MilterSettings.h"
#include "foundation/LogSinks.h"
#include "foundation/Settings.h"
#include "foundation/database/ServerMap.h"
#include "foundation/ipc/PduType.h"

#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace Vellum::Daemon {

struct LogSettings { // [log]
    LogTarget target{.kind = LogTarget::Kind::syslog, .path = {}, .facility = LOG_MAIL};
    bool decisions = true; // one line for each
};

struct DatabaseDaemonSettings { // [database_daemon]
    std::string socket;
    unsigned int timeoutSeconds = 60;
};

struct StateSettings { // [state]
    std::string directory = "/var/lib/vellum";
    std::string pidFile; // empty: none

    // In the directory: the scripts of the last backups, and the file whose lock keeps a second daemon out.
    std::string greylistScript() const { return directory + "/greylist.sql"; }
    std::string reputationScript() const { return directory + "/reputation.sql"; }
    std::string endpointScript() const { return directory + "/endpoint.sql"; }
    std::string lockFile() const { return directory + "/vellumd.lock"; }
};

struct IpcSettings {                          // [ipc]
    unsigned int port = IPC::stateDaemonPort; // 0: the kernel chooses
    bool ipv6 = false;                        // listen on ::1 too
    std::set<uid_t> users;                    // served besides root and the daemon's own
    unsigned int maxConnections = 2000;
    unsigned int workers = 64; // threads for requests that take long
    unsigned int frameTimeoutSeconds = 10;
};

struct PolicySettings { // [policy]
    std::vector<ListenAddress> listen;
    mode_t socketMode = 0666;
    unsigned int threads = 0; // 0: one for each core
    unsigned int maxConnections = 10000;
};

struct GreylistSettings { // [greylist]
    bool enabled = true;
    int delayMinutes = 5;
    int firstLifeHours = 48;
    int lifeDays = 36;
    int maxRecords = 1'000'000;
    bool backup = true;
    unsigned int autoExemptAfter = 5; // 0: never
    std::string deferText = "Greylisted, please try again in %SECONDS% seconds";
    bool header = true;
    std::string hostName; // in the header; empty: the system's
    std::string rules;    // path; empty: no rules
    AddressFolding folding;
};

struct ReputationSettings { // [reputation]
    bool backup = true;
};

struct RateControlSettings { // [rate_control]
    std::uint32_t maxSenders = 100'000;
};

struct Settings {
    LogSettings log;
    Database::Server database; // [database], see foundation/database/DatabaseSettings.h
    DatabaseDaemonSettings databaseDaemon;
    StateSettings state;
    IpcSettings ipc;
    PolicySettings policy;
    MilterSettings milter;
    MetricsSettings metrics;
    HighAvailabilitySettings highAvailability;
    GreylistSettings greylist;
    ReputationSettings reputation;
    RateControlSettings rateControl;
    EndpointSettings endpoint;
    RateLimitSettings rateLimits;
    ReputationLimitSettings reputationLimits;
    EndpointLimitSettings endpointLimits;

    // Throw SettingsError.
    static Settings load(std::string const& path);
    static Settings parse(std::string const& text, std::string const& fileName);
};

// The section [greylist] alone, for a tool that tries settings out where the rest of the file is of no use: it may be
// missing or name users and files of another machine.
GreylistSettings loadGreylistSettings(std::string const& path);

// Where a text for the mail server's client says how long it has to wait.
inline constexpr std::string_view secondsPlaceholder = "%SECONDS%";

} // namespace Vellum::Daemon
