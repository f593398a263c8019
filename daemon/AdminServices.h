// What the daemon tells and does for its administrator, as the requests on port 29001 ask for it (AdminHandlers.h).
#pragma once

#include "foundation/database/ScriptOutcomes.h"
#include "greylist/BackupReport.h"
#include "mmsreputation/Reports.h"
#include "reputation/BackupReport.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace Vellum::Daemon {

// The daemon will not do what was asked; the text is for the administrator.
class AdminRefusal : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// What only the running daemon knows; the caches, loads and backups of the library report themselves.
struct DaemonStatus {
    struct DecisionCount {
        std::string action; // "pass", "defer"
        std::string reason; // as reasonText() has it
        std::uint64_t count = 0;
    };
    struct DatabaseState {
        std::optional<bool> reachable; // nothing: not tried yet
        long asOf = 0;                 // when it was tried last, seconds since the epoch
        std::string problem;           // when it was not reachable
    };

    std::string version;
    long startedAt = 0; // seconds since the epoch
    std::string settingsPath;
    std::vector<std::string> policyListeners;
    // What one front has decided. A recipient that both fronts were asked about is in both.
    struct FrontDecisions {
        std::string front; // "policy", "milter"
        std::vector<DecisionCount> decisions;
    };
    std::vector<FrontDecisions> fronts;
    DatabaseState database;
    DatabaseDaemon::ScriptOutcomes scripts{}; // as last told by the database daemon
    std::optional<bool> active{};             // whether this unit of a pair is the active one, as last asked
};

// Whether backups may overwrite the tables.
struct BackupGate {
    bool open = true;
    std::string reason; // why it is shut
};

// A script beside what it would replace.
struct RestorePreview {
    // Of the script, read as a backup writes it; a script of another form shows no rows.
    std::uint64_t bytes = 0;
    long modified = 0; // seconds since the epoch
    std::uint64_t scriptTuples = 0;
    std::uint64_t scriptExemptions = 0;
    long newest = 0;       // the latest creation time in it, seconds since the epoch; 0: none
    bool complete = false; // it ends as a script must
    // What is there now.
    std::uint64_t tableTuples = 0;
    std::uint64_t tableExemptions = 0;
    std::uint64_t cachedTuples = 0;
    std::uint64_t cachedExemptions = 0;
    // A script that replaces sender reputation's tables, not the greylist's.
    bool ofReputation = false;
    std::uint64_t scriptReputations = 0; // hours of addresses, as in the table
    std::uint64_t tableReputations = 0;
    std::uint64_t cachedAddresses = 0;
    // A script that replaces the endpoint tables.
    bool ofEndpoints = false;
    std::uint64_t scriptSlices = 0; // of subscribers, as in the table
    std::uint64_t tableSlices = 0;
    std::uint64_t cachedSubscribers = 0;
};

struct RestoreOutcome {
    std::uint64_t tuples = 0; // rows loaded into the caches afterwards
    std::uint64_t exemptions = 0;
    std::uint64_t milliseconds = 0; // for the script and the load together
    std::string loadProblem;        // the tables hold the script's rows, but could not be loaded; empty when they were
    // Of a script that replaced sender reputation's tables, not the greylist's.
    bool ofReputation = false;
    std::uint64_t reputations = 0; // hours of addresses loaded
    // Of a script that replaced the endpoint tables.
    bool ofEndpoints = false;
    std::uint64_t slices = 0; // of subscribers, loaded
};

// Bytes of the script done, and in all; false abandons the restore, and the tables stay as they were.
using RestoreProgress = std::function<bool(std::uint64_t done, std::uint64_t total)>;

// Called by the dispatcher's workers, several at once. An operation that fails throws AdminRefusal or Exception; its
// text goes to the administrator.
class AdminServices {
  public:
    virtual ~AdminServices() = default;

    virtual DaemonStatus status() const = 0;
    virtual BackupGate backupGate() const = 0;     // of the greylist
    virtual BackupGate reputationGate() const = 0; // of sender reputation
    virtual BackupGate endpointGate() const = 0;

    // Make a backup on this thread and tell how it went. Not asked while the gate is shut.
    virtual GreyList::BackupReport backupNow() = 0;
    virtual Reputation::BackupReport backUpReputations() = 0;
    virtual MMSReputation::BackupReport backUpEndpoints() = 0;

    // `path` is absolute.
    virtual RestorePreview previewRestore(std::string const& path) = 0;
    virtual RestoreOutcome restore(std::string const& path, RestoreProgress const& progress) = 0;

    // Open a gate although the tables could not be loaded. False when it was open.
    virtual bool acceptEmpty() = 0;
    virtual bool acceptEmptyReputations() = 0;
    virtual bool acceptEmptyEndpoints() = 0;
};

} // namespace Vellum::Daemon
