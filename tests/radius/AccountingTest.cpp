// Sessions as a mobile network reports them: radclient to a FreeRADIUS server, its tables, and lookups from many
// threads.
#include "mmsreputation/MMSRadius.h"
#include "tests/radius/AccountingTables.h"
#include "tests/radius/PrivateRadius.h"

#include <array>
#include <atomic>
#include <ctime>
#include <optional>
#include <thread>

namespace Vellum::MMSReputation {
namespace {

constexpr char const* gateway = "192.0.2.250";
constexpr char const* otherGateway = "192.0.2.251";

// One session of a subscriber.
struct Session {
    std::string number;
    std::string holds; // attribute and address
    std::string id;
    std::string nas = gateway;

    std::vector<std::string> request(std::string const& type, long when = std::time(nullptr)) const {
        return {"Acct-Status-Type = " + type,     "Acct-Session-Id = \"" + id + "\"",
                "User-Name = \"" + number + "\"", "Calling-Station-Id = \"" + number + "\"",
                "NAS-IP-Address = " + nas,        "Event-Timestamp = " + std::to_string(when),
                "Acct-Session-Time = 0",          holds};
    }
};

std::string ipv4(std::string const& address) {
    return "Framed-IP-Address = " + address;
}
std::string ipv6(std::string const& address) {
    return "Framed-IPv6-Address = " + address;
}
std::string prefix(std::string const& text) {
    return "Framed-IPv6-Prefix = " + text;
}
std::string delegated(std::string const& text) {
    return "Delegated-IPv6-Prefix = " + text;
}

class Accounting : public AccountingTables {
  protected:
    void SetUp() override {
        AccountingTables::SetUp();
        if (!IsSkipped()) {
            m_radius.emplace(m_server);
            m_database.emplace();
        }
    }
    // What all of many threads find; "different" when they do not agree.
    std::string found(std::string const& address) {
        std::array<std::string, 8> answers;
        std::vector<std::thread> threads;
        for (std::string& answer : answers) {
            threads.emplace_back([&] { answer = m_database->find(IPAddress(address)).asString(); });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        return std::count(answers.begin(), answers.end(), answers[0]) == 8 ? answers[0] : "different";
    }
    void start(Session const& session, long when = std::time(nullptr)) {
        m_radius->send(session.request("Start", when));
    }
    void update(Session const& session, long when = std::time(nullptr)) {
        m_radius->send(session.request("Interim-Update", when));
    }
    void stop(Session const& session) { m_radius->send(session.request("Stop")); }
    void restartOf(std::string const& nas) {
        m_radius->send({"Acct-Status-Type = Accounting-On", "NAS-IP-Address = " + nas,
                        "Event-Timestamp = " + std::to_string(std::time(nullptr))});
    }

    std::optional<PrivateRadius> m_radius;
    std::optional<RadiusDatabase> m_database;
};

TEST_F(Accounting, SubscriberHoldsTheAddressFromStartToStop) {
    for (auto const& [attribute, address] :
         std::vector<std::pair<std::string, std::string>>{{ipv4("198.51.100.7"), "198.51.100.7"},
                                                          {ipv6("2001:db8::7"), "2001:db8::7"},
                                                          {prefix("2001:db8:1:2::/64"), "2001:db8:1:2:a:b:c:d"},
                                                          {delegated("2001:db8:5:ab00::/56"), "2001:db8:5:abcd::1"}}) {
        Session const session{"15550100", attribute, "of " + address};
        EXPECT_EQ(found(address), "") << address;
        start(session);
        EXPECT_EQ(found(address), "15550100") << address;
        update(session);
        EXPECT_EQ(found(address), "15550100") << address;
        stop(session);
        EXPECT_EQ(found(address), "") << address;
    }
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(Accounting, AddressThatChangedHandsGivesTheNewSubscriber) {
    for (auto const& [attribute, address] : std::vector<std::pair<std::string, std::string>>{
             {ipv4("198.51.100.7"), "198.51.100.7"}, {prefix("2001:db8:1:2::/64"), "2001:db8:1:2::1"}}) {
        Session const before{"15550100", attribute, "first of " + address};
        Session const after{"15550200", attribute, "second of " + address};
        long const now = std::time(nullptr);
        start(before, now - 60);
        start(after, now - 30);
        EXPECT_EQ(found(address), "15550200") << "although the first was never stopped";
        update(before, now);
        EXPECT_EQ(found(address), "15550200") << "and goes on reporting";
        stop(before);
        EXPECT_EQ(found(address), "15550200");
        stop(after);
        EXPECT_EQ(found(address), "");
    }
}

TEST_F(Accounting, SessionThatWasHeardOfTooLongAgoHoldsNothingUntilItIsHeardOfAgain) {
    Session const session{"15550100", ipv4("198.51.100.7"), "1"};
    long const now = std::time(nullptr);
    start(session, now - 30 * 3600);
    EXPECT_EQ(found("198.51.100.7"), "");
    update(session, now - 23 * 3600);
    EXPECT_EQ(found("198.51.100.7"), "15550100");
}

TEST_F(Accounting, SessionWhoseStartWasLostIsKnownFromItsFirstUpdate) {
    update(Session{"15550100", ipv6("2001:db8::7"), "1"});
    EXPECT_EQ(found("2001:db8::7"), "15550100");
}

TEST_F(Accounting, GatewayThatRestartsEndsItsSessionsAndNoOthers) {
    start({"15550100", ipv4("198.51.100.1"), "1"});
    start({"15550200", prefix("2001:db8:1:2::/64"), "2"});
    start({"15550300", ipv4("198.51.100.3"), "3", otherGateway});
    restartOf(gateway);
    EXPECT_EQ(found("198.51.100.1"), "");
    EXPECT_EQ(found("2001:db8:1:2::1"), "");
    EXPECT_EQ(found("198.51.100.3"), "15550300");
}

// Addresses go from one subscriber to the next while sixteen threads look them up: each answer is one that was true
// between the beginning of its lookup and its end.
TEST_F(Accounting, ManyThreadsSeeEveryAddressChangeHands) {
    constexpr unsigned int addresses = 4;
    constexpr unsigned int hands = 8;
    auto const addressOf = [](unsigned int n) {
        return n % 2 == 0 ? "198.51.100." + std::to_string(n) : "2001:db8:0:" + std::to_string(n) + "::1";
    };
    auto const attributeOf = [&](unsigned int n) {
        return n % 2 == 0 ? ipv4(addressOf(n)) : prefix("2001:db8:0:" + std::to_string(n) + "::/64");
    };
    long const begin = std::time(nullptr) - 600;
    std::array<std::atomic<unsigned int>, addresses> told{};   // the holder that the tables have for certain
    std::array<std::atomic<unsigned int>, addresses> coming{}; // the latest that they may have
    std::atomic<bool> over{false};
    std::atomic<unsigned int> wrong{0};
    std::atomic<unsigned int> lookups{0};
    std::vector<std::thread> threads;
    for (unsigned int t = 0; t < 16; ++t) {
        threads.emplace_back([&, t] {
            for (unsigned int n = t; !over; ++n) {
                unsigned int const at = n % addresses;
                unsigned int const oldest = told[at];
                std::string const answer = m_database->find(IPAddress(addressOf(at))).asString();
                unsigned int const newest = coming[at];
                unsigned int const holder =
                    answer.empty() ? 0 : static_cast<unsigned int>(std::stoul(answer)) - 15550000;
                wrong += holder < oldest || holder > newest ? 1 : 0;
                ++lookups;
            }
        });
    }
    for (unsigned int hand = 1; hand <= hands; ++hand) {
        for (unsigned int n = 0; n < addresses; ++n) {
            coming[n] = hand;
            start({std::to_string(15550000 + hand), attributeOf(n), std::to_string(hand) + "/" + std::to_string(n)},
                  begin + hand);
            told[n] = hand;
        }
    }
    over = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0U) << "of " << lookups;
    EXPECT_GE(lookups, 16U);
    EXPECT_LE(m_database->pooled(), 15U);
    EXPECT_TRUE(m_log.lines().empty());
}

} // namespace
} // namespace Vellum::MMSReputation
