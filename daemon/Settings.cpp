#include "daemon/Settings.h"

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

// What is wrong with a value, without the name of the operation that found it.
std::string problemOf(Exception const& caught) {
    return caught.stringParameters().empty() ? caught.asString() : caught.stringParameters().front();
}

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

// The path of a Unix socket, relative to the settings file when it is relative.
std::string absoluteListenText(SettingsTable const& policy, std::string const& text) {
    constexpr std::string_view scheme = "unix:";
    if (!text.starts_with(scheme)) {
        return text;
    }
    std::filesystem::path const directory =
        std::filesystem::absolute(std::filesystem::path(policy.file())).parent_path();
    return std::string(scheme) + (directory / text.substr(scheme.size())).string();
}

mode_t readMode(SettingsTable const& policy, char const* key, mode_t absent) {
    std::string const text = policy.text(key, "");
    if (!policy.has(key)) {
        return absent;
    }
    unsigned int mode = 0;
    char const* const end = text.data() + text.size();
    auto const [last, error] = std::from_chars(text.data(), end, mode, 8);
    if (error != std::errc() || last != end || mode > 0777) {
        policy.refuse(key, "expected permissions as octal digits in quotes, \"0600\" to \"0777\"");
    }
    return mode;
}

PolicySettings readPolicy(SettingsTable const& policy) {
    PolicySettings settings;
    for (std::string const& text : policy.texts("listen", {"unix:/run/vellum/policy.sock", "inet:127.0.0.1:29002"})) {
        try {
            settings.listen.push_back(ListenAddress::parse(absoluteListenText(policy, text)));
        } catch (Exception const& caught) {
            policy.refuse("listen", problemOf(caught));
        }
    }
    if (settings.listen.empty()) {
        policy.refuse("listen", "expected at least one address, as \"unix:/path\" or \"inet:127.0.0.1:29002\"");
    }
    settings.socketMode = readMode(policy, "socket_mode", settings.socketMode);
    readNumber(policy, "threads", settings.threads, 0, 256);
    readNumber(policy, "max_connections", settings.maxConnections, 1, 1'000'000);
    return settings;
}

// A reply line of SMTP takes 512 octets and its text goes to strangers as it is: short, one line, plain ASCII. A word
// between percent signs is taken for a placeholder, so that a misspelt one is not found out by others.
void checkDeferText(SettingsTable const& greylist, std::string const& text) {
    constexpr std::size_t longest = 400;
    bool const printable = std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c < 0x7f; });
    if (text.empty() || text.size() > longest || !printable) {
        greylist.refuse("defer_text", "expected 1 to 400 printable ASCII characters");
    }
    for (std::size_t at = 0; (at = text.find('%', at)) != std::string::npos;) {
        std::size_t const end = text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ_", at + 1);
        bool const placeholder = end != std::string::npos && end > at + 1 && text[end] == '%';
        if (placeholder && text.compare(at, end + 1 - at, secondsPlaceholder) != 0) {
            greylist.refuse("defer_text", "expected no placeholder but " + std::string(secondsPlaceholder));
        }
        at = placeholder ? end + 1 : at + 1;
    }
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
    checkDeferText(greylist, settings.deferText);
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
    settings.greylist = readGreylist(file.table("greylist"));
    settings.reputation = readReputation(file.table("reputation"));
    settings.rateControl = readRateControl(file.table("rate_control"));
    settings.endpoint = readEndpoint(file.table("endpoint"));
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
    GreylistSettings const settings = readGreylist(greylist);
    greylist.refuseUnknownKeys();
    return settings;
}

} // namespace Vellum::Daemon
