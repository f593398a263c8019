#include "daemon/Daemon.h"

#include "daemon/AdminHandlers.h"
#include "daemon/DatabaseWait.h"
#include "daemon/DecisionHandlers.h"
#include "daemon/ExemptRules.h"
#include "daemon/FileLimit.h"
#include "daemon/GreylistConfiguration.h"
#include "daemon/LastBackup.h"
#include "daemon/MetricsHandler.h"
#include "foundation/DetachedBackup.h"
#include "foundation/Logger.h"
#include "foundation/Privileges.h"
#include "foundation/Version.h"
#include "foundation/cron/Crontab.h"
#include "foundation/database/DatabaseDaemon.h"
#include "foundation/database/ServerMap.h"
#include "foundation/ipc/Dispatcher.h"
#include "greylist/LoadReport.h"
#include "greylist/LogCodes.h"
#include "mmsreputation/LogCodes.h"
#include "mmsreputation/MMSRadius.h"
#include "reputation/LogCodes.h"
#include "senderhistory/SenderHistoryDatabase.h"

#include <csignal>
#include <ctime>
#include <optional>
#include <sysexits.h>
#include <utility>

namespace Vellum::Daemon {
namespace {

// At the end, for a backup that runs already; the last one then waits for the database daemon as its settings say.
constexpr std::chrono::seconds patienceWithLastBackups{120};

// Logs, listeners, event queues, connections to the database; generous.
constexpr std::size_t filesOfItsOwn = 100;

long clockNow() {
    return static_cast<long>(std::time(nullptr));
}

void note(Logger::Severity severity, std::string const& text) {
    Logger::instance(false).note(severity, text);
}

GreyList::RefExemptRuleSet loadRules(Settings const& settings) {
    if (settings.greylist.rules.empty()) {
        return {};
    }
    GreyList::RefConfiguration const limits(new GreylistConfiguration(settings.greylist, {}));
    return loadExemptRules(settings.greylist.rules, limits->maxExemptRules());
}

IPC::Dispatcher& dispatcher() {
    return IPC::Dispatcher::instance(IPC::stateDaemonPort);
}

std::function<std::uint64_t()> activationsOf(std::shared_ptr<HighAvailability> const& pair) {
    return [pair] {
        return pair->activations();
    };
}

// What a front has decided.
std::vector<DaemonStatus::DecisionCount> decisionCounts(DecisionCounters const& counters) {
    std::vector<DaemonStatus::DecisionCount> counts;
    for (unsigned int i = 0; i < reasonCount; ++i) {
        auto const reason = static_cast<Verdict::Reason>(i);
        for (unsigned int j = 0; j < actionCount; ++j) {
            auto const action = static_cast<Verdict::Action>(j);
            std::uint64_t const count = counters.of(action, reason);
            if (count != 0 || action == actionOf(reason)) { // what a reason never led to is only told once
                counts.push_back({std::string(actionText(action, reason)), std::string(reasonText(reason)), count});
            }
        }
    }
    return counts;
}

} // namespace

Daemon::Daemon(std::string settingsPath)
    : m_settingsPath(std::move(settingsPath)), m_startedAt(clockNow()), m_settings(Settings::load(m_settingsPath)),
      m_settingsAtStart(m_settings),
      m_highAvailability(std::make_shared<HighAvailability>(m_settings.highAvailability)),
      m_loads(
          greylistTables(), [this] { cachesLoaded(); }, activationsOf(m_highAvailability)),
      m_reputationLoads(reputationTables(), {}, activationsOf(m_highAvailability)),
      m_endpointLoads(endpointTables(), {}, activationsOf(m_highAvailability)) {}

// Whatever may still log is gone before the loggers are.
Daemon::~Daemon() {
    m_housekeeping.reset();
    m_metricsServer.reset();
    dispatcher().stop(); // its requests ask the policy server for figures
    m_policy.reset();
    m_milter.reset();
    Cron::Crontab::instance(true).stop();
    bool const quiet = DetachedBackup::waitForAll(patienceWithLastBackups);
    Logger::install(nullptr);
    if (!quiet) { // a backup may log yet
        for (auto& logger : m_loggers) {
            static_cast<void>(logger.release());
        }
        static_cast<void>(m_endpoints.release()); // or ask its family's configuration
        static_cast<void>(m_reputation.release());
    }
}

void Daemon::check() const {
    loadRules(m_settings);
}

int Daemon::run() {
    m_signals = std::make_unique<SignalInbox>(std::initializer_list<int>{SIGTERM, SIGINT, SIGHUP});
    useLog(m_settings.log);
    note(Logger::Severity::info, std::string("vellumd ") + version + " starts with " + m_settingsPath);
    warnAboutRoot();
    try {
        m_instanceLock = std::make_unique<InstanceLock>(m_settings.state.lockFile());
        useDatabase();
        m_highAvailability->isActive();
        useGreylistConfiguration();
        m_reputation = std::make_unique<ReputationConfiguration>(
            m_settings.reputation, m_settings.state.reputationScript(), [this] { return mayBackUp(m_reputationLoads); },
            [pair = m_highAvailability] { pair->resync("reputation"); });
        m_rateControl = std::make_unique<RateControlConfiguration>(m_settings.rateControl);
        m_endpoints = std::make_unique<EndpointConfiguration>(
            m_settings.endpoint, m_settings.state.endpointScript(), [this] { return mayBackUp(m_endpointLoads); },
            m_highAvailability);
        m_rules = loadRules(m_settings);
        if (!awaitDatabase(*m_signals, [this] { readDatabaseAgain(); })) {
            note(Logger::Severity::info, "ended while the start waited for the database");
            return EX_OK;
        }
        bringUpState();
        serve();
    } catch (std::exception const& failed) {
        note(Logger::Severity::error, std::string("the start failed: ") + failed.what());
        throw;
    }
    note(Logger::Severity::info, "serving");

    while (m_signals->next() == SIGHUP) {
        reload();
    }
    stop();
    return m_milterHasEnded ? EX_TEMPFAIL : EX_OK;
}

void Daemon::useLog(LogSettings const& settings) {
    AsyncLogger::Options options;
    options.informational = {GreyList::LogCode::cacheCreated, GreyList::LogCode::reloadDone,
                             MMSReputation::LogCode::reloadDone, Reputation::LogCode::reloadDone,
                             Reputation::LogCode::setStateDone};
    m_loggers.push_back(makeLogger(settings.target, options));
    Logger::install(m_loggers.back().get());
}

void Daemon::useDatabase() {
    Database::ServerMap::instance().install(m_settings.database);
    DatabaseDaemon::setSocketPath(m_settings.databaseDaemon.socket);
    DatabaseDaemon::setTimeout(std::chrono::seconds(m_settings.databaseDaemon.timeoutSeconds));
}

// While the start waits for a server that may be the wrong one. The other settings follow once it is there.
void Daemon::readDatabaseAgain() {
    Logger::instance(false).reopen();
    try {
        m_settings.database = Settings::load(m_settingsPath).database;
        Database::ServerMap::instance().install(m_settings.database);
        note(Logger::Severity::info, "[database] read again from " + m_settingsPath);
    } catch (std::exception const& failed) {
        note(Logger::Severity::error, std::string("the settings stay as they were: ") + failed.what());
    }
}

void Daemon::useGreylistConfiguration() {
    auto const allowed = [this] {
        return mayBackUp(m_loads);
    };
    auto const backupDone = [pair = m_highAvailability] {
        pair->resync("greylist");
    };
    GreyList::RefConfiguration::instance(
        new GreylistConfiguration(m_settings.greylist, m_settings.state.greylistScript(), allowed, backupDone));
}

// A backup that was accepted before this start may not be in the tables yet. Loading them now would bring back what was
// before it, and the next backup would make that last.
void Daemon::awaitDatabaseDaemon() {
    using DatabaseDaemon::Answer;
    auto const end = std::chrono::steady_clock::now() + DatabaseDaemon::timeout();
    for (bool said = false;; said = true) {
        Answer const answer = DatabaseDaemon::askWhetherSettled();
        if (answer == Answer::accepted) {
            m_scripts.look();
            return;
        }
        if (answer != Answer::notSettled) {
            m_scripts.isUnreachable(); // to ask again would hold the start up once more
            note(Logger::Severity::warning, "the database daemon on " + DatabaseDaemon::socketPath() +
                                                " does not answer: " + DatabaseDaemon::text(answer) +
                                                "; backups fail until it does");
            return;
        }
        if (std::chrono::steady_clock::now() >= end) {
            throw Exception("Daemon", Exception::failure)
                .stringParameter("the database daemon has not finished the last backup; its log says why");
        }
        if (!said) {
            note(Logger::Severity::info, "waiting for the database daemon to finish the last backup");
        }
        sleepFor(0, 100);
    }
}

void Daemon::bringUpState() {
    awaitDatabaseDaemon();
    senderHistoryDatabaseCreate();
    try {
        senderHistoryDatabaseRepair();
    } catch (Exception const& failed) {
        // Such tables still load; only what they cannot tell apart is lost to a backup.
        note(Logger::Severity::error, "the tables could not be adjusted: " + failed.asString());
    }
    senderHistoryDatabaseInitialize();
    m_databaseWatch.look(clockNow());
    sayWhatCouldNotBeLoaded();
}

void Daemon::sayWhatCouldNotBeLoaded() const {
    auto const say = [](std::string const& problem, char const* family) {
        if (!problem.empty()) {
            note(Logger::Severity::error, problem +
                                              "; backups are off until a load succeeds (tried every minute) or "
                                              "\"vellumctl " +
                                              family + " accept-empty\"");
        }
    };
    say(m_loads.problem(), "greylist");
    say(m_reputationLoads.problem(), "reputation");
    if (std::string const problem = m_endpointLoads.whyNoBackup(); !problem.empty()) {
        note(Logger::Severity::error,
             problem + "; loading is tried every minute" +
                 (endpointGate().open ? ""
                                      : ", and backups of endpoints are off until a load succeeds or \"vellumctl "
                                        "endpoint accept-empty\""));
    }
}

DecisionSettings Daemon::decisionSettings() const {
    return {m_settings.greylist.enabled,
            m_settings.greylist.folding,
            m_settings.greylist.autoExemptAfter,
            m_rules,
            {m_settings.rateLimits, m_settings.reputationLimits, m_settings.endpointLimits}};
}

void Daemon::makeDecision() {
    if (m_settings.endpoint.enabled && m_settings.endpoint.radius) {
        auto const ask = [](IPAddress const& address) {
            return MMSReputation::RadiusDatabase::instance()->findOrThrow(address).asString();
        };
        m_subscribers = std::make_unique<SubscriberDirectory>(ask, clockNow, SubscriberDirectory::Options{});
    }
    m_standing = Standing(m_subscribers.get());
    m_counts =
        std::make_unique<MailCounts>(MailLimits{m_settings.rateLimits, m_settings.endpointLimits}, m_subscribers.get());
    m_countQueue = std::make_unique<CountQueue>(*m_counts);
    m_decision =
        std::make_unique<Decision>(**GreyList::TupleCache::instance(), **GreyList::DynamicExemptCache::instance(),
                                   decisionSettings(), &m_standing);
    m_decision->rebuildPassCounts(clockNow());
    m_countedLoads = GreyList::LoadReport::last().tupleLoads;
    m_translator = std::make_unique<PolicyTranslator>(*m_decision, PolicyTranslatorSettings::of(m_settings), clockNow);
    m_policy = std::make_unique<PolicyServer>(*m_translator);
    m_milterFront =
        std::make_unique<MilterFront>(*m_decision, *m_countQueue, MilterFrontSettings::of(m_settings), clockNow);
}

std::size_t Daemon::filesWanted() const {
    std::size_t const milter = m_settings.milter.listen ? m_settings.milter.maxConnections : 0;
    return filesOfItsOwn + m_settings.policy.maxConnections + milter + m_settings.ipc.maxConnections;
}

void Daemon::serve() {
    raiseFileLimit(filesWanted());
    makeDecision();
    restoreScriptsOf(m_settings.ipc.users);
    addAdminHandlers(*this);
    addDecisionHandlers(*m_decision, clockNow);
    m_metrics = std::make_shared<DaemonMetrics>([this] { return metricFacts(); }, clockNow);
    addMetricsHandler(m_metrics);
    countFamilies();
    IpcSettings const& ipc = m_settings.ipc;
    IPC::DispatcherOptions requests;
    if (ipc.ipv6) {
        requests.addresses.push_back("::1");
    }
    requests.port = static_cast<int>(ipc.port);
    requests.allowedUsers = ipc.users;
    requests.maxConnections = ipc.maxConnections;
    requests.workers = ipc.workers;
    requests.frameTimeout = std::chrono::seconds(ipc.frameTimeoutSeconds);
    dispatcher().start(requests);

    serveMetrics();
    serveMailServers();
    m_pidFile = std::make_unique<PidFile>(m_settings.state.pidFile);
    m_housekeeping = std::make_unique<Housekeeping>([this] { keepHouse(); });
}

void Daemon::serveMailServers() {
    PolicySettings const& policy = m_settings.policy;
    m_policy->start({.listen = policy.listen,
                     .socketMode = policy.socketMode,
                     .workers = policy.threads,
                     .maxConnections = policy.maxConnections});
    if (MilterSettings const& milter = m_settings.milter; milter.listen) {
        m_milter = std::make_unique<MilterServer>(*m_milterFront);
        m_milter->start({.listen = *milter.listen,
                         .socketMode = milter.socketMode,
                         .maxConnections = milter.maxConnections,
                         .timeout = std::chrono::seconds(milter.timeoutSeconds),
                         .hasEnded = [this] {
                             endWithoutMilter();
                         }});
    }
}

// The library cannot be started again in this process; who started the process can. Nothing is lost: either the library
// took a signal to end, which was meant for us, or it gave up for want of descriptors, and going on without it would
// leave them taken: the policy front could accept nobody, either.
void Daemon::endWithoutMilter() {
    m_milterHasEnded = true;
    m_signals->put(SIGTERM);
}

void Daemon::serveMetrics() {
    if (m_settings.metrics.listen) {
        m_metricsServer = std::make_unique<MetricsServer>(*m_settings.metrics.listen, m_metrics);
        note(Logger::Severity::info, "metrics are served on " + m_metricsServer->address().asString());
    }
}

void Daemon::sayWhatNeedsARestart(Settings const& changed) const {
    auto const say = [](bool differs, char const* key) {
        if (differs) {
            note(Logger::Severity::warning, std::string(key) + " was changed: that takes effect at the next start");
        }
    };
    auto const addresses = [](Settings const& settings) {
        std::vector<std::string> texts;
        for (ListenAddress const& address : settings.policy.listen) {
            texts.push_back(address.asString());
        }
        return texts;
    };
    IpcSettings const& ipc = m_settingsAtStart.ipc;
    say(changed.state.directory != m_settingsAtStart.state.directory, "[state] directory");
    say(changed.state.pidFile != m_settingsAtStart.state.pidFile, "[state] pid_file");
    say(changed.ipc.port != ipc.port || changed.ipc.ipv6 != ipc.ipv6 || changed.ipc.users != ipc.users ||
            changed.ipc.maxConnections != ipc.maxConnections || changed.ipc.workers != ipc.workers ||
            changed.ipc.frameTimeoutSeconds != ipc.frameTimeoutSeconds,
        "[ipc]");
    say(addresses(changed) != addresses(m_settingsAtStart) ||
            changed.policy.socketMode != m_settingsAtStart.policy.socketMode ||
            changed.policy.threads != m_settingsAtStart.policy.threads ||
            changed.policy.maxConnections != m_settingsAtStart.policy.maxConnections,
        "[policy]");
    auto const address = [](auto const& settings) {
        return settings.listen ? settings.listen->asString() : std::string();
    };
    say(address(changed.milter) != address(m_settingsAtStart.milter) ||
            changed.milter.socketMode != m_settingsAtStart.milter.socketMode ||
            changed.milter.maxConnections != m_settingsAtStart.milter.maxConnections ||
            changed.milter.timeoutSeconds != m_settingsAtStart.milter.timeoutSeconds,
        "[milter] listen, socket_mode, max_connections or timeout_seconds");
    say(address(changed.metrics) != address(m_settingsAtStart.metrics), "[metrics] listen");
    say(changed.greylist.maxRecords != m_settingsAtStart.greylist.maxRecords, "[greylist] max_records");
    say(changed.rateControl.maxSenders != m_settingsAtStart.rateControl.maxSenders, "[rate_control] max_senders");
    say(changed.endpoint.windowMinutes != m_endpoints->windowSize(), "[endpoint] window_minutes");
    say(changed.endpoint.radius != m_settingsAtStart.endpoint.radius ||
            changed.endpoint.enabled != m_settingsAtStart.endpoint.enabled,
        "[endpoint] enabled or radius");
}

void Daemon::keepHouse() {
    m_highAvailability->isActive(); // so that a change is said, and trouble found, before the next backup is due
    m_databaseWatch.look(clockNow());
    if (m_databaseWatch.state().reachable.value_or(false)) {
        unlessTablesAreInHand([this] {
            m_loads.tryAgain();
            m_reputationLoads.tryAgain();
            m_endpointLoads.tryAgain();
        });
    }
    m_decision->dropDeadExemptions(clockNow());
    if (std::uint64_t const loads = GreyList::LoadReport::last().tupleLoads; loads != m_countedLoads) {
        m_countedLoads = loads; // a tool has asked for a reload
        m_decision->rebuildPassCounts(clockNow());
    }
    countFamilies();
    MailCounts::dropOldHours(clockNow());
    m_scripts.look();
}

void Daemon::countFamilies() {
    FamilyCounts counts;
    counts.blockedSenders = MailCounts::liftBlocks(clockNow()).remaining;
    counts.countEndpoints(clockNow());
    m_familyCounts.set(counts);
}

void Daemon::reload() {
    Logger::instance(false).reopen();
    try {
        takeOver(Settings::load(m_settingsPath));
    } catch (std::exception const& failed) {
        note(Logger::Severity::error, std::string("the settings stay as they were: ") + failed.what());
    }
    try {
        m_rules = loadRules(m_settings);
    } catch (std::exception const& failed) {
        note(Logger::Severity::error, std::string("the exempt rules stay as they were: ") + failed.what());
    }
    m_decision->install(decisionSettings());
    m_decision->rebuildPassCounts(clockNow()); // more may be needed now than was counted
    m_housekeeping->soon();                    // another unit of the pair may be the active one
}

// Settings that were read can be taken over; only want of memory keeps some of them from it.
void Daemon::takeOver(Settings changed) {
    sayWhatNeedsARestart(changed);
    changed.state = m_settings.state; // the lock is held there
    if (changed.log.target.asString() != m_settings.log.target.asString()) {
        useLog(changed.log);
    }
    m_settings = std::move(changed);
    try {
        useDatabase();
        m_highAvailability->install(m_settings.highAvailability);
        useGreylistConfiguration();
        m_endpoints->change(m_settings.endpoint);
        m_reputation->change(m_settings.reputation);
        m_translator->install(PolicyTranslatorSettings::of(m_settings));
        m_milterFront->install(MilterFrontSettings::of(m_settings));
        m_counts->install({m_settings.rateLimits, m_settings.endpointLimits});
        note(Logger::Severity::info, "settings read again from " + m_settingsPath);
    } catch (std::exception const& failed) {
        note(Logger::Severity::error,
             std::string("the settings hold in part only, read them again or start anew: ") + failed.what());
    }
}

void Daemon::stop() {
    note(Logger::Severity::info, "ending");
    m_housekeeping.reset();
    m_metricsServer.reset();
    m_policy->stop();
    m_milter.reset(); // from here on nothing changes in the caches
    dispatcher().stop();
    m_decision->settle();
    m_countQueue->waitUntilDone();
    Cron::Crontab::instance(true).stop();
    if (!DetachedBackup::waitForAll(patienceWithLastBackups)) {
        note(Logger::Severity::error, "a backup that was running did not end in time");
    }
    takeLastBackups();
    note(Logger::Severity::info, "ended");
    Logger::instance(false).flush();
}

void Daemon::takeLastBackups() {
    m_highAvailability->postponeResyncs();
    std::string const standby = m_highAvailability->isActiveNow() ? "" : "this unit is not the active one";
    auto const take = [&standby](LastBackup backup, bool enabled, LoadKeeper const& loads) {
        backup.enabled = enabled;
        backup.problem = standby.empty() ? loads.whyNoBackup() : standby;
        takeLastBackup(backup);
    };
    take(lastGreylistBackup(), m_settings.greylist.backup, m_loads);
    take(lastReputationBackup(m_reputation->backupPath()), m_settings.reputation.backup, m_reputationLoads);
    take(lastEndpointBackup(m_endpoints->fnameBackup()), m_settings.endpoint.backup, m_endpointLoads);
    m_highAvailability->runPostponedResyncs(patienceWithLastBackups);
}

// Whether the periodic backup of a family may begin. The restore is asked for last: the question before may take a
// while.
bool Daemon::mayBackUp(LoadKeeper const& loads) {
    return m_highAvailability->isActiveNow() && loads.mayBackUp() && !restoreRunning();
}

DaemonStatus Daemon::status() const {
    DaemonStatus status;
    status.version = version;
    status.startedAt = m_startedAt;
    status.settingsPath = m_settingsPath;
    for (ListenAddress const& address : m_policy->addresses()) {
        status.policyListeners.push_back(address.asString());
    }
    status.fronts.push_back({"policy", decisionCounts(m_translator->counters())});
    if (MilterServer::figures().running) {
        status.fronts.push_back({"milter", decisionCounts(m_milterFront->counters())});
    }
    status.database = m_databaseWatch.state();
    status.active = m_highAvailability->lastAnswer();
    status.scripts = m_scripts.outcomes();
    return status;
}

MetricFacts Daemon::metricFacts() const {
    MetricFacts facts;
    facts.startedAt = m_startedAt;
    PolicyServerFigures const policy = m_policy->figures();
    facts.fronts.push_back({.name = "policy",
                            .counters = &m_translator->counters(),
                            .connections = policy.connections,
                            .accepted = policy.accepted,
                            .refused = policy.refused,
                            .failures = policy.failedAnswers});
    facts.policyRequests = policy.requests;
    facts.policyProtocolErrors = policy.protocolErrors;
    MilterServerFigures const milter = MilterServer::figures();
    facts.fronts.push_back({.name = "milter",
                            .counters = &std::as_const(*m_milterFront).counters(),
                            .connections = milter.connections,
                            .accepted = milter.accepted,
                            .refused = milter.unseen,
                            .failures = milter.failures});
    facts.counts = m_familyCounts.get();
    facts.database = m_databaseWatch.state().reachable;
    facts.databaseDaemon = m_scripts.isAnswered();
    facts.scripts = m_scripts.outcomes();
    facts.active = m_highAvailability->lastAnswer();
    return facts;
}

BackupGate Daemon::backupGate() const {
    std::string const problem = m_loads.whyNoBackup();
    return {problem.empty(), problem};
}

BackupGate Daemon::reputationGate() const {
    std::string const problem = m_reputationLoads.whyNoBackup();
    return {problem.empty(), problem};
}

BackupGate Daemon::endpointGate() const {
    std::string const problem = m_endpointLoads.whyNoBackup();
    return {problem.empty(), problem};
}

bool Daemon::acceptEmpty() {
    return m_loads.accept();
}

bool Daemon::acceptEmptyReputations() {
    return m_reputationLoads.accept();
}

bool Daemon::acceptEmptyEndpoints() {
    return m_endpointLoads.accept();
}

void Daemon::cachesLoaded() {
    m_decision->rebuildPassCounts(clockNow());
}

} // namespace Vellum::Daemon
