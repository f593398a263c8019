// The C interface as a C program uses it (c_caller.c), with the daemon's handlers and a real database behind it.
#include "c_caller.h"
#include "foundation/ipc/Handler.h"
#include "mmsreputation/vellum_mms_reputation.h"
#include "tests/support/EndpointDaemon.h"
#include "tests/support/EndpointTables.h"
#include "tests/support/UnreachableServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace Vellum::MMSReputation {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class EndpointCInterface : public EndpointTables {
  protected:
    void expectRecord(std::uint32_t code, std::string const& operation, std::string const& part) const {
        auto const records = m_log.records(code);
        ASSERT_EQ(records.size(), 1U);
        EXPECT_EQ(records[0].format, "%s\x01%s");
        ASSERT_EQ(records[0].fields.size(), 2U);
        EXPECT_EQ(records[0].fields[0], operation);
        EXPECT_THAT(records[0].fields[1], HasSubstr(part));
    }
};

TEST_F(EndpointCInterface, EditsTheTablesAndTheDaemonReadsThemAgain) {
    EndpointDaemon const daemon;
    EXPECT_STREQ(c_caller_edits_lists(), nullptr);
    EXPECT_THAT(blacklistRows(), ElementsAre("+15555550101", "15555550100"));
    EXPECT_THAT(exemptRows(), ElementsAre("15555550200"));
    // Each call has waited for the daemon to be done with its signal.
    EXPECT_THAT(blacklistHeld(), ElementsAre("+15555550101", "15555550100"));
    EXPECT_THAT(exemptHeld(), ElementsAre("15555550200"));
    EXPECT_EQ(m_log.records(0x3000181).size(), 11U);
    EXPECT_EQ(m_log.lines().size(), 11U);
}

TEST_F(EndpointCInterface, StatementsAreTheseTexts) {
    EndpointDaemon const daemon;
    EXPECT_THAT(sent([] { vellum_mms_reputation_blacklist_add("15555550100"); }),
                testing::Contains("Insert into mms_blacklist values ( '15555550100') on duplicate key update "
                                  "msisdn=values( msisdn )"));
    EXPECT_THAT(sent([] { vellum_mms_reputation_exempt_add("15555550100"); }),
                testing::Contains("Insert into mms_exempt values ( '15555550100') on duplicate key update "
                                  "msisdn=values( msisdn )"));
    EXPECT_THAT(sent([] { vellum_mms_reputation_blacklist_remove("15555550100"); }),
                testing::Contains("delete from mms_blacklist where msisdn = '15555550100'"));
    EXPECT_THAT(sent([] { vellum_mms_reputation_exempt_remove("15555550100"); }),
                testing::Contains("delete from mms_exempt where msisdn = '15555550100'"));
}

TEST_F(EndpointCInterface, UnfitTextsAreRefusedBeforeAnySql) {
    EndpointDaemon const daemon;
    EXPECT_THAT(sent([] { EXPECT_STREQ(c_caller_is_refused(), nullptr); }), IsEmpty());
    EXPECT_THAT(blacklistRows(), IsEmpty());
    EXPECT_EQ(m_log.records(0x300016C).size(), 2U + 2 * 9U);
    EXPECT_EQ(m_log.records(0x300016D).size(), 2 * 9U);
    auto const record = m_log.records(0x300016D)[0];
    EXPECT_EQ(record.format, "%s\x01%s");
    EXPECT_EQ(record.fields[0], "vellum_mms_reputation_blacklist_remove");
    EXPECT_THAT(record.fields[1], HasSubstr("a quote, a backslash or a control character in \"1'\""));
}

TEST_F(EndpointCInterface, EveryQuoteBackslashAndControlCharacterIsRefusedAndNothingElseIs) {
    EndpointDaemon const daemon;
    std::string refusedOnes;
    for (int byte = 1; byte < 256; ++byte) {
        std::string const text = std::string("1") + static_cast<char>(byte) + "2";
        int const added = vellum_mms_reputation_blacklist_add(text.c_str());
        refusedOnes += added == 0 ? "" : std::string(1, static_cast<char>(byte));
        EXPECT_EQ(vellum_mms_reputation_exempt_add(text.c_str()), added) << byte;
        EXPECT_EQ(vellum_mms_reputation_blacklist_remove(text.c_str()), added) << byte;
        EXPECT_EQ(vellum_mms_reputation_exempt_remove(text.c_str()), added) << byte;
    }
    std::string expected;
    for (char byte = 1; byte < ' '; ++byte) {
        expected += byte;
    }
    EXPECT_EQ(refusedOnes, expected + "\"'\\`\x7f");
    EXPECT_THAT(blacklistRows(), IsEmpty());
    EXPECT_THAT(exemptRows(), IsEmpty());
}

TEST_F(EndpointCInterface, LettersGoInAsGivenAndAreNobodyWhenTheyAreLoaded) {
    EndpointDaemon const daemon;
    EXPECT_EQ(vellum_mms_reputation_blacklist_add("1555x"), 0);
    EXPECT_EQ(vellum_mms_reputation_blacklist_add("15555550100"), 0);
    EXPECT_EQ(vellum_mms_reputation_exempt_add("abc"), 0);
    EXPECT_THAT(blacklistRows(), ElementsAre("15555550100", "1555x"));
    EXPECT_THAT(exemptRows(), ElementsAre("abc"));
    EXPECT_THAT(blacklistHeld(), ElementsAre("15555550100"));
    EXPECT_THAT(exemptHeld(), IsEmpty());
    EXPECT_EQ(m_log.records(0x3000166).back().text,
              "row of mms_exempt skipped: \"abc\" is no subscriber number, expected digits");
    EXPECT_EQ(vellum_mms_reputation_blacklist_remove("1555x"), 0);
    EXPECT_EQ(vellum_mms_reputation_exempt_remove("abc"), 0);
    EXPECT_THAT(blacklistRows(), ElementsAre("15555550100"));
    EXPECT_THAT(exemptRows(), IsEmpty());
}

TEST_F(EndpointCInterface, FortyDigitsCannotBeAddedAndAreNotThereToBeRemoved) {
    EndpointDaemon const daemon;
    std::string const forty(40, '7');
    run({"insert into mms_blacklist values ('" + forty.substr(0, 36) + "')"});
    EXPECT_EQ(vellum_mms_reputation_blacklist_add(forty.c_str()), -1);
    EXPECT_EQ(vellum_mms_reputation_exempt_add(forty.c_str()), -1);
    EXPECT_EQ(m_log.records(0x300016C).size(), 2U);
    EXPECT_EQ(vellum_mms_reputation_blacklist_remove(forty.c_str()), 0);
    EXPECT_EQ(vellum_mms_reputation_exempt_remove(forty.c_str()), 0);
    EXPECT_THAT(blacklistRows(), ElementsAre(forty.substr(0, 36))) << "another number";
    EXPECT_THAT(exemptRows(), IsEmpty());
}

TEST_F(EndpointCInterface, EmptyTextIsNotAddedButTakesAnEmptyRowOff) {
    EndpointDaemon const daemon;
    EXPECT_EQ(vellum_mms_reputation_blacklist_add(""), -1);
    expectRecord(0x300016C, "vellum_mms_reputation_blacklist_add", "an empty number, expected digits");
    run({"insert into mms_blacklist values (''), ('21')", "insert into mms_exempt values ('')"});
    EXPECT_EQ(vellum_mms_reputation_blacklist_remove(""), 0);
    EXPECT_EQ(vellum_mms_reputation_exempt_remove(""), 0);
    EXPECT_THAT(blacklistRows(), ElementsAre("21"));
    EXPECT_THAT(exemptRows(), IsEmpty());
    EXPECT_THAT(blacklistHeld(), ElementsAre("21")) << "and the list can be read again";
}

TEST_F(EndpointCInterface, NullIsRefusedWithoutALogRecord) {
    AbsentEndpointDaemon const nobody;
    UnreachableServer const away;
    EXPECT_EQ(vellum_mms_reputation_blacklist_add(nullptr), -1);
    EXPECT_EQ(vellum_mms_reputation_blacklist_remove(nullptr), -1);
    EXPECT_EQ(vellum_mms_reputation_exempt_add(nullptr), -1);
    EXPECT_EQ(vellum_mms_reputation_exempt_remove(nullptr), -1);
    EXPECT_EQ(vellum_mms_reputation_autoblacklist_remove(nullptr), 0);
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(EndpointCInterface, NumberThatTheColumnCannotHoldIsADatabaseError) {
    EndpointDaemon const daemon;
    EXPECT_EQ(vellum_mms_reputation_blacklist_add(std::string(36, '7').c_str()), 0);
    EXPECT_EQ(vellum_mms_reputation_blacklist_add(std::string(40, '7').c_str()), -1);
    expectRecord(0x300016C, "vellum_mms_reputation_blacklist_add", "Data too long");
    EXPECT_THAT(blacklistRows(), ElementsAre(std::string(36, '7')));
}

TEST_F(EndpointCInterface, BothReadersAnswerTheExemptList) {
    run({"insert into mms_exempt values ('15555550200')",
         "insert into mms_blacklist values ('15555550100'), ('15555550101')"});
    EXPECT_STREQ(c_caller_reads_lists(), nullptr);
    EXPECT_TRUE(m_log.lines().empty());
    EXPECT_FALSE(RefCache::instance(nullptr, 255) == m_cache) << "the process's cache was replaced";
    EXPECT_TRUE(RefCache::instance(nullptr, 255)->isBlacklisted(MSISDN("15555550100")));
}

TEST_F(EndpointCInterface, ListsAreAscendingAndMayBeEmpty) {
    char** list = vellum_mms_reputation_exempt_get();
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list[0], nullptr);
    vellum_mms_reputation_exempt_free(list);
    run({"insert into mms_exempt values ('3'), ('1'), ('+2'), ('12')"});
    list = vellum_mms_reputation_blacklist_get();
    ASSERT_NE(list, nullptr);
    Rows numbers;
    for (char** at = list; *at != nullptr; ++at) {
        numbers.emplace_back(*at);
    }
    vellum_mms_reputation_blacklist_free(list);
    EXPECT_THAT(numbers, ElementsAre("+2", "1", "12", "3"));
}

TEST_F(EndpointCInterface, ReadersNeedNoConfigurationOfTheHost) {
    NoConfiguration const none;
    run({"insert into mms_exempt values ('15555550200')"});
    EXPECT_STREQ(c_caller_reads_lists(), nullptr);
    EXPECT_NE(Configuration::s_instance, nullptr) << "a stub";
}

TEST_F(EndpointCInterface, WithoutADatabaseReadersAnswerNull) {
    UnreachableServer const away;
    EXPECT_STREQ(c_caller_reads_nothing(), nullptr);
    auto const records = m_log.lines();
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].code, 0x300016EU);
    EXPECT_EQ(records[0].format, "%s\x01%s");
    EXPECT_EQ(records[0].fields[0], "vellum_mms_reputation_blacklist_get");
    EXPECT_THAT(records[0].fields[1], StartsWith("Connection (code 4)"));
    EXPECT_EQ(records[1].fields[0], "vellum_mms_reputation_exempt_get");
}

TEST_F(EndpointCInterface, WithoutADatabaseEditsAnswerMinusOne) {
    EndpointDaemon const daemon;
    UnreachableServer const away;
    EXPECT_EQ(vellum_mms_reputation_exempt_add("15555550100"), -1);
    expectRecord(0x300016C, "vellum_mms_reputation_exempt_add", "Connection (code 4)");
    EXPECT_EQ(vellum_mms_reputation_exempt_remove("15555550100"), -1);
    expectRecord(0x300016D, "vellum_mms_reputation_exempt_remove", "Connection (code 4)");
}

TEST_F(EndpointCInterface, DaemonThatCannotBeToldIsSaidOnStandardOutputOnly) {
    AbsentEndpointDaemon const nobody;
    testing::internal::CaptureStdout();
    EXPECT_EQ(vellum_mms_reputation_blacklist_add("15555550100"), 0);
    EXPECT_EQ(vellum_mms_reputation_blacklist_remove("15555550199"), 0);
    std::string const said = testing::internal::GetCapturedStdout();
    EXPECT_THAT(said, StartsWith("s_signalMMSReputationUpated: SocketIPC::connect (code 4"));
    EXPECT_THAT(said, HasSubstr("\ns_signalMMSReputationUpated: SocketIPC::connect (code 4"));
    EXPECT_EQ(said.back(), '\n');
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 2);
    EXPECT_THAT(blacklistRows(), ElementsAre("15555550100"));
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(EndpointCInterface, ListsScoresThroughTheTable) {
    EndpointDaemon const daemon;
    std::uint32_t const slice = currentSlice() + 5;
    add(1, slice, 30, 0);
    add(2, slice, 5, 5);
    add(3, slice, 0, 20, 1700000000);
    EXPECT_STREQ(c_caller_lists_scores(), nullptr);
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(EndpointCInterface, WithoutADaemonScoresAreNotListed) {
    AbsentEndpointDaemon const nobody;
    run({"insert into mms_repuation_score values ('1', 2, 3)"});
    EXPECT_STREQ(c_caller_lists_nobody(), nullptr);
    EXPECT_EQ(m_log.lines().size(), 1U);
    expectRecord(0x300016E, "vellum_mms_reputation_entries_show", "Connection refused");
}

// Answers every request with a unit of another type.
class OddHandler : public IPC::HandlerImpl {
  public:
    OddHandler() : HandlerImpl(IPC::PduType::rebuildEndpointScores, true) {}
    int task(IPC::SocketIPC& client, IPC::Pdu const&) const override {
        client << IPC::Pdu(5, 0U);
        return 0;
    }
};

TEST_F(EndpointCInterface, AnyOtherAnswerEndsTheCallWithoutAListing) {
    EndpointDaemon daemon;
    daemon.dispatcher().add(IPC::MyHandler<OddHandler>());
    run({"insert into mms_repuation_score values ('1', 2, 3)"});
    EXPECT_STREQ(c_caller_lists_nobody(), nullptr);
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(EndpointCInterface, ClearsANumberAndSendsNothingForAnEmptyOne) {
    EndpointDaemon const daemon;
    add(1)->blacklistExpiry(2114377200);
    add(2);
    EXPECT_STREQ(c_caller_clears_a_number(), nullptr);
    EXPECT_THAT(held(), ElementsAre("15555550002 0"));
    EXPECT_TRUE(m_log.records().empty());
    EXPECT_THAT(m_log.notes(), ElementsAre("action=remove, subscriber=15555550001"));
}

TEST_F(EndpointCInterface, ClearingWhatIsNoNumberAnswersZeroAndDropsNobody) {
    EndpointDaemon const daemon;
    add(1);
    for (std::string const& text :
         {std::string("abc"), std::string("15555550001'"), std::string("15555550001\\"), std::string("\"15555550001\""),
          std::string("15555550001\n"), std::string(" 15555550001"), std::string(40, '1')}) {
        EXPECT_EQ(vellum_mms_reputation_autoblacklist_remove(text.c_str()), 0) << text;
    }
    EXPECT_EQ(vellum_mms_reputation_exempt_add("11"), 0); // waits for the daemon to be done with all of them
    EXPECT_THAT(held(), ElementsAre("15555550001 0"));
    EXPECT_TRUE(m_log.records(0x3000168).empty());
    EXPECT_TRUE(m_log.records(0x300016F).empty());
}

TEST_F(EndpointCInterface, ClearingWithoutADaemonIsLoggedAndAnswersZero) {
    AbsentEndpointDaemon const nobody;
    EXPECT_STREQ(c_caller_clears_a_number(), nullptr);
    auto const records = m_log.lines();
    ASSERT_EQ(records.size(), 1U) << "nothing is sent for null and the empty text";
    EXPECT_EQ(records[0].code, 0x300016FU);
    EXPECT_EQ(records[0].format, "%s");
    EXPECT_THAT(records[0].text, HasSubstr("Connection refused"));
}

} // namespace
} // namespace Vellum::MMSReputation
