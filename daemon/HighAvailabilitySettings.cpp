#include "daemon/HighAvailabilitySettings.h"

namespace Vellum::Daemon {
namespace {

std::vector<std::string> readCommand(SettingsTable const& section, char const* key) {
    std::vector<std::string> words = section.texts(key, {});
    if (!words.empty() && !words.front().starts_with('/')) {
        section.refuse(key, "expected an absolute path, then arguments: there is no shell to look for the program");
    }
    for (std::string const& word : words) {
        if (word.find('\0') != std::string::npos) {
            section.refuse(key, "expected no NUL in a word");
        }
    }
    return words;
}

std::chrono::seconds readSeconds(SettingsTable const& section, char const* key, std::chrono::seconds absent,
                                 std::int64_t lowest, std::int64_t highest) {
    return std::chrono::seconds(section.integer(key, absent.count(), lowest, highest));
}

} // namespace

HighAvailabilitySettings readHighAvailability(SettingsTable const& section) {
    HighAvailabilitySettings settings;
    settings.activeFile = section.path("active_file", "");
    settings.activeCommand = readCommand(section, "active_command");
    settings.resyncCommand = readCommand(section, "resync_command");
    settings.commandLimit = readSeconds(section, "command_timeout_seconds", settings.commandLimit, 1, 300);
    settings.answerHolds = readSeconds(section, "answer_holds_seconds", settings.answerHolds, 0, 3600);
    if (!settings.activeFile.empty() && !settings.activeCommand.empty()) {
        section.refuse("active_command", "expected at most one of active_file and active_command");
    }
    return settings;
}

} // namespace Vellum::Daemon
