#include "daemon/MilterSettings.h"

#include "daemon/ListenSettings.h"

namespace Vellum::Daemon {
namespace {

std::vector<HeaderRule> readRules(SettingsTable const& milter, std::string const& key,
                                  std::vector<std::string> const& absent) {
    std::vector<HeaderRule> rules;
    for (std::string const& text : milter.texts(key, absent)) {
        try {
            rules.push_back(HeaderRule::parse(text));
        } catch (Exception const& caught) {
            milter.refuse(key,
                          caught.stringParameters().empty() ? caught.asString() : caught.stringParameters().front());
        }
    }
    return rules;
}

} // namespace

MilterSettings readMilter(SettingsTable const& milter) {
    MilterSettings settings;
    if (std::string const listen = milter.text("listen", ""); !listen.empty()) {
        settings.listen = parseListen(milter, "listen", listen);
    }
    settings.socketMode = readMode(milter, "socket_mode", settings.socketMode);
    settings.maxConnections =
        static_cast<unsigned int>(milter.integer("max_connections", settings.maxConnections, 1, 100'000));
    settings.timeoutSeconds =
        static_cast<unsigned int>(milter.integer("timeout_seconds", settings.timeoutSeconds, 60, 86'400));
    settings.decide = milter.boolean("decide", settings.decide);
    settings.content.spam =
        readRules(milter, "spam_headers", {"X-Spam-Flag: YES*", "X-Spam-Status: Yes,*", "X-Spam: Yes*"});
    settings.content.infected =
        readRules(milter, "infected_headers", {"X-Virus-Status: Infected*", "X-Amavis-Alert: INFECTED*"});
    return settings;
}

} // namespace Vellum::Daemon
