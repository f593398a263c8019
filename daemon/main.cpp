// vellumd: the state daemon of the mail filter.
#include "daemon/Daemon.h"
#include "foundation/AllocatorTuning.h"
#include "foundation/Exception.h"
#include "foundation/Privileges.h"
#include "foundation/ServiceSignals.h"
#include "foundation/Version.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <sys/stat.h>
#include <sysexits.h>

int main(int argc, char** argv) {
    Vellum::tuneAllocator(argv);
    CLI::App options(
        "The state daemon of the mail filter: greylisting, reputation of senders and mobile endpoints, and\n"
        "rate control for mail servers that speak the Postfix policy delegation protocol or milter,\n"
        "served to tools on port 29001, kept in MariaDB.\n\n"
        "Signals: SIGHUP reads settings and rules again, SIGTERM takes a last backup and ends.\n"
        "Exit status: 0 ended as told, 69 the start failed (database, sockets, state directory),\n"
        "75 the milter front ended by itself, 78 the settings are wrong.",
        "vellumd");
    std::string settings = "/etc/vellum/vellumd.toml";
    std::string user;
    bool check = false;
    options.add_option("-c,--config", settings, "settings file (TOML)")->capture_default_str();
    options.add_option("-u,--user", user, "become this user before anything else; only root can");
    options.add_flag("--check", check, "read settings and rules, say what is wrong with them, and end");
    options.set_version_flag("-V,--version", std::string("vellumd ") + Vellum::version);
    CLI11_PARSE(options, argc, argv);

    Vellum::setUpServiceSignals();
    umask(0077);
    try {
        Vellum::giveUpRights(user);
        Vellum::Daemon::Daemon daemon(settings);
        if (check) {
            daemon.check();
            std::printf("%s: in order\n", settings.c_str());
            return EX_OK;
        }
        return daemon.run();
    } catch (Vellum::SettingsError const& wrong) {
        std::fprintf(stderr, "vellumd: %s\n", wrong.message().c_str());
        return EX_CONFIG;
    } catch (std::exception const& failed) {
        std::fprintf(stderr, "vellumd: %s\n", failed.what());
        return EX_UNAVAILABLE;
    }
}
