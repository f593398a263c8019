// The requests that are not answered: set-state, and the reload where there is no database.
#include "reputation/ReputationHandlers.h"

#include "foundation/ipc/Dispatcher.h"
#include "tests/support/ReputationCache.h"
#include "tests/support/ScriptedSocket.h"
#include "tests/support/UnreachableServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <limits>

namespace Vellum::Reputation {
namespace {

using IPC::Pdu;
using testing::StartsWith;

std::string requestFor(char const* dottedQuad, std::int32_t state) {
    std::uint32_t const address = inet_addr(dottedQuad);
    return std::string(reinterpret_cast<char const*>(&address), 4) +
           std::string(reinterpret_cast<char const*>(&state), 4);
}

class SetStateTest : public ReputationCache {
  protected:
    SetStateTest() { m_cache.entry(ip("192.0.2.25"))->state(ReputationState::watched); }

    int set(std::string const& request) {
        m_log.clear();
        ScriptedClient client;
        int const answer =
            SetStateHandler().task(client.connection, Pdu(13, Buffer(request.data(), request.size(), true)));
        EXPECT_EQ(client.socket.sent, "") << "there is no reply";
        return answer;
    }
    void expectNothingHasChanged() const {
        EXPECT_EQ(m_cache.entry(ip("192.0.2.25"))->state(), ReputationState::watched);
        EXPECT_EQ(sizeOf(m_cache), 1U);
    }
    void expectRefusal(std::uint32_t code, char const* line) const {
        ASSERT_EQ(m_log.lines().size(), 1U);
        EXPECT_EQ(m_log.lines()[0].code, code);
        EXPECT_EQ(m_log.lines()[0].format, "%s\x01%d");
        EXPECT_EQ(m_log.lines()[0].fields, (std::vector<std::string>{"ReputationHandlers", line}));
    }
};

// The request is checked and logged, and that is all that it is for: an administrator's states come with the tables, so
// that all machines that share them have the same. To store it here would be an improvement that is none.
TEST_F(SetStateTest, AcceptedRequestIsLoggedAndEntriesKeepTheirStates) {
    for (std::int32_t const state : {0, 1, 2, 3, -1, std::numeric_limits<std::int32_t>::min()}) {
        EXPECT_EQ(set(requestFor("192.0.2.25", state)), 0) << state;
        ASSERT_EQ(m_log.lines().size(), 1U);
        EXPECT_EQ(m_log.lines()[0].code, 0x3000193U);
        EXPECT_EQ(m_log.lines()[0].level, 0);
        EXPECT_EQ(m_log.lines()[0].format, "%s");
        EXPECT_EQ(m_log.lines()[0].fields, (std::vector<std::string>{"192.0.2.25"}));
        expectNothingHasChanged();
    }
}

TEST_F(SetStateTest, UnknownAddressIsLoggedAndGetsNoEntry) {
    EXPECT_EQ(set(requestFor("198.51.100.1", 3)), 0);
    EXPECT_EQ(m_log.lines().at(0).text, "198.51.100.1");
    expectNothingHasChanged();
}

TEST_F(SetStateTest, StateAbove3IsRefused) {
    for (std::int32_t const state : {4, 5, std::numeric_limits<std::int32_t>::max()}) {
        EXPECT_EQ(set(requestFor("192.0.2.25", state)), -1) << state;
        expectRefusal(0x3000192, "53");
        expectNothingHasChanged();
    }
}

TEST_F(SetStateTest, AnyOtherLengthIsRefused) {
    std::string const request = requestFor("192.0.2.25", 1);
    for (std::string const& wrong : {std::string(), request.substr(0, 6), request.substr(0, 7), request + '\0'}) {
        EXPECT_EQ(set(wrong), -1) << wrong.size();
        expectRefusal(0x3000191, "46");
        expectNothingHasChanged();
    }
}

TEST_F(SetStateTest, RequestOfAnotherTypeIsRefusedWithItsRecord) {
    ScriptedClient client;
    EXPECT_EQ(SetStateHandler().task(client.connection, Pdu(12, 0U)), -1);
    EXPECT_EQ(UpdatedHandler().task(client.connection, Pdu(13, 0U)), -1);
    EXPECT_EQ(client.socket.sent, "");
    auto const records = m_log.lines();
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].code, 0x3000190U);
    EXPECT_EQ(records[0].fields, (std::vector<std::string>{"ReputationHandlers", "34"}));
    EXPECT_EQ(records[1].code, 0x3000195U);
    EXPECT_EQ(records[1].fields, (std::vector<std::string>{"ReputationHandlers", "105"}));
}

TEST_F(SetStateTest, ReloadWithoutADatabaseFailsWithItsRecord) {
    UnreachableServer const away;
    ScriptedClient client;
    EXPECT_EQ(UpdatedHandler().task(client.connection, Pdu(12, 0U)), -1);
    EXPECT_EQ(client.socket.sent, "");
    ASSERT_EQ(m_log.records().size(), 1U);
    EXPECT_EQ(m_log.records()[0].code, 0x3000197U);
    EXPECT_EQ(m_log.records()[0].format, "%s");
    EXPECT_THAT(m_log.records()[0].text, StartsWith("Connection (code 4)"));
    expectNothingHasChanged();
}

TEST_F(SetStateTest, HandlersAreRegisteredForTheirTypes) {
    auto& dispatcher = IPC::Dispatcher::instance(29001);
    ASSERT_TRUE(dispatcher.handler(12).isNull()) << "nothing is registered by itself";
    addUpdatedHandler();
    EXPECT_TRUE(dispatcher.handler(13).isNull());
    addSetStateHandler();
    EXPECT_NE(dynamic_cast<UpdatedHandler const*>(dispatcher.handler(12).get()), nullptr);
    EXPECT_NE(dynamic_cast<SetStateHandler const*>(dispatcher.handler(13).get()), nullptr);
    EXPECT_TRUE(dispatcher.handler(12)->mayTakeLong());
    EXPECT_FALSE(dispatcher.handler(13)->mayTakeLong());
}

} // namespace
} // namespace Vellum::Reputation
