#include "daemon/AdminHandlers.h"

#include "daemon/AdminHandler.h"
#include "daemon/AdminJson.h"
#include "daemon/ScriptWatch.h"
#include "foundation/Escape.h"
#include "foundation/Logger.h"
#include "greylist/DynamicExemptCache.h"
#include "greylist/TupleCache.h"
#include "mmsreputation/RefCache.h"
#include "reputation/Cache.h"

#include <chrono>
#include <ctime>

namespace Vellum::Daemon {
namespace {

using DatabaseDaemon::RequestCode;

constexpr std::chrono::milliseconds progressInterval{100};

template <class Cache>
CacheFill fillOf(Cache const& cache) {
    SharedLock const hold(cache.lock);
    return {cache.sizeNoLock(), cache.maxSize()};
}

CacheFill tupleFill() {
    return fillOf(**GreyList::TupleCache::instance());
}

CacheFill exemptionFill() {
    return fillOf(**GreyList::DynamicExemptCache::instance());
}

CacheFill endpointFill() {
    using MMSReputation::RefCache;
    RefCache const cache = RefCache::instance(nullptr, MMSReputation::Select::everything);
    return cache.isNull() ? CacheFill{0, MMSReputation::Cache::mostEntries} : fillOf(*cache);
}

std::string recordsText(std::uint64_t tuples, std::uint64_t exemptions) {
    return std::to_string(tuples) + " tuples and " + std::to_string(exemptions) + " exemptions";
}

std::string hoursText(std::uint64_t hours) {
    return std::to_string(hours) + " hours of sender reputation";
}

std::string slicesText(std::uint64_t slices) {
    return std::to_string(slices) + " slices of endpoints";
}

std::string contentOf(GreyList::BackupReport const& report) {
    return recordsText(report.tuples, report.exemptions);
}

std::string contentOf(Reputation::BackupReport const& report) {
    return hoursText(report.records) + " of " + std::to_string(report.addresses) + " addresses";
}

std::string contentOf(MMSReputation::BackupReport const& report) {
    return slicesText(report.records) + " of " + std::to_string(report.subscribers) + " subscribers";
}

std::string loadedText(RestoreOutcome const& outcome) {
    if (outcome.ofReputation) {
        return hoursText(outcome.reputations);
    }
    return outcome.ofEndpoints ? slicesText(outcome.slices) : recordsText(outcome.tuples, outcome.exemptions);
}

// Tells a client how far its request is, now and then.
class ProgressSender {
  public:
    explicit ProgressSender(IPC::SocketIPC& client) : m_client(client) {}

    // False when the client is gone.
    bool operator()(std::uint64_t done, std::uint64_t total) {
        auto const now = std::chrono::steady_clock::now();
        if (now < m_next) {
            return true;
        }
        m_next = now + progressInterval;
        try {
            sendJson(m_client, IPC::PduType::adminProgress, {{"done", done}, {"total", total}});
            m_client.socket().flush();
            return true;
        } catch (Exception const&) {
            noteAdministration(Logger::Severity::warning, "the client that asked for a restore is gone");
            return false;
        }
    }

  private:
    IPC::SocketIPC& m_client;
    std::chrono::steady_clock::time_point m_next = std::chrono::steady_clock::now() + progressInterval;
};

// With the daemon's services at hand.
class ServiceHandler : public AdminHandler {
  protected:
    ServiceHandler(IPC::PduType type, char const* name, AdminServices& services)
        : AdminHandler(type, name), m_services(services) {}

    AdminServices& services() const { return m_services; }

  private:
    AdminServices& m_services; // borrowed; see addAdminHandlers()
};

class StatusHandler : public ServiceHandler {
  public:
    explicit StatusHandler(AdminServices& services) : ServiceHandler(IPC::PduType::adminStatus, "status", services) {}

  protected:
    Json answer(Json const&, IPC::SocketIPC&) const override {
        DaemonStatus const daemon = services().status();
        Json status = asJson(daemon, std::time(nullptr));
        GreyList::LoadReport const loads = GreyList::LoadReport::last();
        status["greylist"] = {{"tuples", asJson(tupleFill(), loads.tuples)},
                              {"exemptions", asJson(exemptionFill(), loads.exemptions)}};
        status["backup"] = asJson(services().backupGate(), GreyList::BackupReport::last(),
                                  outcomeOf(daemon.scripts, RequestCode::greylistScript));
        status["reputation"] = {
            {"entries", asJson(fillOf(**Reputation::RefCache::instance()), Reputation::LoadReport::last())},
            {"backup", asJson(services().reputationGate(), Reputation::BackupReport::last(),
                              outcomeOf(daemon.scripts, RequestCode::reputationScript))}};
        status["endpoints"] = endpoints(daemon);
        return status;
    }

  private:
    Json endpoints(DaemonStatus const& daemon) const {
        MMSReputation::LoadReport const loads = MMSReputation::LoadReport::last();
        return {{"entries", asJson(endpointFill(), loads.entries)},
                {"exempt_list", {{"load", asJson(loads.exemptList)}}},
                {"blacklist", {{"load", asJson(loads.blacklist)}}},
                {"backup", asJson(services().endpointGate(), MMSReputation::BackupReport::last(),
                                  outcomeOf(daemon.scripts, RequestCode::endpointScript))}};
    }
};

class BackupHandler : public ServiceHandler {
  public:
    explicit BackupHandler(AdminServices& services) : ServiceHandler(IPC::PduType::adminBackup, "backup", services) {}

  protected:
    Json answer(Json const&, IPC::SocketIPC&) const override {
        Json json = backUp(services().backupGate(), [this] { return services().backupNow(); });
        json["reputation"] = backUp(services().reputationGate(), [this] { return services().backUpReputations(); });
        json["endpoints"] = backUp(services().endpointGate(), [this] { return services().backUpEndpoints(); });
        for (auto const& [key, name] : {std::pair{"reputation", "sender reputation"}, {"endpoints", "endpoints"}}) {
            if (!json.contains("error") && json[key].contains("error")) {
                json["error"] = std::string(name) + ": " + json[key]["error"].get<std::string>();
            }
        }
        return json;
    }

  private:
    template <class Make>
    static Json backUp(BackupGate const& gate, Make make) {
        return gate.open ? backUp(make) : errorJson("backups are off: " + gate.reason);
    }
    template <class Make>
    static Json backUp(Make make) {
        auto const report = make();
        Json json = asJson(report);
        if (!report.accepted) {
            json["error"] = report.problem;
        }
        noteAdministration(
            report.accepted ? Logger::Severity::info : Logger::Severity::warning,
            "backup " + (report.accepted ? "of " + contentOf(report) + " handed over" : "failed: " + report.problem));
        return json;
    }
};

class RestoreHandler : public ServiceHandler {
  public:
    explicit RestoreHandler(AdminServices& services)
        : ServiceHandler(IPC::PduType::adminRestore, "restore", services) {}

  protected:
    Json answer(Json const& request, IPC::SocketIPC& client) const override {
        std::string const path = requiredText(request, "path");
        if (path.empty() || path.front() != '/' || path.find('\0') != std::string::npos) {
            throw AdminRefusal("\"path\" must be an absolute path, not \"" + escapeForLog(path) + "\"");
        }
        if (optionalFlag(request, "dry_run")) {
            return asJson(path, services().previewRestore(path));
        }
        noteAdministration(Logger::Severity::info, "restore of " + escapeForLog(path) + " begins");
        RestoreOutcome const outcome = services().restore(path, ProgressSender(client));
        bool const loaded = outcome.loadProblem.empty();
        noteAdministration(loaded ? Logger::Severity::info : Logger::Severity::error,
                           "restore of " + escapeForLog(path) + " done, " +
                               (loaded ? loadedText(outcome) + " loaded" : "but not loaded: " + outcome.loadProblem));
        return asJson(path, outcome);
    }
};

class AcceptEmptyHandler : public ServiceHandler {
  public:
    explicit AcceptEmptyHandler(AdminServices& services)
        : ServiceHandler(IPC::PduType::adminAcceptEmpty, "accept-empty", services) {}

  protected:
    Json answer(Json const& request, IPC::SocketIPC&) const override {
        std::string const family = optionalText(request, "family");
        if (family == "reputation") {
            return acceptReputations();
        }
        if (family == "endpoint") {
            return acceptEndpoints();
        }
        if (!family.empty() && family != "greylist") {
            throw AdminRefusal("\"family\" must be \"greylist\", \"reputation\" or \"endpoint\"");
        }
        CacheFill const tuples = tupleFill();
        CacheFill const exemptions = exemptionFill();
        bool const changed = services().acceptEmpty();
        if (changed) {
            noteAdministration(Logger::Severity::warning, "backups of " + recordsText(tuples.size, exemptions.size) +
                                                              " may now replace tables that could not be loaded");
        }
        return {{"changed", changed}, {"tuples", tuples.size}, {"exemptions", exemptions.size}};
    }

  private:
    Json acceptReputations() const {
        CacheFill const entries = fillOf(**Reputation::RefCache::instance());
        bool const changed = services().acceptEmptyReputations();
        if (changed) {
            noteAdministration(Logger::Severity::warning,
                               "backups of sender reputation, " + std::to_string(entries.size) +
                                   " addresses, may now replace tables that could not be loaded");
        }
        return {{"changed", changed}, {"addresses", entries.size}};
    }
    Json acceptEndpoints() const {
        CacheFill const entries = endpointFill();
        bool const changed = services().acceptEmptyEndpoints();
        if (changed) {
            noteAdministration(Logger::Severity::warning,
                               "backups of endpoints, " + std::to_string(entries.size) +
                                   " subscribers, may now replace tables that could not be loaded");
        }
        return {{"changed", changed}, {"subscribers", entries.size}};
    }
};

} // namespace

void addAdminHandlers(AdminServices& services, IPC::Dispatcher& dispatcher) {
    dispatcher.add(IPC::MyHandler<StatusHandler>(new StatusHandler(services)));
    dispatcher.add(IPC::MyHandler<BackupHandler>(new BackupHandler(services)));
    dispatcher.add(IPC::MyHandler<RestoreHandler>(new RestoreHandler(services)));
    dispatcher.add(IPC::MyHandler<AcceptEmptyHandler>(new AcceptEmptyHandler(services)));
}

} // namespace Vellum::Daemon
