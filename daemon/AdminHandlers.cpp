#include "daemon/AdminHandlers.h"

#include "daemon/AdminHandler.h"
#include "daemon/AdminJson.h"
#include "foundation/Escape.h"
#include "foundation/Logger.h"
#include "greylist/DynamicExemptCache.h"
#include "greylist/TupleCache.h"
#include "reputation/Cache.h"

#include <chrono>
#include <ctime>

namespace Vellum::Daemon {
namespace {

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

std::string recordsText(std::uint64_t tuples, std::uint64_t exemptions) {
    return std::to_string(tuples) + " tuples and " + std::to_string(exemptions) + " exemptions";
}

std::string hoursText(std::uint64_t hours) {
    return std::to_string(hours) + " hours of sender reputation";
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
        Json status = asJson(services().status(), std::time(nullptr));
        GreyList::LoadReport const loads = GreyList::LoadReport::last();
        status["greylist"] = {{"tuples", asJson(tupleFill(), loads.tuples)},
                              {"exemptions", asJson(exemptionFill(), loads.exemptions)}};
        status["backup"] = asJson(services().backupGate(), GreyList::BackupReport::last());
        status["reputation"] = {
            {"entries", asJson(fillOf(**Reputation::RefCache::instance()), Reputation::LoadReport::last())},
            {"backup", asJson(services().reputationGate(), Reputation::BackupReport::last())}};
        return status;
    }
};

class BackupHandler : public ServiceHandler {
  public:
    explicit BackupHandler(AdminServices& services) : ServiceHandler(IPC::PduType::adminBackup, "backup", services) {}

  protected:
    Json answer(Json const&, IPC::SocketIPC&) const override {
        BackupGate const gate = services().backupGate();
        if (!gate.open) {
            throw AdminRefusal("backups are off: " + gate.reason);
        }
        GreyList::BackupReport const report = services().backupNow();
        Json json = asJson(report);
        if (!report.accepted) {
            json["error"] = report.problem;
        }
        say(report, recordsText(report.tuples, report.exemptions));
        json["reputation"] = backUpReputations();
        if (report.accepted && json["reputation"].contains("error")) {
            json["error"] = "sender reputation: " + json["reputation"]["error"].get<std::string>();
        }
        return json;
    }

  private:
    Json backUpReputations() const {
        BackupGate const gate = services().reputationGate();
        if (!gate.open) {
            return errorJson("backups are off: " + gate.reason);
        }
        Reputation::BackupReport const report = services().backUpReputations();
        Json json = asJson(report);
        if (!report.accepted) {
            json["error"] = report.problem;
        }
        say(report, hoursText(report.records) + " of " + std::to_string(report.addresses) + " addresses");
        return json;
    }
    static void say(Database::BackupReport const& report, std::string const& what) {
        noteAdministration(report.accepted ? Logger::Severity::info : Logger::Severity::warning,
                           "backup " + (report.accepted ? "of " + what + " handed over" : "failed: " + report.problem));
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
                               (loaded ? (outcome.ofReputation ? hoursText(outcome.reputations)
                                                               : recordsText(outcome.tuples, outcome.exemptions)) +
                                             " loaded"
                                       : "but not loaded: " + outcome.loadProblem));
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
        if (!family.empty() && family != "greylist") {
            throw AdminRefusal("\"family\" must be \"greylist\" or \"reputation\"");
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
};

} // namespace

void addAdminHandlers(AdminServices& services, IPC::Dispatcher& dispatcher) {
    dispatcher.add(IPC::MyHandler<StatusHandler>(new StatusHandler(services)));
    dispatcher.add(IPC::MyHandler<BackupHandler>(new BackupHandler(services)));
    dispatcher.add(IPC::MyHandler<RestoreHandler>(new RestoreHandler(services)));
    dispatcher.add(IPC::MyHandler<AcceptEmptyHandler>(new AcceptEmptyHandler(services)));
}

} // namespace Vellum::Daemon
