// A settings file, read as that of vellumd, of vellum-dbd, and as a file of exempt rules.
#include "daemon/ExemptRules.h"
#include "daemon/Settings.h"
#include "dbdaemon/ServiceSettings.h"
#include "foundation/Escape.h"
#include "fuzz/FuzzTarget.h"

#include <optional>
#include <set>

namespace Vellum::Fuzz {
namespace {

constexpr char const* fileName = "/etc/vellum/fuzzed.toml";

// What `read` answers; where it refuses, the line for the administrator must be one.
template <class Read>
auto settings(Read read) -> std::optional<decltype(read())> {
    try {
        return read();
    } catch (SettingsError const& wrong) {
        require(wrong.message().starts_with(std::string(fileName) + ":"), "a mistake is told with its file");
        require(escapeControls(wrong.message()) == wrong.message(), "a mistake is told in one line of text");
        return std::nullopt;
    }
}

void checkRules(std::string const& text) {
    constexpr std::uint32_t most = 20;
    auto const rules = settings([&] { return Daemon::parseExemptRules(text, fileName, most); });
    if (!rules) {
        return;
    }
    require((*rules)->rules().size() <= most, "there are not more rules than allowed");
    for (GreyList::RefExemptRule const& rule : (*rules)->rules()) {
        require(rule->id() > 0, "a rule has an id");
        require(!rule->senderPattern().isEmpty() || !rule->recipientPattern().isEmpty() ||
                    !rule->reverseDnsPattern().isEmpty() || !(rule->clientIPMask() == IPAddressMask()),
                "a rule has a condition");
    }
}

void run(std::string_view input) {
    std::string const text(input);
    auto const daemon = settings([&] { return Daemon::Settings::parse(text, fileName); });
    if (daemon) {
        require(daemon->greylist.maxRecords > 0 && daemon->greylist.delayMinutes >= 0, "settings are in their ranges");
        require(daemon->state.directory.starts_with("/"), "a path is absolute");
    }
    auto const service = settings([&] { return DatabaseDaemon::ServiceSettings::parse(text, fileName); });
    require(!service || (service->socket.starts_with("/") && service->journal.starts_with("/")), "a path is absolute");
    checkRules(text);
}

Target const target("settings", run);

} // namespace
} // namespace Vellum::Fuzz
