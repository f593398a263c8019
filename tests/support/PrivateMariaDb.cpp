#include "PrivateMariaDb.h"

#include "foundation/Locks.h"
#include "foundation/database/Connection.h"
#include "foundation/database/Query.h"

#include <arpa/inet.h>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/file.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace Vellum {

namespace {

using Database::Connection;
using Database::Server;

constexpr char const* password = "not for \"logs\" '\\";
constexpr int startPatienceSeconds = 120;
constexpr char const* sizes[] = {"--innodb-log-file-size=8M", "--innodb-data-file-path=ibdata1:10M:autoextend"};

std::string userOption() {
    // Not "mysql" when we are root: changing the user would cut the tie that ends the server with its test.
    return geteuid() == 0 ? "--user=root" : "--user=" + std::to_string(geteuid());
}

// A data directory as a fresh installation leaves it, made once for each build directory and copied for each server.
std::string dataTemplate() {
    std::string const path = std::string(VELLUM_BINARY_DIR) + "/mariadb-template";
    int const lock = open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lock < 0 || flock(lock, LOCK_EX) != 0) {
        throw std::runtime_error("cannot lock " + path);
    }
    if (!std::filesystem::exists(path)) {
        std::string const unfinished = path + ".new";
        std::filesystem::remove_all(unfinished);
        std::string const log = path + ".log";
        std::string const temporary = path + ".tmp";
        std::filesystem::create_directory(temporary);
        std::vector<std::string> command = {"mariadb-install-db",
                                            "--no-defaults",
                                            "--skip-test-db",
                                            "--auth-root-authentication-method=normal",
                                            "--datadir=" + unfinished,
                                            "--tmpdir=" + temporary,
                                            userOption()};
        command.insert(command.end(), std::begin(sizes), std::end(sizes));
        if (BackgroundProcess(command, log).wait() != 0) {
            throw std::runtime_error("mariadb-install-db failed, see " + log);
        }
        std::filesystem::rename(unfinished, path);
    }
    close(lock);
    return path;
}

// A port that is free now. Another process could take it before the server does; then the server ends and says so.
unsigned int freePort() {
    int const probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (probe < 0 || bind(probe, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::runtime_error("no free port");
    }
    close(probe);
    return ntohs(address.sin_port);
}

class Joined : public Database::RowParser {
  public:
    void parse(void* handle, void* result) override {
        for (long index = 0; index < db_result_row_num(handle, result); ++index) {
            void* const row = db_result_fetch_row(result, index);
            std::string line;
            for (int column = 0; column < db_result_fields_num(handle, result); ++column) {
                line += column == 0 ? "" : "|";
                line.append(db_result_get_value(handle, result, row, column), db_result_field_length(result, column));
            }
            lines.push_back(line);
        }
    }
    std::vector<std::string> lines;
};

} // namespace

PrivateMariaDb& PrivateMariaDb::shared() {
    static PrivateMariaDb server;
    return server;
}

PrivateMariaDb::PrivateMariaDb(std::vector<std::string> options) : m_options(std::move(options)), m_owner(getpid()) {
    std::string const name = (std::filesystem::temp_directory_path() / "vellum-db.XXXXXX").string();
    m_directory = name;
    if (mkdtemp(m_directory.data()) == nullptr) {
        throw std::runtime_error("no directory " + name);
    }
    std::filesystem::copy(dataTemplate(), m_directory + "/data", std::filesystem::copy_options::recursive);
    std::filesystem::create_directory(m_directory + "/tmp");
    m_port = freePort();
    start();
    createAccount();
    useAccount();
}

PrivateMariaDb::~PrivateMariaDb() {
    if (getpid() != m_owner) {
        return;
    }
    kill();
    std::error_code ignored;
    std::filesystem::remove_all(m_directory, ignored);
}

void PrivateMariaDb::launch() {
    // A server that starts removes every temporary table it finds in its tmpdir, so none is shared: a server that lost
    // one under a running query fails or crashes.
    std::vector<std::string> command = {"/usr/sbin/mariadbd", // not in everybody's PATH
                                        "--no-defaults",
                                        userOption(),
                                        "--datadir=" + m_directory + "/data",
                                        "--tmpdir=" + m_directory + "/tmp",
                                        "--socket=" + socket(),
                                        "--pid-file=" + m_directory + "/pid",
                                        "--bind-address=127.0.0.1",
                                        "--port=" + std::to_string(m_port),
                                        "--skip-name-resolve",
                                        "--performance-schema=OFF",
                                        "--innodb-buffer-pool-size=64M",
                                        "--innodb-flush-log-at-trx-commit=2",
                                        "--key-buffer-size=1M",
                                        "--aria-pagecache-buffer-size=8M"};
    command.insert(command.end(), std::begin(sizes), std::end(sizes));
    command.insert(command.end(), m_options.begin(), m_options.end());
    m_process = std::make_unique<BackgroundProcess>(command, m_directory + "/log");
}

bool PrivateMariaDb::answers() const {
    try {
        Connection const connection(admin(), "");
        return true;
    } catch (Database::DatabaseException const&) {
        return false;
    }
}

void PrivateMariaDb::start() {
    for (int attempt = 0; attempt < 3; ++attempt) {
        launch();
        for (int tries = 0; tries < startPatienceSeconds * 50; ++tries) {
            if (answers()) {
                return;
            }
            if (!m_process->isRunning()) {
                break; // most likely somebody took the port
            }
            sleepFor(0, 20);
        }
        kill();
    }
    throw std::runtime_error("mariadbd does not start: " + logTail());
}

void PrivateMariaDb::kill() {
    m_process.reset();
}

void PrivateMariaDb::stop() {
    if (m_process != nullptr) {
        m_process->signal(SIGTERM);
        m_process->wait();
        m_process.reset();
    }
}

void PrivateMariaDb::freeze() {
    m_process->signal(SIGSTOP);
}

void PrivateMariaDb::thaw() {
    m_process->signal(SIGCONT);
}

Server PrivateMariaDb::account() const {
    Server server;
    server.port = m_port;
    server.user = "vellum";
    server.password = password;
    return server;
}

Server PrivateMariaDb::admin() const {
    Server server;
    server.socket = socket();
    server.user = "root";
    return server;
}

void PrivateMariaDb::useAccount() const {
    Database::ServerMap::instance().install(account());
}

void PrivateMariaDb::createAccount() {
    std::string const account = "'vellum'@'127.0.0.1'";
    run({"CREATE USER " + account + " IDENTIFIED BY 'not for \"logs\" \\'\\\\'",
         "GRANT ALL ON fe_sender_history.* TO " + account, "GRANT ALL ON msisdn.* TO " + account});
}

void PrivateMariaDb::removeDatabases() {
    for (std::string const& name : query("SHOW DATABASES", "")) {
        if (name != "mysql" && name != "information_schema" && name != "performance_schema" && name != "sys") {
            run({"DROP DATABASE " + Database::quotedIdentifier(name)});
        }
    }
}

void PrivateMariaDb::freshDatabase() {
    removeDatabases();
    Connection connection(account(), "");
    connection.dbCreate("fe_sender_history");
}

void PrivateMariaDb::run(std::vector<std::string> const& statements, std::string const& database) {
    Connection connection(admin(), database);
    for (std::string const& statement : statements) {
        connection.run(statement, "PrivateMariaDb::run");
    }
}

std::vector<std::string> PrivateMariaDb::query(std::string const& statement, std::string const& database) {
    Connection connection(admin(), database);
    Joined joined;
    Database::Query query(connection, &joined, true);
    query << statement;
    query.execute();
    return joined.lines;
}

std::string PrivateMariaDb::logTail() const {
    std::ifstream log(m_directory + "/log");
    std::string line;
    std::string tail;
    while (std::getline(log, line)) {
        if (line.find("ERROR") != std::string::npos) {
            tail += line + '\n';
        }
    }
    return tail;
}

} // namespace Vellum
