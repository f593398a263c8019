#include "mmsreputation/MMSRadius.h"

#include "tests/radius/AccountingTables.h"
#include "tests/support/OwnProcess.h"
#include "tests/support/UnreachableServer.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

namespace Vellum::MMSReputation {
namespace {

class Radius : public AccountingTables {
  protected:
    static std::string found(RadiusDatabase& database, std::string const& address) {
        return database.find(IPAddress(address)).asString();
    }
    // The server forgets a connection a moment after it was closed. Waits at most half a minute, which only a
    // test that fails does.
    void awaitConnections(std::size_t expected) {
        auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (connections().size() != expected && std::chrono::steady_clock::now() < end) {
            std::this_thread::yield();
        }
        EXPECT_EQ(connections().size(), expected);
    }
};

TEST_F(Radius, FindsTheSubscriberOfAnAddress) {
    session("15550001", "framedipaddress='192.0.2.1'");
    session("+15550002", "framedipv6prefix='2001:db8::/64'");
    session("no number", "framedipaddress='192.0.2.3'");
    RadiusDatabase database;
    EXPECT_EQ(found(database, "192.0.2.1"), "15550001");
    EXPECT_EQ(found(database, "2001:db8::9"), "+15550002");
    EXPECT_TRUE(database.find(IPAddress("192.0.2.2")).isNull());
    EXPECT_TRUE(database.find(IPAddress("192.0.2.3")).isNull());
    EXPECT_TRUE(m_log.lines().empty());
    EXPECT_EQ(database.pooled(), 3U);
    EXPECT_EQ(connections().size(), 3U) << "one lookup after the other needs no more";
}

TEST_F(Radius, NullAddressTouchesNothing) {
    RadiusDatabase database(
        [](Database::Connection&, IPAddress const&) -> std::string { throw std::logic_error("somebody asked"); });
    m_server.stop();
    EXPECT_TRUE(database.find(IPAddress()).isNull());
    m_server.start();
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(Radius, DatabaseErrorIsAnEmptyAnswerOneRecordAndAFreshConnectionForTheNext) {
    session("15550001", "framedipaddress='192.0.2.1'");
    RadiusDatabase database;
    auto const before = connections();
    m_server.run({"rename table radacct to hidden"}, "msisdn");
    EXPECT_TRUE(database.find(IPAddress("192.0.2.1")).isNull());
    m_server.run({"rename table hidden to radacct"}, "msisdn");
    auto const lines = m_log.lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].code, 0x3000169U);
    EXPECT_EQ(lines[0].level, 0);
    EXPECT_EQ(lines[0].format, "%s");
    std::string const expected =
        "Query::execute (code 4): error 1146 from vellum@127.0.0.1:" + std::to_string(m_server.port()) +
        ": Table 'msisdn.radacct' doesn't exist; statement: SELECT callingstationid FROM";
    EXPECT_EQ(lines[0].text.substr(0, expected.size()), expected);
    EXPECT_EQ(found(database, "192.0.2.1"), "15550001");
    EXPECT_EQ(database.pooled(), 3U);
    EXPECT_EQ(m_log.lines().size(), 1U);
    awaitConnections(3);
    auto const after = connections();
    auto const isOld = [&](std::string const& number) {
        return std::count(before.begin(), before.end(), number) != 0;
    };
    EXPECT_EQ(std::count_if(after.begin(), after.end(), isOld), 2) << "the two that did not fail are kept";
}

TEST_F(Radius, WhoTellsTroubleInHisOwnWayGetsItThrownAndNothingIsLogged) {
    session("15550001", "framedipaddress='192.0.2.1'");
    RadiusDatabase database;
    EXPECT_EQ(database.findOrThrow(IPAddress("192.0.2.1")).asString(), "15550001");
    EXPECT_TRUE(database.findOrThrow(IPAddress("192.0.2.2")).isNull());
    EXPECT_TRUE(database.findOrThrow(IPAddress()).isNull());
    m_server.run({"rename table radacct to hidden"}, "msisdn");
    EXPECT_THROW(database.findOrThrow(IPAddress("192.0.2.1")), Database::DatabaseException);
    m_server.run({"rename table hidden to radacct"}, "msisdn");
    EXPECT_EQ(database.findOrThrow(IPAddress("192.0.2.1")).asString(), "15550001");
    EXPECT_EQ(database.pooled(), 3U);
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(Radius, HealsAfterTheServerWasKilled) {
    session("15550001", "framedipaddress='192.0.2.1'");
    RadiusDatabase database;
    EXPECT_EQ(found(database, "192.0.2.1"), "15550001");
    m_server.kill();
    for (int n = 0; n < 5; ++n) {
        m_log.clear();
        EXPECT_TRUE(database.find(IPAddress("192.0.2.1")).isNull());
        ASSERT_EQ(m_log.lines().size(), 1U);
        EXPECT_EQ(m_log.lines()[0].code, 0x3000169U);
    }
    m_server.start();
    m_log.clear();
    for (int n = 0; n < 5; ++n) {
        EXPECT_EQ(found(database, "192.0.2.1"), "15550001");
    }
    EXPECT_TRUE(m_log.lines().empty());
    EXPECT_EQ(database.pooled(), 3U);
}

TEST_F(Radius, SessionsThatTheServerEndedWhileNobodyAskedCostNoLookup) {
    session("15550001", "framedipaddress='192.0.2.1'");
    RadiusDatabase database;
    m_server.kill();
    m_server.start();
    EXPECT_EQ(found(database, "192.0.2.1"), "15550001");
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(Radius, ServerThatDiesDuringALookupIsAnEmptyAnswerAndHeals) {
    session("15550001", "framedipaddress='192.0.2.1'");
    RadiusDatabase database([&](Database::Connection& connection, IPAddress const& address) {
        if (address == IPAddress("192.0.2.9")) {
            m_server.kill();
        }
        return msisdn::database::getMSISDN(connection, address);
    });
    EXPECT_TRUE(database.find(IPAddress("192.0.2.9")).isNull());
    EXPECT_EQ(m_log.records(0x3000169).size(), 1U);
    m_server.start();
    EXPECT_EQ(found(database, "192.0.2.1"), "15550001");
    EXPECT_EQ(m_log.lines().size(), 1U);
}

TEST_F(Radius, OtherExceptionsAreWrappedAndTheConnectionIsKept) {
    bool fails = true;
    RadiusDatabase database([&](Database::Connection&, IPAddress const&) -> std::string {
        if (fails) {
            throw Exception("inner", Exception::failure).stringParameter("why");
        }
        return "15550001";
    });
    auto const before = connections();
    for (int n = 0; n < 5; ++n) { // more than there are connections
        try {
            database.find(IPAddress("192.0.2.1"));
            ADD_FAILURE() << "no exception";
        } catch (Exception const& wrapped) {
            EXPECT_EQ(wrapped.asString(), "RadiusDatabase::find (code 4, MMSRadius:90); caused by inner (code 4): why");
        }
    }
    fails = false;
    EXPECT_EQ(found(database, "192.0.2.1"), "15550001");
    EXPECT_EQ(connections(), before);
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(Radius, AnythingElsePassesThroughUnchanged) {
    RadiusDatabase database([](Database::Connection&, IPAddress const&) -> std::string { throw std::bad_alloc(); });
    for (int n = 0; n < 5; ++n) {
        EXPECT_THROW(database.find(IPAddress("192.0.2.1")), std::bad_alloc);
    }
    EXPECT_EQ(database.pooled(), 3U);
}

TEST(RadiusDeathTest, InstanceThrowsWhileTheServerIsAwayAndIsMadeByALaterCall) {
    expectInOwnProcess([] {
        CapturingLogger const log;
        PrivateMariaDb server;
        server.run({"create database msisdn"});
        {
            UnreachableServer const away;
            EXPECT_THROW(RadiusDatabase::instance(), Database::DatabaseException);
            std::thread([] { EXPECT_THROW(RadiusDatabase::instance(), Database::DatabaseException); }).join();
        }
        std::vector<RadiusDatabase*> seen(8);
        std::vector<std::thread> threads;
        for (RadiusDatabase*& mine : seen) {
            threads.emplace_back([&mine] { mine = RadiusDatabase::instance(); });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_NE(seen.front(), nullptr);
        EXPECT_EQ(seen, std::vector<RadiusDatabase*>(8, seen.front()));
        EXPECT_EQ(server.query("select count(*) from information_schema.PROCESSLIST where DB = 'msisdn'", ""),
                  std::vector<std::string>{"3"});
    });
}

// Lookups that wait in their query until the test lets them go.
class Gate {
  public:
    // As a query: the address's last number is the subscriber.
    std::string pass(IPAddress const& address) {
        unsigned int const n = numberOf(address);
        std::unique_lock hold(m_lock);
        m_inside.insert(n);
        m_most = std::max(m_most, m_inside.size());
        m_changed.notify_all();
        m_changed.wait(hold, [&] { return m_open || m_let.contains(n); });
        m_inside.erase(n);
        m_changed.notify_all();
        return std::to_string(1000 + n);
    }
    void let(unsigned int n) {
        std::lock_guard const hold(m_lock);
        m_let.insert(n);
        m_changed.notify_all();
    }
    void open() {
        std::lock_guard const hold(m_lock);
        m_open = true;
        m_changed.notify_all();
    }
    void shut() {
        std::lock_guard const hold(m_lock);
        m_open = false;
        m_let.clear();
        m_most = 0;
    }
    // Waits until so many are inside.
    std::set<unsigned int> inside(std::size_t count) {
        std::unique_lock hold(m_lock);
        EXPECT_TRUE(m_changed.wait_for(hold, CapturingLogger::patience, [&] { return m_inside.size() == count; }))
            << m_inside.size() << " are inside, expected " << count;
        return m_inside;
    }
    void awaitInside(unsigned int n) {
        std::unique_lock hold(m_lock);
        EXPECT_TRUE(m_changed.wait_for(hold, CapturingLogger::patience, [&] { return m_inside.contains(n); })) << n;
    }
    std::size_t most() {
        std::lock_guard const hold(m_lock);
        return m_most;
    }

    static IPAddress address(unsigned int n) { return IPAddress("192.0.2." + std::to_string(n)); }
    static unsigned int numberOf(IPAddress const& address) { return address.bytes()[3]; }

  private:
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::set<unsigned int> m_inside;
    std::set<unsigned int> m_let;
    bool m_open = false;
    std::size_t m_most = 0;
};

class RadiusPool : public Radius {
  protected:
    ~RadiusPool() override {
        m_gate.open();
        join();
    }
    void SetUp() override {
        Radius::SetUp();
        if (!IsSkipped()) {
            m_database.emplace(
                [this](Database::Connection&, IPAddress const& address) { return m_gate.pass(address); });
        }
    }
    // Begins lookups of `first`, `first` + 1, ...
    void begin(unsigned int first, unsigned int count) {
        for (unsigned int n = first; n < first + count; ++n) {
            m_threads.emplace_back([this, n] {
                ++m_begun;
                m_wrong += m_database->find(Gate::address(n)).asString() == std::to_string(1000 + n) ? 0 : 1;
                ++m_done;
            });
        }
    }
    void join() {
        for (std::thread& thread : m_threads) {
            thread.join();
        }
        m_threads.clear();
    }
    // Waits until all lookups but so many are done.
    void awaitDone(unsigned int running) const {
        auto const end = std::chrono::steady_clock::now() + CapturingLogger::patience;
        while (m_done + running < m_threads.size() && std::chrono::steady_clock::now() < end) {
            std::this_thread::yield();
        }
        EXPECT_EQ(m_done + running, m_threads.size());
    }
    // Lets the pool grow to its most: one lookup more than it has connections, again and again.
    void growToTheMost() {
        begin(1, 3);
        for (unsigned int size = 3; size < 15; ++size) {
            m_gate.inside(size);
            begin(100 + size, 1); // grows it, and leaves the connection
            m_gate.inside(size + 1);
            m_gate.let(100 + size);
            awaitDone(size);
            begin(size + 1, 1); // takes that
        }
        m_gate.inside(15);
        m_gate.open();
        join();
        m_done = 0;
        m_gate.shut();
        ASSERT_EQ(m_database->pooled(), 15U);
    }

    Gate m_gate;
    std::optional<RadiusDatabase> m_database;
    std::vector<std::thread> m_threads;
    std::atomic<unsigned int> m_begun{0};
    std::atomic<unsigned int> m_done{0};
    std::atomic<unsigned int> m_wrong{0};
};

TEST_F(RadiusPool, ThreeAtOnceNeedNoMore) {
    begin(1, 3);
    m_gate.inside(3);
    m_gate.open();
    join();
    EXPECT_EQ(m_database->pooled(), 3U);
    EXPECT_EQ(m_wrong, 0U);
}

TEST_F(RadiusPool, OneLookupGrowsItByOneAndTheOthersWaitForThat) {
    begin(1, 3);
    m_gate.inside(3);
    begin(4, 20);
    m_gate.inside(4);
    while (m_begun < 23) {
        std::this_thread::yield();
    }
    EXPECT_EQ(m_database->pooled(), 4U);
    EXPECT_EQ(connections().size(), 4U);
    EXPECT_EQ(m_gate.most(), 4U);
    m_gate.open();
    join();
    EXPECT_LE(m_database->pooled(), 15U);
    awaitConnections(m_database->pooled());
    EXPECT_EQ(m_wrong, 0U);
}

TEST_F(RadiusPool, NeverExceedsFifteen) {
    growToTheMost();
    begin(1, 60);
    m_gate.inside(55);
    EXPECT_EQ(m_database->pooled(), 15U);
    EXPECT_EQ(connections().size(), 55U);
    m_gate.open();
    join();
    EXPECT_EQ(m_database->pooled(), 15U);
    EXPECT_EQ(m_gate.most(), 55U);
    EXPECT_EQ(m_wrong, 0U);
}

TEST_F(RadiusPool, PrivateConnectionsAreClosedAfterTheirLookup) {
    growToTheMost();
    begin(1, 20);
    m_gate.inside(20);
    EXPECT_EQ(connections().size(), 20U);
    m_gate.open();
    join();
    for (auto const end = std::chrono::steady_clock::now() + CapturingLogger::patience;
         connections().size() != 15 && std::chrono::steady_clock::now() < end;) {
    }
    EXPECT_EQ(connections().size(), 15U);
}

TEST_F(RadiusPool, FortyFirstPrivateConnectionWaitsForOneOfTheForty) {
    growToTheMost();
    begin(1, 15);
    m_gate.inside(15);
    begin(16, 41);
    auto const inside = m_gate.inside(55);
    unsigned int waiting = 0;
    for (unsigned int n = 16; n < 16 + 41; ++n) {
        waiting = inside.contains(n) ? waiting : n;
    }
    ASSERT_NE(waiting, 0U);
    EXPECT_EQ(connections().size(), 55U);
    m_gate.let(waiting == 16 ? 17 : 16); // one of the private ones ends
    m_gate.awaitInside(waiting);
    EXPECT_EQ(m_gate.most(), 55U);
    m_gate.open();
    join();
    EXPECT_EQ(m_wrong, 0U);
}

TEST_F(RadiusPool, FailureOfAPrivateConnectionGivesItsPermitBack) {
    growToTheMost();
    begin(1, 15);
    m_gate.inside(15);
    std::atomic<unsigned int> empty{0};
    {
        UnreachableServer const away;
        std::vector<std::thread> threads;
        for (int n = 0; n < 50; ++n) {
            threads.emplace_back([&] { empty += m_database->find(Gate::address(200)).isNull() ? 1 : 0; });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    EXPECT_EQ(empty, 50U);
    EXPECT_EQ(m_log.records(0x3000169).size(), 50U);
    begin(16, 40);
    m_gate.inside(55);
    m_gate.open();
    join();
    EXPECT_EQ(m_wrong, 0U);
}

TEST_F(RadiusPool, GrowthThatFailsIsAnEmptyAnswerAndLeavesThePoolAsItWas) {
    begin(1, 3);
    m_gate.inside(3);
    {
        UnreachableServer const away;
        EXPECT_TRUE(m_database->find(Gate::address(4)).isNull());
    }
    EXPECT_EQ(m_log.records(0x3000169).size(), 1U);
    EXPECT_EQ(m_database->pooled(), 3U);
    begin(5, 1);
    m_gate.inside(4);
    EXPECT_EQ(m_database->pooled(), 4U);
}

} // namespace
} // namespace Vellum::MMSReputation
