// A backup: a script of what is in memory, handed to the database daemon, and the report of how that went.
#pragma once

#include "foundation/database/DatabaseDaemon.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <utility>

namespace Vellum::Database {

// How a backup went, whoever asked for it. A family's own report derives from it and counts what the script holds.
struct BackupReport {
    bool attempted = false;
    bool accepted = false;          // the database daemon has the script in its journal
    long startedAt = 0;             // seconds since the epoch
    std::uint64_t milliseconds = 0; // from then until the daemon's answer, or the failure
    std::uint64_t leftOut = 0;      // records that no row can hold
    std::uint64_t bytes = 0;        // of the script; 0 when there is none
    std::string problem;            // why it was not accepted
};

// Counts a backup that was attempted among those of its family (OperationTally.h).
void tallyBackup(std::string const& family, BackupReport const& report);

// The report of a backup that could not even begin.
template <class Report>
Report failedBackup(std::string const& problem) {
    Report report;
    report.attempted = true;
    report.startedAt = static_cast<long>(std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()));
    report.problem = problem;
    return report;
}

// One backup under way, on one thread. Fills a report, which is borrowed.
class ScriptBackup {
  public:
    explicit ScriptBackup(BackupReport& report);
    ScriptBackup(ScriptBackup const&) = delete;
    ScriptBackup& operator=(ScriptBackup const&) = delete;

    // Writes the script that `text` makes to `path`, which appears whole or not at all. Waits for the disk. Throws what
    // File::basic_ofstream throws, and what `text` throws.
    void write(std::string const& path, std::function<void(std::ostream& out)> const& text);
    // Asks the database daemon to run what was written last. A refusal is logged under `refusedLogCode`, one blank.
    // Waits for the daemon's answer; never throws an Exception.
    void handOver(Vellum::DatabaseDaemon::RequestCode request, std::uint32_t refusedLogCode);
    // What fails after the daemon has accepted the script does not take that back.
    void hasFailed(std::string const& problem);
    // Notes how long it took.
    void end();

  private:
    BackupReport& m_report;
    std::string m_path;
    std::chrono::steady_clock::time_point const m_start = std::chrono::steady_clock::now();
};

// The same with a family's report, which is handed in (Report::set) by publish(), or at the end of its life, however
// that comes. What is to be told of a backup afterwards, and may take a while, belongs behind publish().
//
//   ReportedBackup<BackupReport> backup;
//   try {
//       backup.script.write(path, [&](std::ostream& out) { backup.report.tuples = ...; });
//       backup.script.handOver(Vellum::DatabaseDaemon::RequestCode::greylistScript, LogCode::daemonRefused);
//   } catch (Exception const& failed) {
//       backup.script.hasFailed(failed.asString());
//   }
template <class Report>
struct ReportedBackup {
    ReportedBackup() = default;
    ~ReportedBackup() { publish(); }
    void publish() {
        if (!std::exchange(m_published, true)) {
            script.end();
            Report::set(report);
        }
    }
    ReportedBackup(ReportedBackup const&) = delete;
    ReportedBackup& operator=(ReportedBackup const&) = delete;

    Report report;
    ScriptBackup script{report};

  private:
    bool m_published = false;
};

} // namespace Vellum::Database
