// reputation list, show, set-state and reload, as the built program shows them.
#include "reputation/Cache.h"
#include "reputation/LogCodes.h"
#include "reputation/ReputationDisplay.h"
#include "reputation/ReputationHandlers.h"
#include "tests/tools/VellumctlFixture.h"
#include "tools/vellumctl/Failure.h"
#include "tools/vellumctl/ReputationArguments.h"
#include "tools/vellumctl/TimeText.h"

#include <algorithm>
#include <atomic>
#include <ctime>

namespace Vellum::Tools {
namespace {

using nlohmann::json;
using Reputation::Entry;
using Record = Entry::Record;

class VellumctlReputation : public VellumctlFixture {
  protected:
    VellumctlReputation() {
        m_addresses.clear();
        m_dispatcher.add(IPC::MyHandler<Reputation::EntryHandler>());
        m_dispatcher.add(IPC::MyHandler<Reputation::RecordHandler>());
        m_dispatcher.add(IPC::MyHandler<Reputation::SetStateHandler>());
    }
    Reputation::RefEntry entry(char const* address) const { return m_addresses.entry(IPAddress(std::string(address))); }
    // Scores that hold whenever this runs: of hours all alike, and of an hour long ago.
    void fill() {
        for (unsigned int hour = current - 20; hour <= current + 1; ++hour) {
            entry("192.0.2.25")->add(hour, Record(30, 30, 0, 0, 30));
            entry("2001:db8::1")->add(hour, Record(5, 5, 0, 0, 5));
        }
        entry("192.0.2.25")->state(Reputation::ReputationState::blocked);
        entry("198.51.100.7")->add(5, Record(1, 1, 0, 0, 0));
        entry("198.51.100.7")->state(static_cast<Reputation::ReputationState>(77));
    }
    // The newest period of a loaded entry is its last change.
    json worstJson() const { return asJson("192.0.2.25", 100, 3, "blocked", (current + 1) * 3600L); }
    json mildJson() const { return asJson("2001:db8::1", 21, 0, "unset", (current + 1) * 3600L); }
    json idleJson() const { return asJson("198.51.100.7", 0, 77, "77", 5 * 3600L); }
    json shown(std::vector<std::string> words) const {
        words.insert(words.begin(), {"reputation", "list", "--json"});
        ChildResult const result = run(words);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.err, "");
        return json::parse(result.out, nullptr, false);
    }
    static json asJson(char const* address, int score, int state, char const* name, long change) {
        return {
            {"address", address}, {"score", score}, {"state", state}, {"state_name", name}, {"last_change", change}};
    }

    unsigned int const current = static_cast<unsigned int>(std::time(nullptr) / 3600);
    Reputation::Cache& m_addresses = **Reputation::RefCache::instance();
};

TEST_F(VellumctlReputation, AListForPeople) {
    entry("198.51.100.7")->add(5, Record(1, 1, 0, 0, 0));
    entry("198.51.100.7")->state(Reputation::ReputationState::watched);
    entry("192.0.2.1");
    ChildResult const result = run({"reputation", "list"});
    std::string const change = timeText(5 * 3600, std::time(nullptr));
    EXPECT_EQ(result.out, "SCORE  STATE    LAST CHANGE" + std::string(change.size() - 11, ' ') + "  ADDRESS\n" +
                              "0      unset    -" + std::string(change.size() - 1, ' ') + "  192.0.2.1\n" +
                              "0      watched  " + change + "  198.51.100.7\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.exitCode, 0);
}

// The hours ahead of the clock count unweighted: (20 * 78 + 20) / 78 = 20 for the mild one, or 21 where the hour turns.
TEST_F(VellumctlReputation, AListForPrograms) {
    fill();
    json list = shown({});
    ASSERT_EQ(list.size(), 3U);
    EXPECT_GE(list[2]["score"], 20);
    EXPECT_LE(list[2]["score"], 21);
    list[2]["score"] = 21;
    EXPECT_EQ(list, json({worstJson(), idleJson(), mildJson()}));
}

TEST_F(VellumctlReputation, FiltersShowWhatMatches) {
    fill();
    EXPECT_EQ(shown({"--min-score", "100"}), json::array({worstJson()}));
    EXPECT_EQ(shown({"--min-score", "1"}).size(), 2U);
    EXPECT_EQ(shown({"--state", "blocked"}), json::array({worstJson()}));
    EXPECT_EQ(shown({"--state", "3"}), json::array({worstJson()}));
    EXPECT_EQ(shown({"--state", "trusted"}), json::array());
    EXPECT_EQ(shown({"--network", "192.0.2.0/24"}), json::array({worstJson()}));
    EXPECT_EQ(shown({"--network", "198.51.100.7"}), json::array({idleJson()}));
}

TEST_F(VellumctlReputation, SortsAndLimitsWhenItIsToldTo) {
    fill();
    auto const addresses = [](json const& list) {
        std::vector<std::string> all;
        for (json const& one : list) {
            all.push_back(one.at("address"));
        }
        return all;
    };
    using Addresses = std::vector<std::string>;
    EXPECT_EQ(addresses(shown({"--sort", "score", "--reverse"})),
              (Addresses{"192.0.2.25", "2001:db8::1", "198.51.100.7"}));
    EXPECT_EQ(addresses(shown({"--sort", "score", "--limit", "1"})), (Addresses{"198.51.100.7"}));
    EXPECT_EQ(addresses(shown({"--sort", "state"})), (Addresses{"2001:db8::1", "192.0.2.25", "198.51.100.7"}));
    EXPECT_EQ(addresses(shown({"--sort", "change"})).front(), "198.51.100.7");
    EXPECT_EQ(addresses(shown({"--sort", "address", "--reverse"})).front(), "2001:db8::1");
    EXPECT_EQ(addresses(shown({"--limit", "2"})), (Addresses{"192.0.2.25", "198.51.100.7"}));
}

TEST_F(VellumctlReputation, AnEmptyCacheIsAHeaderOrAnEmptyArray) {
    EXPECT_EQ(run({"reputation", "list"}).out, "SCORE  STATE  LAST CHANGE  ADDRESS\n");
    EXPECT_EQ(run({"reputation", "list", "--no-header"}).out, "");
    EXPECT_EQ(run({"reputation", "list", "--json"}).out, "[]\n");
}

TEST_F(VellumctlReputation, ShowHasTwelveHoursWithABarEach) {
    Record record(40, 50, 10, 1, 20);
    record.flagged = 2;
    entry("192.0.2.25")->add(current - 3, record);
    entry("192.0.2.25")->add(current - 40, record);
    ChildResult const result = run({"reputation", "show", "192.0.2.25"});
    EXPECT_EQ(result.exitCode, 0);
    std::string const from = localTime((current - 3) * 3600L);
    // 33 of 40 + 50
    EXPECT_NE(result.out.find("\n" + from + "  36     40        50          10       1         20    2        " +
                              std::string(30, '#') + "\n"),
              std::string::npos)
        << result.out;
    EXPECT_NE(
        result.out.find("\ntogether" + std::string(17, ' ') + "40        50          10       1         20    2\n"),
        std::string::npos)
        << result.out;
    EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 14);
    json const hours = json::parse(run({"reputation", "show", "192.0.2.25", "--json"}).out);
    EXPECT_EQ(hours.at("address"), "192.0.2.25");
    EXPECT_EQ(hours.at("hours").size(), 12U);
    bool found = false;
    for (json const& hour : hours.at("hours")) {
        if (hour.at("from") == (current - 3) * 3600L) {
            found = true;
            EXPECT_EQ(hour, json({{"from", (current - 3) * 3600L},
                                  {"score", 36},
                                  {"messages", 40},
                                  {"recipients", 50},
                                  {"invalid_recipients", 10},
                                  {"infected", 1},
                                  {"spam", 20},
                                  {"extra_total", 0},
                                  {"extra_hits", 0},
                                  {"extra_volume", 0},
                                  {"flagged", 2}}));
        }
    }
    EXPECT_TRUE(found);
}

TEST_F(VellumctlReputation, AnAddressThatIsNotKnownHasSentNothing) {
    json const hours = json::parse(run({"reputation", "show", "2001:db8::99", "--json"}).out);
    ASSERT_EQ(hours.at("hours").size(), 12U);
    for (json const& hour : hours.at("hours")) {
        EXPECT_EQ(hour.at("messages"), 0);
        EXPECT_EQ(hour.at("score"), 0);
    }
}

TEST(ShownHours, AreTwelveWithoutGapsAndWhatIsAhead) {
    constexpr std::int64_t now = 477000 * 3600LL + 1800;
    std::vector<ReputationHour> sent(3);
    sent[0].period = 477000 - 12; // too old
    sent[1].period = 477000 - 11;
    sent[2].period = 477002; // the daemon's clock is ahead
    std::vector<ReputationHour> const shown = shownHours(sent, now);
    ASSERT_EQ(shown.size(), 13U);
    EXPECT_EQ(shown.front().period, 477000U - 11);
    EXPECT_EQ(shown[11].period, 477000U);
    EXPECT_EQ(shown.back().period, 477002U);
    EXPECT_EQ(shown.back().from(), 477002 * 3600LL);
}

// The daemon logs the request, and that is all: the tool must not claim more.
TEST_F(VellumctlReputation, SetStateIsLoggedByTheDaemonAndChangesNothing) {
    answerJson(IPC::PduType::adminStatus, json::object());
    entry("192.0.2.25");
    ChildResult const result = run({"reputation", "set-state", "192.0.2.25", "blocked"});
    EXPECT_EQ(result.out, "the daemon has logged the request of 192.0.2.25 to be blocked; its state stays what the "
                          "table says\n");
    EXPECT_EQ(result.exitCode, 0);
    ASSERT_EQ(m_log.records(Reputation::LogCode::setStateDone).size(), 1U);
    EXPECT_EQ(m_log.records(Reputation::LogCode::setStateDone)[0].text, "192.0.2.25");
    EXPECT_EQ(entry("192.0.2.25")->state(), Reputation::ReputationState::unset);
    EXPECT_EQ(json::parse(run({"reputation", "set-state", "192.0.2.25", "1", "--json"}).out),
              json({{"address", "192.0.2.25"}, {"state", 1}, {"state_name", "trusted"}, {"logged", true}}));
}

TEST_F(VellumctlReputation, ReloadTellsWhatWasLoadedOrWhichRowIsToBlame) {
    auto const status = [](bool loaded, int rows, char const* problem) {
        return json(
            {{"reputation",
              {{"entries",
                {{"load", {{"attempted", true}, {"loaded", loaded}, {"rows", rows}, {"problem", problem}}}}}}}});
    };
    std::atomic<int> reloads{0};
    answer(IPC::PduType::reloadReputations, [&](IPC::SocketIPC&, IPC::Pdu const&) {
        ++reloads;
        return 0;
    });
    answerJson(IPC::PduType::adminStatus, status(true, 120, ""));
    ChildResult const good = run({"reputation", "reload"});
    EXPECT_EQ(good.out, "120 hours loaded\n");
    EXPECT_EQ(good.exitCode, 0);
    EXPECT_EQ(reloads, 1);
    answerJson(IPC::PduType::adminStatus, status(false, 0, "row 3 of sender_reputation"));
    ChildResult const bad = run({"reputation", "reload"});
    EXPECT_EQ(bad.exitCode, 1);
    EXPECT_EQ(bad.err.find("vellumctl reputation reload: sender reputation could not be loaded: row 3 of "
                           "sender_reputation\n"),
              0U)
        << bad.err;
    EXPECT_NE(bad.err.find("\"vellumctl reputation accept-empty\""), std::string::npos);
}

TEST_F(VellumctlReputation, AcceptEmptyNamesItsFamily) {
    answer(IPC::PduType::adminAcceptEmpty, [](IPC::SocketIPC& client, IPC::Pdu const& request) {
        EXPECT_EQ(json::parse(IPC::payloadText(request)), json({{"family", "reputation"}}));
        sendJson(client, IPC::PduType::adminReply, {{"changed", true}, {"addresses", 7}});
        return 0;
    });
    EXPECT_EQ(run({"reputation", "accept-empty"}).out,
              "accepted: the next backup replaces the tables by 7 addresses\n");
}

template <class Work>
std::string complaint(Work work) {
    try {
        work();
    } catch (Failure const& wrong) {
        EXPECT_EQ(wrong.exitCode(), ExitCode::usage);
        return wrong.what();
    }
    return "no complaint";
}

TEST(ReputationArguments, WordsThatAreWrongAreTold) {
    auto const list = [](ReputationWords const& words, ListingWords const& listing = {}) {
        return complaint([&] { reputationListRequest(words, listing, {}); });
    };
    EXPECT_EQ(list({.address = {}, .state = "4", .network = {}, .minScore = {}}),
              "--state \"4\" is no state: expected unset, trusted, watched, blocked, or 0 to 3");
    EXPECT_EQ(list({.address = {}, .state = {}, .network = "x", .minScore = {}}),
              "--network \"x\" is no network: expected an address, or address/length");
    EXPECT_EQ(list({.address = {}, .state = {}, .network = {}, .minScore = "101"}),
              "--min-score 101 is out of range: expected 0 to 100");
    EXPECT_EQ(list({}, {.limit = "0", .sort = {}}), "--limit 0 is out of range: expected 1 or more");
    EXPECT_EQ(list({}, {.limit = {}, .sort = "age"}),
              "--sort \"age\" is not known: expected address, score, state or change");
    auto const set = [](char const* address, char const* state) {
        return complaint(
            [&] { reputationSetRequest({.address = address, .state = state, .network = {}, .minScore = {}}, false); });
    };
    EXPECT_EQ(set("192.0.2.256", "1"), "\"192.0.2.256\" is no address: expected 192.0.2.1 or 2001:db8::1");
    EXPECT_EQ(set("2001:db8::1", "1"), "the request holds IPv4 addresses only, not 2001:db8::1");
    EXPECT_EQ(set("192.0.2.1", "bad"), "\"bad\" is no state: expected unset, trusted, watched, blocked, or 0 to 3");
    EXPECT_EQ(set("192.0.2.1", "-1"), "\"-1\" is no state: expected unset, trusted, watched, blocked, or 0 to 3");
}

TEST(ReputationRecord, PayloadOfAnotherSizeIsNone) {
    ReputationRecord record;
    EXPECT_THROW(record.decode(std::string(39, '\0')), Exception);
    EXPECT_THROW(record.decode(std::string(41, '\0')), Exception);
    EXPECT_THROW(record.decode(std::string(40, '\x09')), Exception) << "no such family";
    record.decode(std::string(40, '\0'));
    EXPECT_TRUE(record.address.isNull());
    ReputationHour hour;
    EXPECT_THROW(hour.decode(std::string(39, '\0')), Exception);
    hour.decode(std::string(40, '\x01'));
    EXPECT_EQ(hour.counters.flagged, 0x01010101U);
}

} // namespace
} // namespace Vellum::Tools
