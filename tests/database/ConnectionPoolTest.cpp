#include "foundation/database/ConnectionPool.h"

#include "foundation/database/Query.h"
#include "tests/support/PrivateMariaDb.h"
#include "tests/support/UnreachableServer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

namespace Vellum::Database {
namespace {

class Pooling : public testing::Test {
  protected:
    Pooling() { m_server.freshDatabase(); }

    static SocketAddress address() { return Connection::defaultAddress(); }
    ConnectionPool& pool(unsigned int initialSize) {
        return m_pool.emplace(senderHistoryDatabase, "root", "", address(), initialSize);
    }
    // The server's number of a connection's session.
    static std::string numberOf(RefConnection const& connection) {
        struct One : RowParser {
            void parse(void* handle, void* result) override {
                value = db_result_get_value(handle, result, db_result_fetch_row(result, 0), 0);
            }
            std::string value;
        } one;
        Query query(*connection, &one, true);
        query << "select connection_id()";
        query.execute();
        return one.value;
    }

    // Ends a connection's session on the server, and waits until this end has heard of it.
    void end(RefConnection const& connection) {
        m_server.run({"kill " + numberOf(connection)});
        while (!connection->isAbandoned()) {
            std::this_thread::yield();
        }
    }
    // What a statement fails with.
    static unsigned int errorOf(RefConnection const& connection, std::string const& statement) {
        try {
            connection->run(statement, "test");
        } catch (DatabaseException const& failed) {
            return failed.serverError();
        }
        return 0;
    }

    PrivateMariaDb& m_server = PrivateMariaDb::shared();
    std::optional<ConnectionPool> m_pool;
};

TEST_F(Pooling, OpensItsFirstConnectionsAtOnce) {
    EXPECT_EQ(pool(3).size(), 3U);
    EXPECT_EQ(m_server.query("select count(*) from information_schema.PROCESSLIST where USER = 'vellum'"),
              std::vector<std::string>{"3"});
    EXPECT_EQ(ConnectionPool(senderHistoryDatabase, "root", "", address(), 0).size(), 0U);
}

TEST_F(Pooling, WithoutAServerThereIsNone) {
    UnreachableServer const away;
    EXPECT_THROW(pool(1), DatabaseException);
}

TEST_F(Pooling, HandsOutEachConnectionToOneCaller) {
    ConnectionPool& connections = pool(2);
    RefConnection first = connections.getConnection(false);
    RefConnection second = connections.getConnection(false);
    ASSERT_FALSE(first.isNull() || second.isNull());
    EXPECT_NE(numberOf(first), numberOf(second));
    EXPECT_TRUE(connections.getConnection(false).isNull()) << "all are taken";
    std::string const number = numberOf(second);
    connections.giveBack(second);
    EXPECT_TRUE(second.isNull());
    RefConnection const third = connections.getConnection(false);
    EXPECT_EQ(numberOf(third), number);
    EXPECT_EQ(connections.size(), 2U);
}

TEST_F(Pooling, GrowsByOneForItsCaller) {
    ConnectionPool& connections = pool(0);
    EXPECT_TRUE(connections.getConnection(false).isNull());
    RefConnection grown = connections.growPool();
    ASSERT_FALSE(grown.isNull());
    EXPECT_EQ(connections.size(), 1U);
    EXPECT_TRUE(connections.getConnection(false).isNull()) << "the caller has it";
    connections.giveBack(grown);
    EXPECT_FALSE(connections.getConnection(false).isNull());
}

TEST_F(Pooling, GrowthThatFailsLeavesItAsItWas) {
    ConnectionPool& connections = pool(1);
    {
        UnreachableServer const away;
        EXPECT_THROW(connections.growPool(), DatabaseException);
    }
    EXPECT_EQ(connections.size(), 1U);
    EXPECT_FALSE(connections.growPool().isNull());
    EXPECT_EQ(connections.size(), 2U);
}

TEST_F(Pooling, WaitsForAConnectionWhenItIsTold) {
    ConnectionPool& connections = pool(1);
    RefConnection taken = connections.getConnection(false);
    std::string const number = numberOf(taken);
    std::atomic<bool> begun{false};
    std::string waited;
    std::thread waiting([&] {
        begun = true;
        ConnectionPool::Lock lock(connections, true);
        waited = numberOf(lock.connection());
    });
    while (!begun) {
        std::this_thread::yield();
    }
    connections.giveBack(taken);
    waiting.join();
    EXPECT_EQ(waited, number);
}

TEST_F(Pooling, WaiterGetsThePlaceOfABrokenConnectionToo) {
    ConnectionPool& connections = pool(1);
    RefConnection taken = connections.getConnection(false);
    std::string waited;
    std::thread waiting([&] {
        ConnectionPool::Lock lock(connections, true);
        waited = numberOf(lock.connection());
    });
    std::string const number = numberOf(taken);
    connections.reset(taken);
    waiting.join();
    EXPECT_FALSE(waited.empty());
    EXPECT_NE(waited, number);
}

TEST_F(Pooling, LockHoldsOneForItsLifeOrNone) {
    ConnectionPool& connections = pool(1);
    {
        ConnectionPool::Lock lock(connections, false);
        EXPECT_TRUE(lock.connection().isNull());
        EXPECT_FALSE(connections.getConnection(false).isNull()) << "nothing was taken";
    }
    pool(1);
    {
        ConnectionPool::Lock lock(connections, false);
        EXPECT_TRUE(lock.hold(connections.getConnection(false)));
        EXPECT_TRUE(connections.getConnection(false).isNull());
        ConnectionPool::Lock other(connections, false);
        EXPECT_FALSE(other.hold(connections.getConnection(false)));
        lock.release();
        lock.release();
        EXPECT_TRUE(other.hold(connections.getConnection(false)));
    }
    EXPECT_FALSE(connections.getConnection(false).isNull()) << "given back at the end of the lock's life";
}

TEST_F(Pooling, LostSessionHasItAndAllThatWereOpenOpenedAgain) {
    ConnectionPool& connections = pool(3);
    std::vector<RefConnection> taken;
    std::vector<std::string> before;
    for (int n = 0; n < 3; ++n) {
        taken.push_back(connections.getConnection(false));
        before.push_back(numberOf(taken.back()));
    }
    connections.giveBack(taken[0]); // free when one of the others breaks
    end(taken[1]);
    connections.reset(taken[1]);
    EXPECT_TRUE(taken[1].isNull());
    connections.giveBack(taken[2]); // in use meanwhile
    EXPECT_EQ(connections.size(), 3U);
    std::vector<RefConnection> again;
    for (int n = 0; n < 3; ++n) {
        again.push_back(connections.getConnection(false));
        EXPECT_EQ(std::count(before.begin(), before.end(), numberOf(again.back())), 0);
    }
    EXPECT_TRUE(connections.getConnection(false).isNull());
    std::string const fresh = numberOf(again[0]);
    connections.giveBack(again[0]);
    EXPECT_EQ(numberOf(connections.getConnection(false)), fresh) << "what is fresh is kept";
}

TEST_F(Pooling, ConnectionsThatBreakTogetherAreOpenedOnceEach) {
    ConnectionPool& connections = pool(2);
    RefConnection first = connections.getConnection(false);
    RefConnection second = connections.getConnection(false);
    end(first);
    end(second);
    connections.reset(first);
    RefConnection fresh = connections.getConnection(false);
    std::string const number = numberOf(fresh);
    connections.giveBack(fresh);
    connections.reset(second); // of the same breakdown, only later
    RefConnection one = connections.getConnection(false);
    RefConnection other = connections.getConnection(false);
    EXPECT_TRUE(numberOf(one) == number || numberOf(other) == number);
}

TEST_F(Pooling, ErrorOfAStatementCostsThatConnectionAlone) {
    constexpr unsigned int noSuchTable = 1146;
    constexpr unsigned int parseError = 1064;
    for (auto const& [statement, expected] :
         {std::pair{"select * from nowhere", noSuchTable}, {"selec 1", parseError}}) {
        ConnectionPool& connections = pool(3);
        RefConnection failed = connections.getConnection(false);
        RefConnection used = connections.getConnection(false);
        RefConnection idle = connections.getConnection(false);
        std::string const usedNumber = numberOf(used);
        std::string const idleNumber = numberOf(idle);
        std::string const failedNumber = numberOf(failed);
        connections.giveBack(idle); // free meanwhile
        EXPECT_EQ(errorOf(failed, statement), expected);
        EXPECT_FALSE(failed->isLost());
        connections.reset(failed);
        EXPECT_TRUE(failed.isNull());
        connections.giveBack(used);
        std::vector<RefConnection> again;
        std::vector<std::string> numbers;
        for (int n = 0; n < 3; ++n) {
            again.push_back(connections.getConnection(false));
            numbers.push_back(numberOf(again.back()));
        }
        EXPECT_EQ(std::count(numbers.begin(), numbers.end(), usedNumber), 1) << statement;
        EXPECT_EQ(std::count(numbers.begin(), numbers.end(), idleNumber), 1) << statement;
        EXPECT_EQ(std::count(numbers.begin(), numbers.end(), failedNumber), 0) << statement;
        EXPECT_EQ(connections.size(), 3U);
    }
}

TEST_F(Pooling, NextCallerAfterAnErrorGetsAFreshConnection) {
    ConnectionPool& connections = pool(3);
    RefConnection failed = connections.getConnection(false);
    RefConnection other = connections.getConnection(false);
    std::vector<std::string> before{numberOf(failed), numberOf(other)};
    RefConnection third = connections.getConnection(false);
    before.push_back(numberOf(third));
    connections.giveBack(other);
    connections.giveBack(third);
    EXPECT_EQ(errorOf(failed, "select * from nowhere"), 1146U);
    connections.reset(failed);
    RefConnection const fresh = connections.getConnection(false);
    EXPECT_EQ(std::count(before.begin(), before.end(), numberOf(fresh)), 0);
}

TEST_F(Pooling, ErrorThatToldOfALostSessionHasAllOpenedAgain) {
    ConnectionPool& connections = pool(2);
    RefConnection failed = connections.getConnection(false);
    RefConnection idle = connections.getConnection(false);
    std::vector<std::string> const before{numberOf(failed), numberOf(idle)};
    connections.giveBack(idle);
    m_server.run({"kill " + before[0]});
    unsigned int error = 0;
    while (error == 0) { // the server ends it between two statements
        error = errorOf(failed, "do 1");
    }
    EXPECT_TRUE(DatabaseException("test", error, "").connectionLost()) << error;
    EXPECT_TRUE(failed->isLost());
    connections.reset(failed);
    for (int n = 0; n < 2; ++n) {
        RefConnection const again = connections.getConnection(false);
        EXPECT_EQ(std::count(before.begin(), before.end(), numberOf(again)), 0);
    }
}

TEST_F(Pooling, PlaceThatCannotBeOpenedIsFreeForTheNextTry) {
    ConnectionPool& connections = pool(1);
    RefConnection broken = connections.getConnection(false);
    connections.reset(broken);
    {
        UnreachableServer const away;
        EXPECT_THROW(connections.getConnection(false), DatabaseException);
        EXPECT_THROW(connections.getConnection(true), DatabaseException);
    }
    RefConnection const healed = connections.getConnection(false);
    ASSERT_FALSE(healed.isNull());
    EXPECT_FALSE(numberOf(healed).empty());
    EXPECT_EQ(connections.size(), 1U);
}

TEST_F(Pooling, ConnectionThatTheServerEndedMeanwhileIsOpenedAgainUnasked) {
    ConnectionPool& connections = pool(1);
    RefConnection taken = connections.getConnection(false);
    std::string const number = numberOf(taken);
    connections.giveBack(taken);
    m_server.run({"kill " + number});
    while (!m_server.query("select 1 from information_schema.PROCESSLIST where ID = " + number).empty()) {
        std::this_thread::yield();
    }
    RefConnection const again = connections.getConnection(false);
    EXPECT_NE(numberOf(again), number);
}

TEST_F(Pooling, ManyThreadsShareIt) {
    ConnectionPool& connections = pool(3);
    std::atomic<unsigned int> inside{0};
    std::atomic<unsigned int> most{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (int n = 0; n < 50; ++n) {
                ConnectionPool::Lock lock(connections, true);
                unsigned int const now = ++inside;
                unsigned int seen = most;
                while (now > seen && !most.compare_exchange_weak(seen, now)) {
                }
                numberOf(lock.connection());
                --inside;
                if ((n + t) % 10 == 0) {
                    connections.reset(lock.connection());
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_LE(most, 3U);
    EXPECT_EQ(connections.size(), 3U);
    for (int n = 0; n < 3; ++n) {
        EXPECT_FALSE(connections.getConnection(false).isNull()) << "no place was lost";
    }
}

} // namespace
} // namespace Vellum::Database
