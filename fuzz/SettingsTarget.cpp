// A byte that chooses how a file is read, as settings of vellumd, of vellum-dbd, or as exempt rules, and the file.
#include "daemon/ExemptRules.h"
#include "daemon/Settings.h"
#include "dbdaemon/ServiceSettings.h"
#include "foundation/Escape.h"
#include "fuzz/FuzzTarget.h"
#include "fuzz/Input.h"

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

void checkDaemon(std::string const& text) {
    auto const daemon = settings([&] { return Daemon::Settings::parse(text, fileName); });
    if (daemon) {
        require(daemon->greylist.maxRecords > 0 && daemon->greylist.delayMinutes >= 0, "settings are in their ranges");
        require(daemon->state.directory.starts_with("/"), "a path is absolute");
    }
}

void checkService(std::string const& text) {
    auto const service = settings([&] { return DatabaseDaemon::ServiceSettings::parse(text, fileName); });
    require(!service || (service->socket.starts_with("/") && service->journal.starts_with("/")), "a path is absolute");
}

void run(std::string_view input) {
    Input parts(input);
    unsigned int const reader = parts.byte();
    std::string const text(parts.rest());
    // One of them each time: nearly all of a run goes into the TOML parser.
    switch (reader % 3) { // '0', '1' and '2' in seeds
    case 0:
        return checkDaemon(text);
    case 1:
        return checkService(text);
    default:
        return checkRules(text);
    }
}

Target const target("settings", run);

} // namespace
} // namespace Vellum::Fuzz
