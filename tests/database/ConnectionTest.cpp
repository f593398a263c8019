#include "foundation/database/Connection.h"

#include "../support/PrivateMariaDb.h"
#include "../support/TemporaryDirectory.h"
#include "foundation/database/Query.h"
#include "foundation/database/QueryTableNames.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mysqld_error.h>
#include <thread>

namespace Vellum::Database {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

PrivateMariaDb& server() {
    return PrivateMariaDb::shared();
}

Server changed(Server from, void (*change)(Server&)) {
    change(from);
    return from;
}

// What the constructor throws; fails the test when it does not.
DatabaseException refusedConnection(Server const& where, std::string const& database = "") {
    try {
        Connection const connection(where, database);
    } catch (DatabaseException const& refused) {
        return refused;
    }
    ADD_FAILURE() << "connected to " << where.asString();
    return {"", 0, ""};
}

TEST(ServerMap, ApplianceNamesMeanTheInstalledServer) {
    Server real;
    real.host = "192.0.2.7";
    real.port = 4000;
    real.user = "mail";
    real.password = "secret";
    InstalledServer const installed(real);
    for (char const* const user : {"", "root"}) {
        Server const found = ServerMap::instance().resolve(Connection::defaultAddress(), user, "");
        EXPECT_EQ(found.host, "192.0.2.7");
        EXPECT_EQ(found.port, 4000U);
        EXPECT_EQ(found.user, "mail");
        EXPECT_EQ(found.password, "secret");
    }
}

TEST(ServerMap, OtherNamesMeanWhatTheySay) {
    Server real;
    real.socket = "/run/db.sock";
    real.user = "mail";
    real.password = "secret";
    InstalledServer const installed(real);

    Server const otherUser = ServerMap::instance().resolve(Connection::defaultAddress(), "root", "own");
    EXPECT_EQ(otherUser.asString(), "root@/run/db.sock");
    EXPECT_EQ(otherUser.password, "own");

    Server const otherServer = ServerMap::instance().resolve(SocketAddress(IPAddress("192.0.2.1"), 3306), "", "");
    EXPECT_EQ(otherServer.asString(), "@192.0.2.1:3306");
    EXPECT_EQ(otherServer.password, "");
}

TEST(Connection, NamesOfTheApplianceReachThePrivateServer) {
    server().freshDatabase();
    Connection byName("fe_sender_history", "", "", Connection::defaultAddress());
    EXPECT_TRUE(QueryTableNames(byName).names().empty());
    Connection byAddress(Connection::defaultAddress(), "fe_sender_history");
    EXPECT_TRUE(QueryTableNames(byAddress).names().empty());
}

TEST(Connection, DatabaseMayBeEmpty) {
    server().freshDatabase();
    Connection connection(Connection::defaultAddress(), "");
    EXPECT_THROW(QueryTableNames{connection}, DatabaseException) << "none is selected";
    EXPECT_TRUE(connection.dbSelectIfExists("fe_sender_history"));
    EXPECT_TRUE(QueryTableNames(connection).names().empty());
}

TEST(Connection, BackupsDatabaseNeedsNoGrant) {
    EXPECT_NO_THROW(Connection(Connection::defaultAddress(), "mysql"));
    InstalledServer const installed(server().admin());
    Connection connection(Connection::defaultAddress(), "mysql");
    EXPECT_TRUE(QueryTableNames(connection).names().contains("user")) << "selected where that is allowed";
}

TEST(Connection, WrongPasswordIsToldWithoutIt) {
    Server const wrong = changed(server().account(), [](Server& s) { s.password = "hush-hush"; });
    DatabaseException const refused = refusedConnection(wrong);
    EXPECT_EQ(refused.serverError(), unsigned(ER_ACCESS_DENIED_ERROR));
    EXPECT_TRUE(refused.connectionLost());
    EXPECT_THAT(refused.asString(), HasSubstr("vellum@127.0.0.1:" + std::to_string(server().port())));
    EXPECT_THAT(refused.asString(), Not(HasSubstr("hush-hush")));
    EXPECT_FALSE(refused.serverIsAway());
}

TEST(Connection, UnknownDatabaseIsNamed) {
    server().removeDatabases();
    DatabaseException const refused = refusedConnection(server().account(), "fe_sender_history");
    EXPECT_EQ(refused.serverError(), unsigned(ER_BAD_DB_ERROR));
    EXPECT_TRUE(refused.connectionLost());
    EXPECT_FALSE(refused.serverIsAway());
    EXPECT_THAT(refused.asString(), HasSubstr("database \"fe_sender_history\""));
}

TEST(Connection, NobodyListeningIsALostConnection) {
    Server const nobody = changed(server().account(), [](Server& s) { s.socket = "/nonexistent/socket"; });
    DatabaseException const refused = refusedConnection(nobody);
    EXPECT_TRUE(refused.connectionLost());
    EXPECT_TRUE(refused.worthRetrying());
    EXPECT_TRUE(refused.serverIsAway());
    EXPECT_THAT(refused.asString(), HasSubstr("/nonexistent/socket"));
}

TEST(Connection, ServerThatNeverAnswersIsGivenUp) {
    server().freshDatabase();
    Server const impatient = changed(server().account(), [](Server& s) {
        s.connectTimeoutSeconds = 1;
        s.readTimeoutSeconds = 1;
    });
    Connection open(impatient, "fe_sender_history");
    server().freeze();
    DatabaseException const refused = refusedConnection(impatient, "fe_sender_history");
    std::string lost;
    try {
        open.run("SELECT 1", "test");
    } catch (DatabaseException const& failure) {
        EXPECT_TRUE(failure.connectionLost());
        lost = failure.asString();
    }
    server().thaw();
    EXPECT_TRUE(refused.connectionLost());
    EXPECT_THAT(lost, HasSubstr("statement: SELECT 1"));
}

TEST(Connection, TlsIsRequiredWhenTold) {
    // The server has no certificate, and the client library by itself would go on without TLS.
    Server const secure = changed(server().account(), [](Server& s) { s.tls = true; });
    DatabaseException const refused = refusedConnection(secure);
    EXPECT_TRUE(refused.connectionLost());
    EXPECT_THAT(refused.asString(), HasSubstr("does not offer TLS"));
}

// A server certificate that is its own authority.
void makeCertificate(std::string const& base, std::string const& address) {
    std::string const command = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 "
                                "-subj /CN=private -addext subjectAltName=IP:" +
                                address + " -keyout " + base + ".key -out " + base + ".crt 2>/dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0);
}

TEST(Connection, TlsChecksTheServersCertificate) {
    TemporaryDirectory const directory;
    std::string const good = directory.path() + "/good";
    std::string const other = directory.path() + "/other";
    makeCertificate(good, "127.0.0.1");
    makeCertificate(other, "127.0.0.1");
    PrivateMariaDb secured({"--ssl-cert=" + good + ".crt", "--ssl-key=" + good + ".key"});
    Server trusting = secured.account();
    server().useAccount();
    trusting.tls = true;
    EXPECT_NO_THROW(Connection(trusting, "")) << "any certificate";
    trusting.tlsCa = good + ".crt";
    EXPECT_NO_THROW(Connection(trusting, "")) << "the right authority";
    trusting.tlsCa = other + ".crt";
    EXPECT_TRUE(refusedConnection(trusting).connectionLost());
}

TEST(Connection, SelectIfExistsCountsLetterCase) {
    server().removeDatabases();
    InstalledServer const installed(server().admin());
    Connection connection(Connection::defaultAddress(), "");
    EXPECT_FALSE(connection.dbSelectIfExists("Example"));
    connection.dbCreate("example");
    EXPECT_FALSE(connection.dbSelectIfExists("Example"));
    EXPECT_TRUE(connection.dbSelectIfExists("example"));
    EXPECT_THROW(connection.dbCreate("example"), DatabaseException);
    connection.dbDelete("example");
    EXPECT_FALSE(connection.dbSelectIfExists("example"));
    EXPECT_THROW(connection.dbDelete("example"), DatabaseException);
}

TEST(Connection, DatabaseNameWithABacktickIsQuoted) {
    server().removeDatabases();
    InstalledServer const installed(server().admin());
    Connection connection(Connection::defaultAddress(), "");
    connection.dbCreate("odd`name; drop");
    EXPECT_TRUE(connection.dbSelectIfExists("odd`name; drop"));
    connection.dbDelete("odd`name; drop");
}

TEST(Connection, ImpossibleNamesAreRefused) {
    for (std::string const& name : {std::string(), std::string(65, 'a'), std::string("a\0b", 3), std::string("a "),
                                    std::string("a\n"), std::string("\xc3\xa9")}) {
        EXPECT_THROW(quotedIdentifier(name), DatabaseException) << name;
    }
    EXPECT_EQ(quotedIdentifier(std::string(64, 'a')), '`' + std::string(64, 'a') + '`');
}

TEST(Connection, SessionIsTheSameWhateverTheServerIsSetTo) {
    server().freshDatabase();
    server().run({"SET GLOBAL sql_mode='NO_BACKSLASH_ESCAPES,ANSI_QUOTES'", "SET GLOBAL autocommit=0",
                  "SET GLOBAL character_set_results='utf8mb4'"});
    Connection connection(Connection::defaultAddress(), "fe_sender_history");
    connection.run("CREATE TABLE probe (name varchar(100))", "test");
    connection.run("INSERT INTO probe SELECT @@session.sql_mode", "test");
    connection.run("INSERT INTO probe SELECT concat(@@autocommit, ' ', @@character_set_client, ' ', "
                   "@@character_set_connection, ' ', ifnull(@@character_set_results, 'null'))",
                   "test");
    connection.run("INSERT INTO probe VALUES (\"it\\'s\")", "test");
    server().run(
        {"SET GLOBAL sql_mode=DEFAULT", "SET GLOBAL autocommit=1", "SET GLOBAL character_set_results=DEFAULT"});
    EXPECT_THAT(server().query("SELECT * FROM probe"),
                ElementsAre("STRICT_ALL_TABLES,ERROR_FOR_DIVISION_BY_ZERO,NO_ENGINE_SUBSTITUTION",
                            "ON binary binary binary", "it's"));
}

TEST(Connection, LockWaitEndsBeforeTheReadTimeout) {
    server().freshDatabase();
    server().run({"CREATE TABLE t (a int)"}, "fe_sender_history");
    Connection holder(Connection::defaultAddress(), "fe_sender_history");
    holder.run("LOCK TABLES t WRITE", "test");
    Connection waiting(changed(server().account(), [](Server& s) { s.readTimeoutSeconds = 2; }), "fe_sender_history");
    try {
        waiting.run("LOCK TABLES t WRITE", "test");
        FAIL() << "two holders";
    } catch (DatabaseException const& failure) {
        EXPECT_EQ(failure.serverError(), unsigned(ER_LOCK_WAIT_TIMEOUT));
        EXPECT_FALSE(failure.connectionLost());
        EXPECT_FALSE(failure.serverIsAway());
        EXPECT_TRUE(failure.worthRetrying());
    }
    EXPECT_NO_THROW(waiting.run("SELECT 1", "test"));
}

TEST(Connection, InterruptFromAnotherThreadEndsASlowStatement) {
    server().freshDatabase();
    Connection connection(Connection::defaultAddress(), "fe_sender_history");
    std::thread other([&] {
        while (server().query(
                   "SELECT count(*) FROM information_schema.processlist WHERE info LIKE 'SELECT SLEEP%'")[0] == "0") {
        }
        connection.interrupt();
    });
    try {
        connection.run("SELECT SLEEP(600)", "test");
        ADD_FAILURE() << "slept";
    } catch (DatabaseException const& failure) {
        EXPECT_TRUE(failure.connectionLost());
    }
    other.join();
    EXPECT_THROW(connection.run("SELECT 1", "test"), DatabaseException);
}

TEST(Connection, ServerKilledBetweenStatementsIsNotReplacedSilently) {
    server().freshDatabase();
    Connection connection(Connection::defaultAddress(), "fe_sender_history");
    server().kill();
    server().start();
    try {
        connection.run("SELECT 1", "test");
        FAIL() << "reconnected";
    } catch (DatabaseException const& failure) {
        EXPECT_TRUE(failure.connectionLost());
    }
}

TEST(Connection, HandleSharesOneConnection) {
    server().freshDatabase();
    RefConnection const first(new Connection(Connection::defaultAddress(), "fe_sender_history"));
    RefConnection const second = first;
    second->enableMultipleStatementsPerQuery();
    EXPECT_TRUE(first->multipleStatementsPerQuery());
}

TEST(DatabaseException, LongStatementIsShortened) {
    EXPECT_EQ(shortenedStatement(std::string(200, 'x')), std::string(200, 'x'));
    EXPECT_EQ(shortenedStatement(std::string(201, 'x')), std::string(200, 'x') + "... (201 bytes)");
}

TEST(DatabaseException, OuterOperationKeepsTheNumber) {
    DatabaseException const inner("Query::execute", ER_NO_SUCH_TABLE, "no table");
    DatabaseException const outer = inner.within("QueryFile::execute", "/tmp/x");
    EXPECT_EQ(outer.asString(), "QueryFile::execute (code 4): /tmp/x: no table");
    EXPECT_EQ(outer.serverError(), unsigned(ER_NO_SUCH_TABLE));
    EXPECT_FALSE(outer.worthRetrying());
}

} // namespace
} // namespace Vellum::Database
