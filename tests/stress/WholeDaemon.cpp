#include "tests/stress/WholeDaemon.h"

#include "foundation/ServiceSignals.h"
#include "foundation/cron/Crontab.h"
#include "foundation/ipc/Dispatcher.h"
#include "foundation/ipc/Endpoint.h"
#include "greylist/CronJobBackup.h"
#include "mmsreputation/CronJobBackup.h"
#include "mmsreputation/MMSReputationDisplay.h"
#include "reputation/CronJobBackup.h"
#include "tests/support/Eventually.h"
#include "tests/support/UnixSocketProbe.h"

#include <nlohmann/json.hpp>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>

namespace Vellum::Stress {
namespace {

std::string contentsOf(std::string const& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// A reader sees the old text or the new one.
void replace(std::string const& path, std::string const& text) {
    std::string const fresh = path + ".new";
    {
        std::ofstream file(fresh, std::ios::trunc);
        file << text;
    }
    std::filesystem::rename(fresh, path);
}

// As a TOML string; its escapes are those of JSON.
std::string quoted(std::string const& text) {
    return nlohmann::json(text).dump();
}

std::string databaseSection(Database::Server const& server) {
    return "[database]\nhost = " + quoted(server.host) + "\nport = " + std::to_string(server.port) +
           "\nuser = " + quoted(server.user) + "\npassword = " + quoted(server.password) + '\n';
}

// A backup every second instead of every hour.
template <class Job>
void scheduleOften(unsigned int offset) {
    auto* job = new Job;
    job->period(Cron::Period(3, offset));
    Cron::Crontab::instance(true).add(Cron::MyJob<Job>(job));
}

std::size_t occurrences(std::string const& text, std::string const& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

// A port that is free now: what the dispatcher knows of its port is not for other threads.
unsigned int freePort() {
    return Daemon::ListeningSocket(Daemon::ListenAddress::parse("inet:127.0.0.1:0"), 0).address().inet.port();
}

void require(bool holds, std::string const& what) {
    if (!holds) {
        throw std::runtime_error("in vain waited for " + what);
    }
}

} // namespace

WholeDaemon::WholeDaemon() {
    mkdir(path("state").c_str(), 0700);
    makeSubscribers();
    startDatabaseDaemon();
    setActive(true);
    m_port = freePort();
    writeSettings(0);
    // What the daemon's main thread takes nobody else may; children are started before, and keep theirs.
    setUpServiceSignals();
    m_daemon = std::make_unique<Daemon::Daemon>(path("vellumd.toml"));
    m_thread = std::thread([this] {
        try {
            m_status = m_daemon->run();
        } catch (std::exception const& failed) {
            m_problem = failed.what();
        }
        m_hasEnded = true;
    });
    if (!awaitService()) {
        throw std::runtime_error("the daemon does not serve: " + m_problem + '\n' + log());
    }
    IPC::Endpoint::map(IPC::stateDaemonPort, "127.0.0.1", port());
    IPC::Dispatcher::instance(IPC::stateDaemonPort)
        .add(IPC::MyHandler<MMSReputation::EntryBatchRetrievalHandler>(
            new MMSReputation::EntryBatchRetrievalHandler(path("state/scores.txt"))));
    scheduleOften<GreyList::CronJobBackup>(0);
    scheduleOften<Reputation::CronJobBackup>(1);
    scheduleOften<MMSReputation::CronJobBackup>(2);
}

// Answers whether it serves; otherwise it has ended.
bool WholeDaemon::awaitService() {
    static std::string const told = "metrics are served on inet:127.0.0.1:";
    bool const serves = eventually([this] { return m_hasEnded || log().find("serving") != std::string::npos; });
    std::string const text = log();
    std::size_t const at = text.find(told);
    if (!serves || m_hasEnded || at == std::string::npos) {
        end();
        return false;
    }
    m_metricsPort = static_cast<unsigned int>(std::stoul(text.substr(at + told.size())));
    return true;
}

WholeDaemon::~WholeDaemon() {
    if (m_thread.joinable()) {
        end();
    }
    m_daemon.reset(); // while the database is there
    IPC::Endpoint::unmap(IPC::stateDaemonPort);
}

std::string WholeDaemon::log() const {
    return contentsOf(path("vellumd.log"));
}

std::string WholeDaemon::databaseDaemonOutput() const {
    return contentsOf(path("vellum-dbd.out"));
}

// Those columns of an accounting server's table that are asked for.
void WholeDaemon::makeSubscribers() {
    m_server.run({"create database msisdn"});
    m_server.run({"create table radacct (radacctid bigint auto_increment primary key, callingstationid varchar(50), "
                  "framedipaddress varchar(15) not null default '', framedipv6address varchar(45) not null default "
                  "'', framedipv6prefix varchar(45) not null default '', delegatedipv6prefix varchar(45) not null "
                  "default '', acctstarttime datetime, acctupdatetime datetime, acctstoptime datetime, key "
                  "(framedipaddress))"},
                 "msisdn");
    for (unsigned int n = 0; n < subscribers; ++n) {
        m_server.run({"insert into radacct (callingstationid, framedipaddress, acctstarttime, acctupdatetime) values "
                      "('1555555" +
                      std::to_string(1000 + n) + "', '192.0.2." + std::to_string(n) + "', now(), now())"},
                     "msisdn");
    }
    m_server.useAccount();
}

void WholeDaemon::startDatabaseDaemon() {
    replace(path("vellum-dbd.toml"), "[log]\ntarget = \"stderr\"\n" + databaseSection(m_server.account()) +
                                         "[database_daemon]\nsocket = " + quoted(path("dbd.sock")) +
                                         "\njournal = " + quoted(path("journal")) + '\n');
    m_databaseDaemon =
        std::make_unique<BackgroundProcess>(std::vector<std::string>{std::string(VELLUM_BINARY_DIR) + "/bin/vellum-dbd",
                                                                     "--config", path("vellum-dbd.toml")},
                                            path("vellum-dbd.out"));
    require(eventually([this] { return takesConnections(path("dbd.sock")) || !m_databaseDaemon->isRunning(); }),
            "vellum-dbd");
    require(m_databaseDaemon->isRunning(), "vellum-dbd, which has ended: " + databaseDaemonOutput());
}

void WholeDaemon::writeSettings(unsigned int variant) const {
    std::ostringstream text;
    auto const number = [&](char const* key, unsigned int value) {
        text << key << " = " << value << '\n';
    };
    text << "[log]\ntarget = " << quoted(path("vellumd.log")) << '\n'
         << "decisions = " << (variant % 3 == 1 ? "true" : "false") << '\n'
         << databaseSection(m_server.account()) << "[database_daemon]\nsocket = " << quoted(path("dbd.sock")) << '\n'
         << "[state]\ndirectory = " << quoted(path("state")) << '\n'
         << "[ipc]\nport = " << m_port << '\n'
         << "[policy]\nlisten = [" << quoted("unix:" + policySocket()) << "]\nthreads = 3\n"
         << "[milter]\nlisten = " << quoted("unix:" + milterSocket()) << '\n'
         << "[metrics]\nlisten = \"inet:127.0.0.1:0\"\n"
         << "[high_availability]\nactive_file = " << quoted(path("active")) << "\nanswer_holds_seconds = 0\n"
         << "resync_command = [\"/bin/true\"]\n"
         << "[greylist]\ndelay_minutes = 0\nfold_extension = " << (variant % 2 == 0 ? "true" : "false") << '\n'
         << "rules = " << quoted(path("rules.toml")) << '\n';
    number("max_records", mostTuples);
    number("auto_exempt_after", 2 + variant % 3);
    text << "[reputation]\ntext = \"Variant " << variant << "\"\n";
    number("reject_score", 90 - variant % 7);
    text << "[rate_control]\nstrangers = true\nblock_minutes = 1\nmax_senders = 300\n";
    number("most_messages", 20 + variant % 5);
    text << "[endpoint]\nradius = true\nblock_hours = 1\n";
    number("block_score", 5 + variant % 4);
    replace(path("rules.toml"), "[[rule]]\nid = " + std::to_string(1 + variant % 9) + "\nsender = \"*@exempt" +
                                    std::to_string(variant % 4) + ".example\"\n");
    replace(path("vellumd.toml"), text.str());
}

void WholeDaemon::reload(unsigned int variant) {
    writeSettings(variant);
    ++m_reloads;
    // To that thread: one of the milter library's waits for the same signals.
    pthread_kill(m_thread.native_handle(), SIGHUP);
    require(eventually([this] { return occurrences(log(), "settings read again") >= m_reloads; }),
            "the settings to be read again");
}

void WholeDaemon::setActive(bool active) const {
    replace(path("active"), active ? "active\n" : "standby\n");
}

int WholeDaemon::end() {
    pthread_kill(m_thread.native_handle(), SIGTERM);
    m_thread.join();
    return m_status;
}

int WholeDaemon::endDatabaseDaemon() {
    m_databaseDaemon->signal(SIGTERM);
    return m_databaseDaemon->wait();
}

} // namespace Vellum::Stress
