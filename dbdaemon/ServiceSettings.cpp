#include "dbdaemon/ServiceSettings.h"

#include "foundation/CommonSettings.h"
#include "foundation/database/DatabaseDaemon.h"
#include "foundation/database/DatabaseSettings.h"

#include <sys/stat.h>

namespace Vellum::DatabaseDaemon {

namespace {

// For one statement. A script's statements are large, and nobody waits for them.
constexpr unsigned int defaultReadTimeoutSeconds = 600;

// The journal holds mail addresses; nobody but users and the group named by the administrator comes near it.
constexpr mode_t noWorld = S_IRWXU | S_IRWXG;

ServiceSettings read(SettingsTable const& file) {
    ServiceSettings settings;
    settings.database = Database::readServer(file.table("database"), defaultReadTimeoutSeconds);

    SettingsTable const daemon = file.table("database_daemon");
    settings.socket = daemon.path("socket", defaultSocketPath);
    settings.socketMode = readPermissions(daemon, "socket_mode", settings.socketMode, noWorld);
    settings.journal = daemon.path("journal", settings.journal);
    settings.allowedUsers = readUsers(daemon, "allowed_users");
    if (settings.socket.empty()) {
        daemon.refuse("socket", "expected the path of a socket");
    }
    if (settings.journal.empty()) {
        daemon.refuse("journal", "expected the path of a directory");
    }

    settings.log = readLogTarget(file.table("log"), settings.log);
    file.refuseUnknownKeys();
    return settings;
}

} // namespace

ServiceSettings ServiceSettings::load(std::string const& path) {
    return read(SettingsTable::parseFile(path));
}

ServiceSettings ServiceSettings::parse(std::string const& text, std::string const& fileName) {
    return read(SettingsTable::parse(text, fileName));
}

} // namespace Vellum::DatabaseDaemon
