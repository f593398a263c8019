#include "daemon/EndpointState.h"

#include "foundation/Logger.h"
#include "mmsreputation/MMSReputationDatabase.h"
#include "mmsreputation/Reports.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace Vellum::Daemon {
namespace {

namespace Endpoint = MMSReputation;

void note(Logger::Severity severity, std::string const& text) {
    Logger::instance(false).note(severity, text);
}

// What a subscriber's entry held at one moment.
struct KeptEntry {
    MSISDN number;
    std::vector<std::pair<std::uint32_t, Endpoint::Entry::Record>> records;
    long expiry;
};

std::vector<KeptEntry> entriesOf(Endpoint::Cache const& cache) {
    std::vector<KeptEntry> kept;
    SharedLock const holdEntries(Endpoint::Entry::s_mutex);
    SharedLock const hold(cache.lock);
    cache.forEachInKeyOrder([&](auto const& pair) VELLUM_NO_THREAD_SAFETY_ANALYSIS {
        if (Endpoint::Entry const* entry = pair.second.get()) {
            kept.push_back({pair.first, {entry->records().begin(), entry->records().end()}, entry->blacklistExpiry()});
        }
        return true;
    });
    return kept;
}

// The larger count of both is the true one: what was counted before the load is in it already, or never was stored.
void putBack(Endpoint::Cache& cache, std::vector<KeptEntry> const& kept) {
    for (KeptEntry const& was : kept) {
        Endpoint::RefEntry const entry = cache.entry(was.number, 0, true);
        entry->blacklistExpiry(std::max(entry->blacklistExpiry(), was.expiry));
        ExclusiveLock const hold(Endpoint::Entry::s_mutex);
        for (auto const& [slice, record] : was.records) {
            auto const loaded = entry->records().find(slice);
            Endpoint::Entry::Record const now =
                loaded == entry->records().end() ? Endpoint::Entry::Record() : loaded->second;
            entry->add(Endpoint::Period(slice), {std::max<std::uint32_t>(now.spam, record.spam),
                                                 std::max<std::uint32_t>(now.infected, record.infected)});
        }
    }
}

std::string whyNotWhole() {
    Endpoint::RefCache const cache = Endpoint::RefCache::instance(nullptr, Endpoint::Select::everything);
    return cache.isNull() ? "nothing was loaded" : cache->whyNotWhole();
}

} // namespace

EndpointState::EndpointState(EndpointSettings const& settings, std::string backupFile)
    : m_backupFile(std::move(backupFile)), m_windowMinutes(settings.windowMinutes), m_enabled(settings.enabled),
      m_backup(settings.backup) {
    s_instance = this;
}

EndpointState::~EndpointState() {
    s_instance = nullptr;
}

void EndpointState::change(EndpointSettings const& settings) {
    m_enabled = settings.enabled;
    m_backup = settings.backup;
}

std::string EndpointState::loadProblem() {
    Endpoint::LoadReport const report = Endpoint::LoadReport::last();
    for (Endpoint::LoadReport::Part const* part : {&report.entries, &report.exemptList, &report.blacklist}) {
        if (!part->loaded) {
            return "the endpoint tables could not be loaded: " +
                   (part->problem.empty() ? "no load was tried yet" : part->problem);
        }
    }
    return {};
}

void EndpointState::tryAgain() {
    if (Endpoint::LoadReport::last().complete()) {
        return;
    }
    Endpoint::Database database(Database::Connection::defaultAddress());
    if (Endpoint::LoadReport::last().entries.loaded) { // and counted into since: only the lists are read again
        Endpoint::RefCache::instance(&database, Endpoint::Select::exemptList | Endpoint::Select::blacklist);
    } else {
        Endpoint::RefCache const before = Endpoint::RefCache::instance(nullptr, Endpoint::Select::everything);
        Endpoint::RefCache const now = Endpoint::RefCache::instance(&database, Endpoint::Select::everything);
        if (!before.isNull()) {
            putBack(*now, entriesOf(*before));
        }
    }
    if (Endpoint::LoadReport::last().complete()) {
        note(Logger::Severity::warning,
             "the endpoint tables that could not be loaded are loaded now: their backups are on again");
    }
}

void EndpointState::takeLastBackup() const {
    if (!haMaster()) {
        note(Logger::Severity::info, "no last endpoint backup: it is switched off in the settings");
        return;
    }
    if (std::string const why = whyNotWhole(); !why.empty()) {
        note(Logger::Severity::warning, "no last endpoint backup: " + why);
        return;
    }
    Endpoint::Database::write(m_backupFile);
    Endpoint::BackupReport const report = Endpoint::BackupReport::last();
    if (report.accepted) {
        note(Logger::Severity::info, "last endpoint backup: " + std::to_string(report.subscribers) +
                                         " subscribers are with the database daemon");
    } else {
        note(Logger::Severity::error,
             "the last endpoint backup failed, what came after the one before is lost: " + report.problem);
    }
}

} // namespace Vellum::Daemon
