// The settings of vellum-dbd: one TOML file (packaging/vellum-dbd.toml is the example, with every key and its default).
#pragma once

#include "foundation/LogSinks.h"
#include "foundation/database/ServerMap.h"

#include <set>
#include <string>
#include <sys/types.h>

namespace Vellum::DatabaseDaemon {

struct ServiceSettings {
    Database::Server database; // [database]

    // [database_daemon]
    std::string socket;
    mode_t socketMode = 0660;
    std::string journal = "/var/lib/vellum/dbd";
    std::set<uid_t> allowedUsers; // besides root and the daemon's own user

    LogTarget log{.kind = LogTarget::Kind::syslog, .path = {}, .facility = LOG_MAIL}; // [log]

    // Every mistake is a SettingsError that names file, line, key, value and what is allowed; an unknown key is one.
    // Relative paths are taken from the directory of the file.
    static ServiceSettings load(std::string const& path);
    static ServiceSettings parse(std::string const& text, std::string const& fileName);
};

} // namespace Vellum::DatabaseDaemon
