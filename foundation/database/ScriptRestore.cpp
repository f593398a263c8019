#include "foundation/database/ScriptRestore.h"

#include "foundation/File.h"
#include "foundation/Logger.h"
#include "foundation/RecordFormats.h"

namespace Vellum::Database {

void runScript(Connection& connection, ScriptSource const& script, QueryFile::Progress const& progress) {
    connection.enableMultipleStatementsPerQuery();
    QueryFile file(connection, script);
    file.onProgress(progress);
    file.execute();
}

void runScriptOrLog(Connection& connection, std::string const& path, RestoreRecords const& records) {
    try {
        runScript(connection, path);
    } catch (Exception const& failed) {
        bool const missing = !File::Path(path).exists();
        Logger::instance(false).log(missing ? records.missingCode : records.failedCode, 0, formatSourceLineTextPath,
                                    records.source, missing ? records.missingLine : records.failedLine,
                                    failed.asString().c_str(), path.c_str());
    }
}

} // namespace Vellum::Database
