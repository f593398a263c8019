#include "daemon/ListenSettings.h"

#include <charconv>
#include <filesystem>
#include <string_view>

namespace Vellum::Daemon {
namespace {

// What is wrong with a value, without the name of the operation that found it.
std::string problemOf(Exception const& caught) {
    return caught.stringParameters().empty() ? caught.asString() : caught.stringParameters().front();
}

std::string absoluteListenText(SettingsTable const& table, std::string const& text) {
    constexpr std::string_view scheme = "unix:";
    if (!text.starts_with(scheme)) {
        return text;
    }
    std::filesystem::path const directory =
        std::filesystem::absolute(std::filesystem::path(table.file())).parent_path();
    return std::string(scheme) + (directory / text.substr(scheme.size())).string();
}

} // namespace

ListenAddress parseListen(SettingsTable const& table, std::string const& key, std::string const& text) {
    try {
        return ListenAddress::parse(absoluteListenText(table, text));
    } catch (Exception const& caught) {
        table.refuse(key, problemOf(caught));
    }
}

mode_t readMode(SettingsTable const& table, std::string const& key, mode_t absent) {
    std::string const text = table.text(key, "");
    if (!table.has(key)) {
        return absent;
    }
    unsigned int mode = 0;
    char const* const end = text.data() + text.size();
    auto const [last, error] = std::from_chars(text.data(), end, mode, 8);
    if (error != std::errc() || last != end || mode > 0777) {
        table.refuse(key, "expected permissions as octal digits in quotes, \"0600\" to \"0777\"");
    }
    return mode;
}

} // namespace Vellum::Daemon
