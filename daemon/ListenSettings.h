// How settings say where a front listens.
#pragma once

#include "daemon/ListeningSocket.h"
#include "foundation/Settings.h"

#include <string>
#include <sys/types.h>

namespace Vellum::Daemon {

// The address that `text`, a value of `key`, names; the path of a Unix socket is taken from the directory of the
// settings file when it is relative. Throws SettingsError.
ListenAddress parseListen(SettingsTable const& table, std::string const& key, std::string const& text);

// Permissions, as octal digits in quotes. Throws SettingsError.
mode_t readMode(SettingsTable const& table, std::string const& key, mode_t absent);

} // namespace Vellum::Daemon
