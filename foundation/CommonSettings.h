// Values that the settings files of several programs have in common.
#pragma once

#include "foundation/LogSinks.h"
#include "foundation/Settings.h"

#include <set>
#include <string>
#include <sys/types.h>

namespace Vellum {

// The key "target" of a [log] section: "syslog", "stderr" or the path of a file, with a slash in it, so that a word
// that is no target does not become a file of that name. Throws SettingsError.
LogTarget readLogTarget(SettingsTable const& log, LogTarget const& absent);

// Users of this machine, by name or number. Throws SettingsError naming one that there is not.
std::set<uid_t> readUsers(SettingsTable const& table, std::string const& key);

// Permissions as octal digits in quotes, "0660", with no bit outside of `allowed`. Throws SettingsError.
mode_t readPermissions(SettingsTable const& table, std::string const& key, mode_t absent, mode_t allowed = 0777);

} // namespace Vellum
