#include "foundation/CommonSettings.h"

#include <charconv>
#include <optional>
#include <pwd.h>
#include <vector>

namespace Vellum {

namespace {

template <class Number>
std::optional<Number> wholeNumber(std::string const& text, int base) {
    Number number = 0;
    char const* const end = text.data() + text.size();
    auto const [last, error] = std::from_chars(text.data(), end, number, base);
    return error == std::errc() && last == end ? std::optional(number) : std::nullopt;
}

std::optional<uid_t> userNumber(std::string const& user) {
    if (auto const number = wholeNumber<uid_t>(user, 10)) {
        return number;
    }
    std::vector<char> room(16384); // for the entry's texts; more than any passwd line
    passwd entry{};
    passwd* found = nullptr;
    if (getpwnam_r(user.c_str(), &entry, room.data(), room.size(), &found) != 0 || found == nullptr) {
        return std::nullopt;
    }
    return found->pw_uid;
}

std::string octal(mode_t mode) {
    char text[8];
    auto const end = std::to_chars(std::begin(text), std::end(text), mode, 8).ptr;
    return '0' + std::string(text, end);
}

} // namespace

LogTarget readLogTarget(SettingsTable const& log, LogTarget const& absent) {
    if (!log.has("target")) {
        return absent;
    }
    bool const isPath = log.text("target", "").find('/') != std::string::npos;
    std::string const target = isPath ? log.path("target", "") : log.text("target", "");
    try {
        return LogTarget::parse(target);
    } catch (Exception const&) {
        log.refuse("target", "expected \"syslog\", \"stderr\" or the path of a file, with a slash in it");
    }
}

std::set<uid_t> readUsers(SettingsTable const& table, std::string const& key) {
    std::set<uid_t> users;
    for (std::string const& user : table.texts(key, {})) {
        std::optional<uid_t> const number = userNumber(user);
        if (!number) {
            table.refuse(key, "expected names or numbers of users of this machine: there is no \"" + user + '"');
        }
        users.insert(*number);
    }
    return users;
}

mode_t readPermissions(SettingsTable const& table, std::string const& key, mode_t absent, mode_t allowed) {
    if (!table.has(key)) {
        return absent;
    }
    std::optional<mode_t> const mode = wholeNumber<mode_t>(table.text(key, ""), 8);
    if (!mode || (*mode & ~allowed) != 0) {
        table.refuse(key, "expected permissions as octal digits in quotes, at most \"" + octal(allowed) + '"');
    }
    return *mode;
}

} // namespace Vellum
