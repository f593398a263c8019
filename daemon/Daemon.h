// The state daemon, put together: settings, caches, tables, port 29001, the policy and milter fronts, jobs, and an
// orderly end.
//
// Order of start: settings, log, lock on the state directory, configuration, tables brought up and loaded, decision,
// requests on port 29001, fronts. Whatever fails ends the start; nothing is served before everything is there.
// Order of end (SIGTERM, SIGINT): fronts, port 29001, jobs, then the last backup, which is waited for.
#pragma once

#include "daemon/CountQueue.h"
#include "daemon/DaemonMetrics.h"
#include "daemon/DatabaseWatch.h"
#include "daemon/Decision.h"
#include "daemon/EndpointConfiguration.h"
#include "daemon/GreylistAdministration.h"
#include "daemon/HighAvailability.h"
#include "daemon/Housekeeping.h"
#include "daemon/InstanceLock.h"
#include "daemon/LoadKeeper.h"
#include "daemon/MailCounts.h"
#include "daemon/MetricsServer.h"
#include "daemon/MilterServer.h"
#include "daemon/PolicyServer.h"
#include "daemon/PolicyTranslator.h"
#include "daemon/RateControlConfiguration.h"
#include "daemon/ReputationConfiguration.h"
#include "daemon/ScriptWatch.h"
#include "daemon/Settings.h"
#include "daemon/SignalInbox.h"
#include "daemon/SubscriberDirectory.h"

#include "foundation/Latest.h"

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace Vellum::Daemon {

class Daemon : private GreylistAdministration {
  public:
    // Reads the settings and does nothing else. Throws SettingsError.
    explicit Daemon(std::string settingsPath);
    ~Daemon() override;

    // Reads the rules too, and does nothing else. Throws SettingsError.
    void check() const;

    // Starts, serves until SIGTERM or SIGINT, and ends. SIGHUP reads settings and rules again without ending a
    // connection. Answers the process's exit status. Throws Exception when the start fails.
    // These signals must be blocked in every thread.
    int run();

  private:
    void useLog(LogSettings const& settings);
    void useDatabase();
    void readDatabaseAgain();
    void useGreylistConfiguration();
    void awaitDatabaseDaemon();
    void bringUpState();
    std::size_t filesWanted() const;
    void serve();
    void makeDecision();
    void serveMailServers();
    void endWithoutMilter();
    void serveMetrics();
    void reload();
    void takeOver(Settings changed);
    void sayWhatNeedsARestart(Settings const& changed) const;
    void sayWhatCouldNotBeLoaded() const;
    void takeLastBackups();
    void stop();
    void keepHouse();
    bool mayBackUp(LoadKeeper const& loads);
    void countFamilies();

    DecisionSettings decisionSettings() const;
    MetricFacts metricFacts() const;

    // AdminServices
    DaemonStatus status() const override;
    BackupGate backupGate() const override;
    BackupGate reputationGate() const override;
    BackupGate endpointGate() const override;
    bool acceptEmpty() override;
    bool acceptEmptyReputations() override;
    bool acceptEmptyEndpoints() override;
    void cachesLoaded() override;

    std::string const m_settingsPath;
    long const m_startedAt;
    Settings m_settings;              // as last read; main thread only
    Settings const m_settingsAtStart; // what holds until the next start
    // Shared with the families' configurations, which a backup at the end may outlive this object with.
    std::shared_ptr<HighAvailability> const m_highAvailability;
    GreyList::RefExemptRuleSet m_rules;             // as last read without a mistake; main thread only
    std::vector<std::unique_ptr<Logger>> m_loggers; // the last one is installed; older ones may still be in use
    std::unique_ptr<InstanceLock> m_instanceLock;
    std::unique_ptr<PidFile> m_pidFile;
    std::unique_ptr<RateControlConfiguration> m_rateControl;
    std::unique_ptr<ReputationConfiguration> m_reputation;
    LoadKeeper m_loads; // of the greylist
    LoadKeeper m_reputationLoads;
    std::unique_ptr<EndpointConfiguration> m_endpoints;
    LoadKeeper m_endpointLoads;
    DatabaseWatch m_databaseWatch;
    ScriptWatch m_scripts;
    std::unique_ptr<Decision> m_decision;
    std::uint64_t m_countedLoads = 0; // of tuples, that the decision's pass counts know
    std::unique_ptr<PolicyTranslator> m_translator;
    std::unique_ptr<PolicyServer> m_policy;
    std::unique_ptr<SubscriberDirectory> m_subscribers; // null: the settings want no lookups
    Standing m_standing{nullptr};
    std::unique_ptr<MailCounts> m_counts;
    std::unique_ptr<CountQueue> m_countQueue; // in front of m_counts
    std::unique_ptr<SignalInbox> m_signals;
    std::atomic<bool> m_milterHasEnded{false}; // by itself
    std::unique_ptr<MilterFront> m_milterFront;
    std::unique_ptr<MilterServer> m_milter; // null: the settings want none
    std::shared_ptr<DaemonMetrics> m_metrics;
    std::unique_ptr<MetricsServer> m_metricsServer; // null: the settings want none
    Latest<FamilyCounts> m_familyCounts;            // of the last minute
    std::unique_ptr<Housekeeping> m_housekeeping;
};

} // namespace Vellum::Daemon
