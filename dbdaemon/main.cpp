// vellum-dbd: the database daemon.
#include "dbdaemon/Service.h"
#include "dbdaemon/ServiceSettings.h"
#include "foundation/Exception.h"
#include "foundation/LogSinks.h"
#include "foundation/Logger.h"
#include "foundation/Privileges.h"
#include "foundation/ServiceSignals.h"
#include "foundation/Settings.h"
#include "foundation/Version.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>
#include <memory>
#include <sys/stat.h>
#include <sysexits.h>

namespace {

using namespace Vellum;

// Installed for its life.
class ProcessLog {
  public:
    explicit ProcessLog(LogTarget const& target) : m_logger(makeLogger(target)) { Logger::install(m_logger.get()); }
    ~ProcessLog() { Logger::install(nullptr); }
    ProcessLog(ProcessLog const&) = delete;
    ProcessLog& operator=(ProcessLog const&) = delete;

  private:
    std::unique_ptr<Logger> m_logger;
};

// Works until it is told to end.
void run(DatabaseDaemon::ServiceSettings const& settings, sigset_t const& signals) {
    ProcessLog const log(settings.log);
    warnAboutRoot();
    Database::ServerMap::instance().install(settings.database);
    DatabaseDaemon::RequestServer::Options requests;
    requests.socketPath = settings.socket;
    requests.socketMode = settings.socketMode;
    requests.users = settings.allowedUsers;
    DatabaseDaemon::Service const service({.requests = requests, .journal = settings.journal});
    for (int signal = 0; sigwait(&signals, &signal) == 0;) {
        if (signal != SIGHUP) {
            break;
        }
        Logger::instance(false).reopen();
    }
    Logger::instance(false).note(Logger::Severity::info, "ending");
}

} // namespace

int main(int argc, char** argv) {
    CLI::App options(
        "The database daemon of the mail filter: takes requests to run an SQL script, keeps a copy on disk, and\n"
        "runs it, all or nothing. Stays in the foreground.\n\n"
        "Signals: SIGHUP opens the log file again, SIGTERM ends; a script that runs is rolled back then and\n"
        "run again at the next start.\n"
        "Exit status: 0 ended as told, 69 the start failed (journal, socket, log), 78 the settings are wrong.",
        "vellum-dbd");
    std::string path = "/etc/vellum/vellum-dbd.toml";
    std::string user;
    bool check = false;
    options.add_option("-c,--config", path, "settings file (TOML)")->capture_default_str();
    options.add_option("-u,--user", user, "become this user before anything else; only root can");
    options.add_flag("--check", check, "read the settings, say what is wrong with them, and end");
    bool foreground = true;
    options.add_flag("--foreground", foreground, "accepted for those who say it; there is no other way to run");
    options.set_version_flag("-V,--version", std::string("vellum-dbd ") + version);
    CLI11_PARSE(options, argc, argv);

    sigset_t const signals = setUpServiceSignals();
    umask(0077);
    try {
        giveUpRights(user);
        DatabaseDaemon::ServiceSettings const settings = DatabaseDaemon::ServiceSettings::load(path);
        if (check) {
            std::printf("%s: in order\n", path.c_str());
            return EX_OK;
        }
        run(settings, signals);
        return EX_OK;
    } catch (SettingsError const& wrong) {
        std::fprintf(stderr, "vellum-dbd: %s\n", wrong.message().c_str());
        return EX_CONFIG;
    } catch (std::exception const& failed) {
        std::fprintf(stderr, "vellum-dbd: %s\n", failed.what());
        return EX_UNAVAILABLE;
    }
}
