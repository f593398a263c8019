// A backup's script through the database, and back into the caches.
//
//   LoadBench [--tuples N]... [--turns N] [--json]
//
// Running the script beside one plain transaction of the same statements, which stand in memory; loading beside a bare
// mysql_store_result and a walk over the same rows. On a private MariaDB with room for the table in its memory.
#include "bench/BenchSupport.h"
#include "foundation/AllocatorTuning.h"
#include "foundation/File.h"
#include "foundation/database/StatementSplitter.h"
#include "greylist/BackupScript.h"
#include "greylist/GlDynamicExemptDatabase.h"
#include "greylist/GlRecordDatabase.h"
#include "greylist/LoadReport.h"
#include "tests/support/PrivateMariaDb.h"
#include "tests/support/TemporaryDirectory.h"

#include <fstream>
#include <iterator>
#include <mysql.h>
#include <stdexcept>

using namespace Vellum;
using namespace Vellum::Bench;
using namespace Vellum::GreyList;

namespace {

class LoadBench {
  public:
    LoadBench(PrivateMariaDb& server, std::size_t tuples, Options const& options)
        : m_tuples(tuples), m_options(options) {
        server.freshDatabase();
        GlRecordDatabase(address()).createTable();
        DynamicExemptDatabase(address()).createTable();
        installConfiguration(tuples);
        {
            _TupleCache cache;
            _DynamicExemptCache const exemptions;
            fill<_TupleCache, TupleId>(cache, tuples);
            File::basic_ofstream<char> out{File::Path(m_script)};
            BackupSnapshot(cache, exemptions).write(out);
            out.commit();
        }
        keepStatements();
    }

    void run() {
        Comparison scripts;
        for (unsigned int turn = 0; turn < std::max(1U, m_options.turns / 2); ++turn) {
            scripts.turn([&] { return runScript(); }, [&] { return runTransaction(); });
        }
        scripts.print("running the script", m_tuples, m_options.json);
        Comparison loads;
        for (unsigned int turn = 0; turn < m_options.turns; ++turn) {
            loads.turn([&] { return load(); }, [&] { return fetch(); });
        }
        loads.print("loading", m_tuples, m_options.json);
    }

  private:
    static SocketAddress address() { return Database::Connection::defaultAddress(); }

    // What changes rows, in memory: the plain transaction reads no file and splits nothing.
    void keepStatements() {
        std::ifstream file(m_script, std::ios::binary);
        std::string const script(std::istreambuf_iterator<char>(file), {});
        Database::StatementSplitter splitter([&](Database::Statement const& statement) {
            if (statement.text.starts_with("delete") || statement.text.starts_with("INSERT")) {
                m_statements.emplace_back(statement.text);
            }
        });
        splitter.feed(script);
        splitter.finish();
    }
    double runScript() const {
        GlRecordDatabase database(address());
        return milliseconds([&] { database.runScript(m_script); });
    }
    double runTransaction() const {
        Database::Connection connection(address(), databaseName);
        return milliseconds([&] {
            connection.run("SET autocommit=0", "LoadBench");
            for (std::string const& statement : m_statements) {
                connection.run(statement, "LoadBench");
            }
            connection.run("COMMIT", "LoadBench");
        });
    }
    double load() const {
        GlRecordDatabase database(address());
        double const taken = milliseconds([&] { database.read(); });
        if (!LoadReport::last().complete() || LoadReport::last().tuples.rows != m_tuples) {
            throw std::runtime_error("the table did not load: " + LoadReport::last().tuples.problem);
        }
        return taken;
    }
    double fetch() const {
        Database::Connection connection(address(), databaseName);
        std::size_t rows = 0;
        double const taken = milliseconds([&] {
            MYSQL* const mysql = connection.native();
            if (mysql_query(mysql, "select * from grey_list") != 0) {
                throw std::runtime_error(mysql_error(mysql));
            }
            MYSQL_RES* const result = mysql_store_result(mysql);
            while (mysql_fetch_row(result) != nullptr) {
                rows += mysql_fetch_lengths(result)[0] != 0 ? 1 : 0;
            }
            mysql_free_result(result);
        });
        if (rows != m_tuples) {
            throw std::runtime_error("the table has other rows");
        }
        return taken;
    }

    std::size_t m_tuples;
    Options const& m_options;
    TemporaryDirectory m_directory;
    std::string const m_script = m_directory.path() + "/greylist.sql";
    std::vector<std::string> m_statements;
};

} // namespace

int main(int argc, char** argv) {
    tuneAllocator(argv); // as vellumd does
    SilentLogger const silent;
    Options const options = Options::parse(argc, argv, {1000000}, 5);
    PrivateMariaDb server({"--innodb-buffer-pool-size=1G", "--max-allowed-packet=64M"});
    // The process's cache is made once: with room for the largest table.
    installConfiguration(*std::max_element(options.sizes.begin(), options.sizes.end()));
    TupleCache::instance();
    DynamicExemptCache::instance();
    for (std::size_t const tuples : options.sizes) {
        LoadBench(server, tuples, options).run();
    }
}
