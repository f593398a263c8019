// What settings are refused with.
#pragma once

#include "daemon/Settings.h"

#include <string>

namespace Vellum::Daemon {

// The message that `reading` ends with; "no error" when there is none.
template <class Reading>
std::string refusalOf(Reading&& reading) {
    try {
        reading();
    } catch (SettingsError const& error) {
        return error.message();
    }
    return "no error";
}

// A file of one section, as the tests of that section write it.
inline Settings settingsOf(std::string const& section, std::string const& lines) {
    return Settings::parse("[" + section + "]\n" + lines, "/etc/vellum/v.toml");
}

} // namespace Vellum::Daemon
