// rate list and rate show, as the built program shows them.
#include "foundation/ipc/Listing.h"
#include "senderratecontrol/SenderRateControlDisplay.h"
#include "tests/support/RateControl.h"
#include "tests/tools/VellumctlFixture.h"
#include "tools/vellumctl/RateCommands.h"
#include "tools/vellumctl/TimeText.h"

#include <algorithm>
#include <ctime>
#include <limits>

namespace Vellum::Tools {
namespace {

using nlohmann::json;
using SenderRateControl::Cache;
using SenderRateControl::Entry;
using SenderRateControl::mailbox;
using SenderRateControl::RateControlState;
using SenderRateControl::RefCache;
using SenderRateControl::RefEntry;

class VellumctlRate : public VellumctlFixture {
  protected:
    VellumctlRate() {
        m_senders.clear();
        m_dispatcher.add(IPC::MyHandler<SenderRateControl::EntryHandler>());
        m_dispatcher.add(IPC::MyHandler<SenderRateControl::RecordHandler>());
    }
    RefEntry entry(char const* address) const { return m_senders.entryOf(mailbox(address)); }
    // Times are half a unit away from where their text changes, so a slow machine shows the same. The counts are of a
    // period far ahead, so they are counted whenever this runs.
    void fill() {
        until = now + 4 * 60 + 30;
        over = now - 3 * 3600 - 1800;
        entry("ann@example.net")->add(ahead, {1, 20, 3, 4, 5});
        RefEntry const blocked = entry("bob@example.net");
        blocked->add(ahead, {30, 2, 0, 0, 0});
        blocked->state(RateControlState::blocked);
        blocked->blockedUntil(until);
        blocked->blockedReason(Entry::Attribute1);
        RefEntry const once = entry("");
        once->state(RateControlState{7});
        once->blockedUntil(over);
        once->blockedReason(Entry::Attribute5);
    }
    json annJson() const {
        return {{"sender", "ann@example.net"},
                {"totals", {1, 20, 3, 4, 5}},
                {"state", "normal"},
                {"reason", 0},
                {"blocked_until", 0}};
    }
    json bobJson() const {
        return {{"sender", "bob@example.net"},
                {"totals", {30, 2, 0, 0, 0}},
                {"state", "blocked"},
                {"reason", 1},
                {"blocked_until", until}};
    }
    json nullJson() const {
        return {{"sender", "<>"}, {"totals", {0, 0, 0, 0, 0}}, {"state", "7"}, {"reason", 5}, {"blocked_until", over}};
    }
    json shown(std::vector<std::string> words) const {
        words.insert(words.begin(), {"rate", "list", "--json"});
        ChildResult const result = run(words);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.err, "");
        return json::parse(result.out, nullptr, false);
    }

    static constexpr unsigned int ahead = 4'000'000'000;
    long const now = std::time(nullptr);
    long until = 0;
    long over = 0;
    SenderRateControl::InstalledConfiguration const m_rateConfiguration{100000};
    Cache& m_senders = **RefCache::instance();
};

TEST_F(VellumctlRate, AListForPeople) {
    fill();
    ChildResult const result = run({"rate", "list"});
    std::string const ended = timeText(over, now);
    std::string const ends = timeText(until, now);
    auto const padded = [](std::string const& text, std::size_t columns) {
        return text + std::string(columns - text.size() + 2, ' ');
    };
    std::size_t const wide = std::max(ended.size(), ends.size());
    EXPECT_EQ(result.out, "STATE    REASON  " + padded("BLOCKED UNTIL", wide) +
                              "COUNT1  COUNT2  COUNT3  COUNT4  COUNT5  SENDER\n" + "7        count5  " +
                              padded(ended, wide) + "0       0       0       0       0       <>\n" +
                              "normal   -       " + padded("-", wide) +
                              "1       20      3       4       5       ann@example.net\n" + "blocked  count1  " +
                              padded(ends, wide) + "30      2       0       0       0       bob@example.net\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.exitCode, 0);
}

TEST_F(VellumctlRate, AListForPrograms) {
    fill();
    EXPECT_EQ(shown({}), json({nullJson(), annJson(), bobJson()}));
    EXPECT_EQ(run({"rate", "list", "--json", "--sender", "<>"}).out,
              "[\n{\"sender\":\"<>\",\"totals\":[0,0,0,0,0],\"state\":\"7\",\"reason\":5,\"blocked_until\":" +
                  std::to_string(over) + "}\n]\n");
}

TEST_F(VellumctlRate, FiltersShowWhatMatches) {
    fill();
    EXPECT_EQ(shown({"--blocked"}), json::array({bobJson()})) << "a block that is over is none";
    EXPECT_EQ(shown({"--active"}), json({annJson(), bobJson()}));
    EXPECT_EQ(shown({"--reason", "5"}), json::array({nullJson()}));
    EXPECT_EQ(shown({"--reason", "2"}), json::array());
    EXPECT_EQ(shown({"--sender", "B*@EXAMPLE.net"}), json::array({bobJson()}));
    EXPECT_EQ(shown({"--sender", "/^ann/", "--blocked"}), json::array());
}

TEST_F(VellumctlRate, SortsAndLimitsWhenItIsToldTo) {
    fill();
    EXPECT_EQ(shown({"--sort", "count1", "--reverse"}), json({bobJson(), annJson(), nullJson()}));
    EXPECT_EQ(shown({"--sort", "count2"}), json({nullJson(), bobJson(), annJson()}));
    EXPECT_EQ(shown({"--sort", "count5", "--reverse", "--limit", "1"}), json::array({annJson()}));
    EXPECT_EQ(shown({"--sort", "blocked-until"}), json({annJson(), nullJson(), bobJson()}));
    EXPECT_EQ(shown({"--sort", "sender", "--reverse"}), json({bobJson(), annJson(), nullJson()}));
    EXPECT_EQ(shown({"--limit", "2"}), json({nullJson(), annJson()}));
}

TEST_F(VellumctlRate, AnEmptyCacheIsAHeaderOrAnEmptyArray) {
    EXPECT_EQ(run({"rate", "list"}).out,
              "STATE  REASON  BLOCKED UNTIL  COUNT1  COUNT2  COUNT3  COUNT4  COUNT5  SENDER\n");
    EXPECT_EQ(run({"rate", "list", "--no-header"}).out, "");
    EXPECT_EQ(run({"rate", "list", "--json"}).out, "[]\n");
}

TEST_F(VellumctlRate, SendersCannotDriveATerminalAndAreTellableInJson) {
    m_senders.entryOf(mailbox("\x1b[2J\xff\"@x"));
    ChildResult const table = run({"rate", "list", "--no-header"});
    EXPECT_EQ(table.out, "normal  -  -  0  0  0  0  0  \\x1b[2J\\xff\"@x\n");
    json const listed = shown({});
    EXPECT_EQ(listed.at(0).at("sender"), "\x1b[2J\xc3\xbf\"@x");
    EXPECT_EQ(listed.at(0).at("sender_hex"), "1b5b324aff224078");
}

TEST_F(VellumctlRate, AReaderThatGoesAwayStopsTheListing) {
    std::atomic<bool> stopped{false};
    answer(IPC::PduType::listSenderRates, [&](IPC::SocketIPC& client, IPC::Pdu const&) {
        IPC::Listing listing(client, std::numeric_limits<std::int32_t>::max());
        SharedLock const hold(Entry::s_lock);
        SenderRateControl::Packet const packet(mailbox("a@b"), RefEntry(true), 0);
        while (listing.send(IPC::PduType::senderRateEntry, packet)) {
        }
        stopped = true;
        listing.end();
        return 0;
    });
    ChildOptions head;
    head.readLines = 3;
    EXPECT_EQ(run({"rate", "list", "--no-header"}, head).exitCode, 0);
    EXPECT_TRUE(stopped);
}

TEST_F(VellumctlRate, WhatIsNoRecordEndsTheListing) {
    answer(IPC::PduType::listSenderRates, [](IPC::SocketIPC& client, IPC::Pdu const&) {
        client << IPC::PduIntValue(1);
        client.send(IPC::PduType::senderRateEntry, "short", 5);
        return 0;
    });
    ChildResult const result = run({"rate", "list"});
    EXPECT_EQ(result.exitCode, 4);
    EXPECT_EQ(result.err, "vellumctl rate list: the daemon sent a record that is none: RateRecord::decode (code 4, "
                          "RateRecord): a record of 5 bytes, expected 304\n");
}

// One sender's half hour, with counts `back` periods before `time`'s.
void count(Entry const& entry, long time, std::initializer_list<std::pair<unsigned int, unsigned int>> counts) {
    for (auto const& [back, amount] : counts) {
        entry.increment(Entry::Attribute1, static_cast<unsigned int>(time / 300) - back, amount);
    }
}

// Runs `check` with a time whose period did not end meanwhile; so what the program shows is known.
template <class Check>
void withinOnePeriod(Check check) {
    for (;;) {
        long const before = std::time(nullptr);
        auto const shown = check(before);
        if (std::time(nullptr) / 300 == before / 300) {
            shown();
            return;
        }
    }
}

TEST_F(VellumctlRate, SixSlotsOfASenderWithABarEach) {
    withinOnePeriod([&](long time) {
        m_senders.clear();
        RefEntry const ann = entry("ann@example.net");
        count(*ann, time, {{0, 30}, {1, 15}, {2, 1}, {5, 100}, {6, 5000}});
        ann->increment(Entry::Attribute3, static_cast<unsigned int>(time / 300) - 1, 35);
        ChildResult const result = run({"rate", "show", "ann@example.net"});
        return [result, time] {
            auto const from = [time](int back) {
                return localTime((time / 300 - back) * 300);
            };
            EXPECT_EQ(result.out,
                      "FROM              COUNT1  COUNT2  COUNT3  COUNT4  COUNT5  TOGETHER\n" +                        //
                          from(5) + "  100     0       0       0       0       100  " + std::string(30, '#') + "\n" + //
                          from(4) + "  0       0       0       0       0         0\n" +                               //
                          from(3) + "  0       0       0       0       0         0\n" +                               //
                          from(2) + "  1       0       0       0       0         1  #\n" +                            //
                          from(1) + "  15      0       35      0       0        50  " + std::string(15, '#') + "\n" + //
                          from(0) + "  30      0       0       0       0        30  " + std::string(9, '#') + "\n" +  //
                          "half hour         146     0       35      0       0       181\n");
            EXPECT_EQ(result.err, "");
            EXPECT_EQ(result.exitCode, 0);
        };
    });
}

TEST_F(VellumctlRate, SixSlotsForPrograms) {
    withinOnePeriod([&](long time) {
        m_senders.clear();
        count(*entry(""), time, {{0, 0xFFFFFFFF}, {5, 2}, {7, 9}});
        ChildResult const result = run({"rate", "show", "<>", "--json"});
        return [result, time] {
            json periods = json::array();
            for (long back = 5; back >= 0; --back) {
                std::uint32_t const first = back == 0 ? 0xFFFFFFFF : (back == 5 ? 2 : 0);
                periods.push_back({{"from", (time / 300 - back) * 300}, {"counts", {first, 0, 0, 0, 0}}});
            }
            EXPECT_EQ(json::parse(result.out, nullptr, false),
                      json({{"sender", "<>"}, {"periods", periods}, {"totals", {0xFFFFFFFF + 2L, 0, 0, 0, 0}}}));
            EXPECT_EQ(result.exitCode, 0);
        };
    });
}

TEST_F(VellumctlRate, ASenderThatIsNotKnownHasSentNothing) {
    ChildResult const result = run({"rate", "show", "nobody@example.net", "--no-header"});
    EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 7);
    EXPECT_NE(result.out.find("\nhalf hour         0  0  0  0  0  0\n"), std::string::npos) << result.out;
    EXPECT_EQ(result.out.find('#'), std::string::npos);
    EXPECT_EQ(result.exitCode, 0);
    SharedLock const hold(m_senders.lock);
    EXPECT_EQ(m_senders.sizeNoLock(), 0U);
}

TEST_F(VellumctlRate, WhatIsNoMailboxIsNotAskedFor) {
    ChildResult const result = run({"rate", "show", "two words"});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.err, "vellumctl rate show: \"two words\" is not a mailbox: a blank, an angle bracket or a second "
                          "'@' is outside quotes\n");
    EXPECT_EQ(run({"rate", "show", ""}).exitCode, 2);
}

TEST_F(VellumctlRate, RecordsThatEndTooEarlyAreNotShown) {
    answer(IPC::PduType::listSenderRateRecords, [](IPC::SocketIPC& client, IPC::Pdu const&) {
        client.send(IPC::PduType::senderRateRecord, std::string(28, '\0').data(), 28);
        return -1;
    });
    ChildResult const result = run({"rate", "show", "a@b"});
    EXPECT_EQ(result.exitCode, 4);
    EXPECT_EQ(result.out, "");
}

} // namespace
} // namespace Vellum::Tools
