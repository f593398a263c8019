#include "foundation/database/ScriptBackup.h"

#include "foundation/File.h"
#include "foundation/Logger.h"
#include "foundation/OperationTally.h"
#include "foundation/RecordFormats.h"

#include <ctime>
#include <filesystem>
#include <system_error>

namespace Vellum::Database {

void tallyBackup(std::string const& family, BackupReport const& report) {
    if (report.attempted) {
        OperationTally::instance().note(Operation::backup, family, report.accepted,
                                        std::chrono::milliseconds(report.milliseconds), report.startedAt);
    }
}

ScriptBackup::ScriptBackup(BackupReport& report) : m_report(report) {
    m_report.attempted = true;
    m_report.startedAt = std::time(nullptr);
}

void ScriptBackup::end() {
    auto const taken = std::chrono::steady_clock::now() - m_start;
    m_report.milliseconds =
        static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(taken).count());
}

void ScriptBackup::write(std::string const& path, std::function<void(std::ostream& out)> const& text) {
    m_path = path;
    File::basic_ofstream<char> out{File::Path(path)};
    text(out);
    out.commit();
    std::error_code unknown;
    auto const bytes = std::filesystem::file_size(path, unknown);
    m_report.bytes = unknown ? 0 : bytes;
}

void ScriptBackup::handOver(Vellum::DatabaseDaemon::RequestCode request, std::uint32_t refusedLogCode) {
    int const answer = Vellum::DatabaseDaemon::requestScript(request, m_path);
    m_report.accepted = answer == 0;
    if (!m_report.accepted) {
        m_report.problem = std::string("the database daemon did not take the script: ") +
                           Vellum::DatabaseDaemon::text(static_cast<Vellum::DatabaseDaemon::Answer>(answer));
        Logger::instance(false).log(refusedLogCode, 0, formatText, " ");
    }
}

void ScriptBackup::hasFailed(std::string const& problem) {
    if (!m_report.accepted) {
        m_report.problem = problem;
    }
}

} // namespace Vellum::Database
