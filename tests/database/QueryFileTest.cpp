#include "foundation/database/QueryFile.h"

#include "../support/PrivateMariaDb.h"
#include "../support/TemporaryDirectory.h"
#include "foundation/database/Query.h"

#include <algorithm>
#include <csignal>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mysqld_error.h>
#include <optional>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Vellum::Database {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using Rows = std::vector<std::string>;

PrivateMariaDb& server() {
    return PrivateMariaDb::shared();
}

// A backup's script in small, statement by statement.
std::vector<std::string> const backup = {
    "LOCK TABLES grey_list WRITE,autoexempt WRITE;\n",
    "delete from grey_list;\n",
    "INSERT INTO grey_list VALUES\n('192.0.2.0/24', 'new;1'),\n('192.0.2.1/32', 'it\\'s')",
    ";\ncommit;\n",
    "INSERT INTO grey_list VALUES\n('192.0.2.2/32', 'new 3')",
    ";\n",
    "delete from autoexempt;\n",
    "INSERT INTO autoexempt VALUES\n('new.example')",
    ";\n",
    ";\ncommit;\n",
    "UNLOCK TABLES;\n",
};

std::string joined(std::vector<std::string> const& parts) {
    std::string all;
    for (std::string const& part : parts) {
        all += part;
    }
    return all;
}

Rows const oldTuples = {"192.0.2.9/32|old"};
Rows const oldExemptions = {"a.example", "b.example"};
Rows const newTuples = {"192.0.2.0/24|new;1", "192.0.2.1/32|it's", "192.0.2.2/32|new 3"};
Rows const newExemptions = {"new.example"};

class QueryFileTest : public testing::Test {
  protected:
    void SetUp() override {
        server().freshDatabase();
        server().run({"create table grey_list (a varchar(128) not null, b varchar(128) not null, primary key (a, b)) "
                      "engine=InnoDB",
                      "create table autoexempt (a varchar(128) not null, primary key (a)) engine=InnoDB",
                      "insert into grey_list values ('192.0.2.9/32', 'old')",
                      "insert into autoexempt values ('a.example'), ('b.example')"},
                     "fe_sender_history");
    }

    Connection& connection() {
        if (m_connection == nullptr) {
            m_connection = std::make_unique<Connection>(Connection::defaultAddress(), "fe_sender_history");
            m_connection->enableMultipleStatementsPerQuery();
        }
        return *m_connection;
    }
    void reconnect() { m_connection.reset(); }

    std::string write(std::string const& script) const {
        std::ofstream(m_directory.path() + "/script.sql", std::ios::binary | std::ios::trunc) << script;
        return m_directory.path() + "/script.sql";
    }
    void run(std::string const& script) { QueryFile(connection(), write(script)).execute(); }
    // What the script is refused with; nothing when it ran.
    std::optional<DatabaseException> refusal(std::string const& script) {
        try {
            run(script);
        } catch (DatabaseException const& refused) {
            return refused;
        }
        return std::nullopt;
    }
    std::string refusalText(std::string const& script) {
        auto const refused = refusal(script);
        return refused.has_value() ? refused->asString() : "ran";
    }

    static Rows tuples() { return server().query("select * from grey_list order by a, b"); }
    static Rows exemptions() { return server().query("select * from autoexempt order by a"); }
    static void expectOldRows(std::string const& after) {
        EXPECT_EQ(tuples(), oldTuples) << after;
        EXPECT_EQ(exemptions(), oldExemptions) << after;
    }
    static void expectNewRows() {
        EXPECT_EQ(tuples(), newTuples);
        EXPECT_EQ(exemptions(), newExemptions);
    }
    // Nothing is locked for others, and a statement is a transaction again.
    void expectSessionAsBefore() {
        server().run({"LOCK TABLES grey_list WRITE, autoexempt WRITE"}, "fe_sender_history");
        Query query(connection(), nullptr, true);
        query << "insert into autoexempt values ('z.example'); select * from grey_list";
        query.execute();
        EXPECT_EQ(exemptions().back(), "z.example");
        server().run({"delete from autoexempt where a = 'z.example'"}, "fe_sender_history");
    }

    TemporaryDirectory m_directory;

  private:
    std::unique_ptr<Connection> m_connection;
};

TEST_F(QueryFileTest, BackupReplacesTheTables) {
    QueryFile file(connection(), write(joined(backup)));
    file.execute();
    expectNewRows();
    EXPECT_EQ(file.statements(), 9U);
    EXPECT_EQ(file.affectedRows(), 7U) << "1 + 2 deleted, 4 inserted";
    expectSessionAsBefore();
}

TEST_F(QueryFileTest, BackupOfTwoEmptyCachesEmptiesBothTables) {
    run("LOCK TABLES grey_list WRITE,autoexempt WRITE;\ndelete from grey_list;\ndelete from autoexempt;\n;\ncommit;\n"
        "UNLOCK TABLES;\n");
    EXPECT_THAT(tuples(), IsEmpty());
    EXPECT_THAT(exemptions(), IsEmpty());
    expectSessionAsBefore();
}

TEST_F(QueryFileTest, UnlockAloneCommits) {
    run("LOCK TABLES grey_list WRITE;\ndelete from grey_list;\n\nUNLOCK TABLES;\n");
    EXPECT_THAT(tuples(), IsEmpty());
}

TEST_F(QueryFileTest, ScriptWithoutLocksEndsWithCommit) {
    run("set autocommit=0; start transaction; delete from grey_list; commit; delete from autoexempt; commit");
    EXPECT_THAT(tuples(), IsEmpty());
    EXPECT_THAT(exemptions(), IsEmpty());
}

TEST_F(QueryFileTest, TablesMayBeCreatedBeforeTheFirstChange) {
    run("create table extra (a int) engine=InnoDB; insert into extra values (1); commit;");
    EXPECT_THAT(server().query("select * from extra"), ElementsAre("1"));
}

TEST_F(QueryFileTest, FailureAtAnyStatementChangesNothing) {
    for (std::size_t position = 1; position <= backup.size(); ++position) {
        std::vector<std::string> script = backup;
        script.insert(script.begin() + static_cast<long>(position), ";INSERT INTO grey_list VALUES(1);\n");
        auto const refused = refusal(joined(script));
        ASSERT_TRUE(refused.has_value()) << position;
        if (position < backup.size()) {
            EXPECT_EQ(refused->serverError(), unsigned(ER_WRONG_VALUE_COUNT_ON_ROW)) << refused->asString();
        }
        expectOldRows(refused->asString());
    }
    expectSessionAsBefore();
}

TEST_F(QueryFileTest, DuplicateKeyInTheLastBatchChangesNothing) {
    std::vector<std::string> script = backup;
    script[7] = "INSERT INTO autoexempt VALUES\n('new.example'),\n('new.example')";
    EXPECT_EQ(refusal(joined(script)).value().serverError(), unsigned(ER_DUP_ENTRY));
    expectOldRows("duplicate");
}

TEST_F(QueryFileTest, ScriptCutAnywhereChangesNothing) {
    std::string const whole = joined(backup);
    std::size_t const complete = whole.size() - 3; // "UNLOCK TABLE" says all that is to be said
    for (std::size_t length = 0; length < complete; ++length) {
        std::string const text = refusalText(whole.substr(0, length));
        EXPECT_NE(text, "ran") << length;
        if (tuples() != oldTuples || exemptions() != oldExemptions) {
            FAIL() << "cut after " << length << " bytes: " << text;
        }
    }
    expectSessionAsBefore();
    run(whole.substr(0, complete));
    expectNewRows();
}

TEST_F(QueryFileTest, ErrorNamesFileStatementLineAndReason) {
    std::vector<std::string> script = backup;
    script[4] = "INSERT INTO grey_list VALUES\n('only one')";
    EXPECT_EQ(refusalText(joined(script)),
              "QueryFile::execute (code 4): " + m_directory.path() +
                  "/script.sql: rolled back: statement 5 (line 7): error 1136 from vellum@127.0.0.1:" +
                  std::to_string(server().port()) +
                  ": Column count doesn't match value count at row 1; statement: "
                  "INSERT INTO grey_list VALUES\\n('only one')");
}

TEST_F(QueryFileTest, WhatCouldEndTheTransactionIsRefused) {
    for (char const* const unfit :
         {"drop table autoexempt", "truncate grey_list", "alter table grey_list add c int",
          "rename table grey_list to x", "create or replace table grey_list (a int)", "rollback", "set autocommit=1",
          "set names utf8mb4", "set sql_mode='NO_BACKSLASH_ESCAPES'", "set @a=1", "commit and chain", "call p()",
          "use mysql", "flush tables", "/*!40101 insert into grey_list values ('a', 'b') */",
          "analyze table grey_list"}) {
        EXPECT_THAT(refusalText(std::string(unfit) + ";commit;"), HasSubstr("statement 1 (line 1): is not allowed"));
        EXPECT_THAT(refusalText("delete from grey_list;\ndelete from autoexempt;\n" + std::string(unfit) + ";commit;"),
                    HasSubstr("statement 3 (line 3): is not allowed"))
            << unfit;
        expectOldRows(unfit);
    }
}

TEST_F(QueryFileTest, WhatWouldCommitEarlyIsRefusedAfterAChange) {
    for (char const* const early : {"LOCK TABLES grey_list WRITE", "create table extra (a int)", "begin",
                                    "start transaction", "set autocommit=0", "create database extra"}) {
        EXPECT_THAT(refusalText("delete from grey_list; commit; " + std::string(early) + "; commit; unlock tables;"),
                    HasSubstr("statement 3 (line 1): stands after a change"))
            << early;
        expectOldRows(early);
    }
}

TEST_F(QueryFileTest, NothingFollowsUnlock) {
    EXPECT_THAT(refusalText(joined(backup) + "delete from grey_list; commit;"),
                HasSubstr("stands after UNLOCK TABLES, which ends a script"));
    expectOldRows("statement after unlock");
    EXPECT_EQ(refusalText(joined(backup) + "commit;unlock tables;\n"), "ran");
}

TEST_F(QueryFileTest, CutOffScriptsSayWhatIsMissing) {
    EXPECT_THAT(refusalText(""), HasSubstr("holds no statement"));
    EXPECT_THAT(refusalText(";\n-- nothing\n;"), HasSubstr("holds no statement"));
    EXPECT_THAT(refusalText("delete from grey_list;"), HasSubstr("does not end with COMMIT"));
    EXPECT_THAT(refusalText("lock tables grey_list write; delete from grey_list; commit;"),
                HasSubstr("does not end with UNLOCK TABLES"));
    expectOldRows("cut off");
}

TEST_F(QueryFileTest, UnusableFilesAreNamed) {
    std::string const missing = m_directory.path() + "/missing";
    std::string const fifo = m_directory.path() + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (auto const& [path, reason] :
         {std::pair{missing, "cannot be opened: No such file"}, std::pair{m_directory.path(), "is not a regular file"},
          std::pair{fifo, "is not a regular file"}}) {
        try {
            QueryFile(connection(), path).execute();
            ADD_FAILURE() << path;
        } catch (DatabaseException const& refused) {
            EXPECT_THAT(refused.asString(), HasSubstr(path + ": " + reason));
            EXPECT_FALSE(refused.worthRetrying());
        }
    }
    expectSessionAsBefore();
}

TEST_F(QueryFileTest, FileThatCannotBeReadNowIsWorthRetrying) {
    std::string const path = "/proc/self/mem"; // a regular file whose first byte nobody can read
    try {
        QueryFile(connection(), path).execute();
        FAIL() << "was read";
    } catch (DatabaseException const& failed) {
        EXPECT_THAT(failed.message(), HasSubstr("cannot be read: Input/output error"));
        EXPECT_TRUE(failed.worthRetrying());
        EXPECT_FALSE(failed.connectionLost());
    }
}

TEST_F(QueryFileTest, StatementBeyondTheServersPacketIsRefusedAndCostsNoConnection) {
    server().run({"SET GLOBAL max_allowed_packet=1048576"});
    reconnect();
    std::string const head = "INSERT INTO autoexempt VALUES('";
    std::string const fits = std::string(1048574 - head.size() - 2, 'x');
    EXPECT_EQ(refusal(head + fits + "');commit;").value().serverError(), unsigned(ER_DATA_TOO_LONG));
    auto const refused = refusal("delete from grey_list;" + head + fits + "x');commit;");
    EXPECT_THAT(refused.value().asString(), HasSubstr("is longer than 1048574 bytes"));
    EXPECT_FALSE(refused.value().worthRetrying());
    expectOldRows("packet");
    expectSessionAsBefore();
    server().run({"SET GLOBAL max_allowed_packet=DEFAULT"});
}

TEST_F(QueryFileTest, TableWithoutTransactionsIsSaid) {
    server().run({"create table loose (a int) engine=MyISAM"}, "fe_sender_history");
    EXPECT_THAT(refusalText("delete from grey_list; insert into loose values (1); nonsense;"),
                HasSubstr("rolled back, but a table without transactions keeps its changes: statement 3"));
    expectOldRows("mixed engines");
}

TEST_F(QueryFileTest, LockedTableIsWorthRetrying) {
    Connection holder(Connection::defaultAddress(), "fe_sender_history");
    holder.run("LOCK TABLES autoexempt READ", "test");
    Server impatient = server().account();
    impatient.readTimeoutSeconds = 2;
    Connection waiting(impatient, "fe_sender_history");
    try {
        QueryFile(waiting, write(joined(backup))).execute();
        FAIL() << "ran";
    } catch (DatabaseException const& refused) {
        EXPECT_TRUE(refused.worthRetrying());
        EXPECT_FALSE(refused.connectionLost());
    }
    holder.run("UNLOCK TABLES", "test");
    QueryFile(waiting, m_directory.path() + "/script.sql").execute();
    expectNewRows();
}

TEST_F(QueryFileTest, ProgressGoesUpToTheFilesSize) {
    std::string const script = joined(backup);
    std::vector<std::uint64_t> steps;
    QueryFile file(connection(), write(script));
    file.onProgress([&](std::uint64_t done, std::uint64_t total) {
        EXPECT_EQ(total, script.size());
        steps.push_back(done);
        return true;
    });
    file.execute();
    EXPECT_EQ(steps.size(), 9U);
    EXPECT_TRUE(std::is_sorted(steps.begin(), steps.end()));
    EXPECT_EQ(steps.back(), script.size());
}

TEST_F(QueryFileTest, AbandonedScriptChangesNothing) {
    for (int last = 1; last <= 9; ++last) {
        QueryFile file(connection(), write(joined(backup)));
        int seen = 0;
        file.onProgress([&](std::uint64_t, std::uint64_t) { return ++seen < last; });
        EXPECT_THROW(file.execute(), DatabaseException);
        expectOldRows("abandoned");
    }
    expectSessionAsBefore();
}

TEST_F(QueryFileTest, ForeignExceptionOfTheCallbackRollsBackToo) {
    QueryFile file(connection(), write(joined(backup)));
    file.onProgress([&](std::uint64_t done, std::uint64_t) -> bool {
        if (file.statements() == 7) {
            throw std::runtime_error(std::to_string(done));
        }
        return true;
    });
    EXPECT_THROW(file.execute(), std::runtime_error);
    expectOldRows("foreign exception");
    expectSessionAsBefore();
}

TEST_F(QueryFileTest, ClientKilledAfterAnyStatementChangesNothing) {
    std::string const path = write(joined(backup));
    for (int last = 1; last <= 9; ++last) {
        pid_t const child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            try {
                Connection own(Connection::defaultAddress(), "fe_sender_history");
                QueryFile file(own, path);
                int seen = 0;
                file.onProgress([&](std::uint64_t, std::uint64_t) {
                    if (++seen == last) {
                        raise(SIGKILL);
                    }
                    return true;
                });
                file.execute();
            } catch (...) {
            }
            _exit(1);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the client was not killed after statement " << last;
        expectOldRows("killed client");
    }
    run(joined(backup));
    expectNewRows();
}

TEST_F(QueryFileTest, ServerKilledAfterAnyStatementChangesNothing) {
    for (int last = 1; last <= 9; last += 2) {
        reconnect();
        QueryFile file(connection(), write(joined(backup)));
        int seen = 0;
        file.onProgress([&](std::uint64_t, std::uint64_t) {
            if (++seen == last) {
                server().kill();
            }
            return true;
        });
        try {
            file.execute();
            ADD_FAILURE() << "ran without a server";
        } catch (DatabaseException const& failure) {
            EXPECT_TRUE(failure.connectionLost()) << failure.asString();
        }
        server().start();
        expectOldRows("killed server");
    }
}

TEST_F(QueryFileTest, CommitWithoutAnAnswerIsToldAsUnknown) {
    QueryFile file(connection(), write(joined(backup)));
    file.onProgress([&](std::uint64_t, std::uint64_t) {
        if (file.statements() == 9) {
            connection().interrupt();
        }
        return true;
    });
    try {
        file.execute();
        FAIL() << "ran";
    } catch (DatabaseException const& failure) {
        EXPECT_TRUE(failure.worthRetrying());
        EXPECT_THAT(failure.asString(), HasSubstr("connection lost in the final COMMIT, all is done or nothing"));
    }
}

} // namespace
} // namespace Vellum::Database
