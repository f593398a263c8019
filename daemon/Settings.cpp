#include "daemon/Settings.h"

#include "daemon/ListenSettings.h"
#include "foundation/database/DatabaseDaemon.h"
#include "foundation/database/DatabaseSettings.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <optional>
#include <pwd.h>
#include <unistd.h>

namespace Vellum::Daemon {
namespace {

template <class T>
void readNumber(SettingsTable const& table, char const* key, T& value, std::int64_t lowest, std::int64_t highest) {
    value = static_cast<T>(table.integer(key, value, lowest, highest));
}

LogSettings readLog(SettingsTable const& log) {
    LogSettings settings;
    if (log.has("target")) {
        // A word that is no target would otherwise become a file of that name.
        bool const isPath = log.text("target", "").find('/') != std::string::npos;
        try {
            settings.target = LogTarget::parse(isPath ? log.path("target", "") : log.text("target", ""));
        } catch (SettingsError const&) {
            throw;
        } catch (Exception const&) {
            log.refuse("target", "expected \"syslog\", \"stderr\" or the path of a file, with a slash in it");
        }
    }
    settings.decisions = log.boolean("decisions", settings.decisions);
    return settings;
}

DatabaseDaemonSettings readDatabaseDaemon(SettingsTable const& daemon) {
    DatabaseDaemonSettings settings;
    settings.socket = daemon.path("socket", DatabaseDaemon::defaultSocketPath);
    readNumber(daemon, "timeout_seconds", settings.timeoutSeconds, 1, 3600);
    if (settings.socket.empty()) {
        daemon.refuse("socket", "expected the path of vellum-dbd's socket");
    }
    return settings;
}

StateSettings readState(SettingsTable const& state) {
    StateSettings settings;
    settings.directory = state.path("directory", settings.directory);
    settings.pidFile = state.path("pid_file", settings.pidFile);
    if (settings.directory.empty()) {
        state.refuse("directory", "expected the path of a directory");
    }
    return settings;
}

std::optional<uid_t> userNumber(std::string const& user) {
    uid_t number = 0;
    char const* const end = user.data() + user.size();
    auto const [last, error] = std::from_chars(user.data(), end, number);
    if (error == std::errc() && last == end) {
        return number;
    }
    std::vector<char> room(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwnam_r(user.c_str(), &entry, room.data(), room.size(), &found) != 0 || found == nullptr) {
        return std::nullopt;
    }
    return found->pw_uid;
}

IpcSettings readIpc(SettingsTable const& ipc) {
    IpcSettings settings;
    readNumber(ipc, "port", settings.port, 0, 65535);
    settings.ipv6 = ipc.boolean("ipv6", settings.ipv6);
    for (std::string const& user : ipc.texts("users", {})) {
        std::optional<uid_t> const number = userNumber(user);
        if (!number) {
            ipc.refuse("users", "expected names or numbers of users of this machine: there is no \"" + user + '"');
        }
        settings.users.insert(*number);
    }
    readNumber(ipc, "max_connections", settings.maxConnections, 1, 100'000);
    readNumber(ipc, "workers", settings.workers, 1, 1024);
    readNumber(ipc, "frame_timeout_seconds", settings.frameTimeoutSeconds, 1, 3600);
    return settings;
}

PolicySettings readPolicy(SettingsTable const& policy) {
    PolicySettings settings;
    for (std::string const& text : policy.texts("listen", {"unix:/run/vellum/policy.sock", "inet:127.0.0.1:29002"})) {
        settings.listen.push_back(parseListen(policy, "listen", text));
    }
    if (settings.listen.empty()) {
        policy.refuse("listen", "expected at least one address, as \"unix:/path\" or \"inet:127.0.0.1:29002\"");
    }
    settings.socketMode = readMode(policy, "socket_mode", settings.socketMode);
    readNumber(policy, "threads", settings.threads, 0, 256);
    readNumber(policy, "max_connections", settings.maxConnections, 1, 1'000'000);
    return settings;
}

// The host name goes into a header and is checked as what it is.
void checkHostName(SettingsTable const& greylist, std::string const& name) {
    bool const valid =
        name.size() <= 255 && std::all_of(name.begin(), name.end(), [](char c) {
            return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.';
        });
    if (!valid) {
        greylist.refuse("host_name", "expected a host name: letters, digits, hyphens and dots");
    }
}

// Times that hold each alone but not together: a delay that outlives the tuple lets nothing pass for ever, and a pass
// must grant more than waiting does, since that is how a stored tuple is known to have passed.
void checkTimes(SettingsTable const& greylist, GreylistSettings const& settings) {
    if (settings.delayMinutes >= settings.firstLifeHours * 60) {
        greylist.refuse("delay_minutes", "expected less than first_life_hours, which is " +
                                             std::to_string(settings.firstLifeHours * 60) + " minutes");
    }
    if (settings.firstLifeHours >= settings.lifeDays * 24) {
        greylist.refuse("first_life_hours",
                        "expected less than life_days, which is " + std::to_string(settings.lifeDays * 24) + " hours");
    }
}

GreylistSettings readGreylist(SettingsTable const& greylist) {
    GreylistSettings settings;
    settings.enabled = greylist.boolean("enabled", settings.enabled);
    readNumber(greylist, "delay_minutes", settings.delayMinutes, 0, 1440);
    readNumber(greylist, "first_life_hours", settings.firstLifeHours, 1, 720);
    readNumber(greylist, "life_days", settings.lifeDays, 1, 3650);
    readNumber(greylist, "max_records", settings.maxRecords, 1, 100'000'000);
    readNumber(greylist, "auto_exempt_after", settings.autoExemptAfter, 0, 1000);
    settings.backup = greylist.boolean("backup", settings.backup);
    settings.deferText = greylist.text("defer_text", settings.deferText);
    settings.header = greylist.boolean("header", settings.header);
    settings.hostName = greylist.text("host_name", settings.hostName);
    settings.rules = greylist.path("rules", settings.rules);
    settings.folding.extension = greylist.boolean("fold_extension", settings.folding.extension);
    settings.folding.bounceDigits = greylist.boolean("fold_bounce_digits", settings.folding.bounceDigits);
    settings.folding.lowercaseLocalPart = greylist.boolean("lowercase_local_part", settings.folding.lowercaseLocalPart);
    checkTimes(greylist, settings);
    checkReplyText(greylist, "defer_text", settings.deferText, true);
    checkHostName(greylist, settings.hostName);
    return settings;
}

ReputationSettings readReputation(SettingsTable const& reputation) {
    ReputationSettings settings;
    settings.backup = reputation.boolean("backup", settings.backup);
    return settings;
}

RateControlSettings readRateControl(SettingsTable const& rateControl) {
    RateControlSettings settings;
    readNumber(rateControl, "max_senders", settings.maxSenders, 1, 100'000'000);
    return settings;
}

Settings read(SettingsTable const& file) {
    Settings settings;
    settings.log = readLog(file.table("log"));
    settings.database = Database::readServer(file.table("database"));
    settings.databaseDaemon = readDatabaseDaemon(file.table("database_daemon"));
    settings.state = readState(file.table("state"));
    settings.ipc = readIpc(file.table("ipc"));
    settings.policy = readPolicy(file.table("policy"));
    settings.milter = readMilter(file.table("milter"));
    settings.metrics = readMetrics(file.table("metrics"));
    settings.highAvailability = readHighAvailability(file.table("high_availability"));
    settings.greylist = readGreylist(file.table("greylist"));
    settings.reputation = readReputation(file.table("reputation"));
    settings.rateControl = readRateControl(file.table("rate_control"));
    settings.endpoint = readEndpoint(file.table("endpoint"));
    settings.rateLimits = readRateLimits(file.table("rate_control"));
    settings.reputationLimits = readReputationLimits(file.table("reputation"));
    settings.endpointLimits = readEndpointLimits(file.table("endpoint"));
    file.refuseUnknownKeys();
    return settings;
}

} // namespace

Settings Settings::load(std::string const& path) {
    return read(SettingsTable::parseFile(path));
}

Settings Settings::parse(std::string const& text, std::string const& fileName) {
    return read(SettingsTable::parse(text, fileName));
}

GreylistSettings loadGreylistSettings(std::string const& path) {
    SettingsTable const file = SettingsTable::parseFile(path);
    SettingsTable const greylist = file.table("greylist");
    GreylistSettings settings = readGreylist(greylist);
    greylist.refuseUnknownKeys();
    return settings;
}

} // namespace Vellum::Daemon
