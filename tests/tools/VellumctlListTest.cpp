#include "tests/tools/VellumctlFixture.h"

#include "foundation/FileDescriptor.h"
#include "foundation/ipc/Listing.h"
#include "greylist/GlDisplay.h"
#include "tests/support/GreylistIdentities.h"
#include "tools/vellumctl/TimeText.h"

#include <algorithm>
#include <atomic>
#include <ctime>
#include <future>
#include <limits>
#include <netinet/in.h>
#include <sys/socket.h>

namespace Vellum::Tools {
namespace {

using GreyList::exemption;
using GreyList::Status;
using GreyList::tuple;
using nlohmann::json;

constexpr long minute = 60;
constexpr long hour = 60 * minute;
constexpr long delay = 5 * minute; // of the configuration

class VellumctlList : public VellumctlFixture {
  protected:
    // Times are half a unit away from where their text changes, so a slow machine shows the same.
    void fill() {
        waiting = now - 30;
        passed = now - 3 * hour - 30 * minute;
        expired = now - 9 * hour - 30 * minute;
        tuples().add(tuple("192.0.2.0/24", "early@example.net", "b@example.org"),
                     Status(waiting, waiting + 4 * hour + 30 * minute, 0));
        tuples().add(tuple("198.51.100.0/24", "", "a@example.org"), Status(passed, passed + 8 * hour, 0));
        tuples().add(tuple("2001:db8::/64", "late@example.com", "b@example.org"),
                     Status(expired, expired + 4 * hour, 0));
    }
    json tupleJson(char const* network, char const* sender, char const* recipient, char const* state, long firstSeen,
                   long life) const {
        return {{"network", network},
                {"sender", sender},
                {"recipient", recipient},
                {"state", state},
                {"pass_time", firstSeen + delay},
                {"expiry", firstSeen + life}};
    }
    json waitingJson() const {
        return tupleJson("192.0.2.0/24", "early@example.net", "b@example.org", "waiting", waiting,
                         4 * hour + 30 * minute);
    }
    json passedJson() const { return tupleJson("198.51.100.0/24", "<>", "a@example.org", "passed", passed, 8 * hour); }
    json expiredJson() const {
        return tupleJson("2001:db8::/64", "late@example.com", "b@example.org", "expired", expired, 4 * hour);
    }
    // What a listing with these words shows, as JSON.
    json shown(std::vector<std::string> words) const {
        words.insert(words.begin(), {"greylist", "list", "--json"});
        ChildResult const result = run(words);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.err, "");
        return json::parse(result.out, nullptr, false);
    }
    // Answers a request for tuples with records without end, until it is told to stop.
    void listWithoutEnd() {
        answer(IPC::PduType::listTuples, [this](IPC::SocketIPC& client, IPC::Pdu const&) {
            IPC::Listing listing(client, std::numeric_limits<std::int32_t>::max());
            GreyList::Packet const packet(tuple(1), Status(now, now + hour, 0), now);
            while (listing.send(IPC::PduType::tupleRecord, packet)) {
                ++sent;
            }
            stopped = true;
            listing.end();
            return 0;
        });
    }
    // Answers a request for tuples with some records, and then as `end` does.
    void listAndThen(FunctionHandler::Task const& end) {
        answer(IPC::PduType::listTuples, [this, end](IPC::SocketIPC& client, IPC::Pdu const& request) {
            IPC::Listing listing(client, 10);
            for (unsigned int n = 0; n < 3; ++n) {
                listing.send(IPC::PduType::tupleRecord, GreyList::Packet(tuple(n), Status(now, now + hour, 0), now));
            }
            return end(client, request);
        });
    }

    long const now = std::time(nullptr);
    long waiting = 0; // when each of the three was first seen
    long passed = 0;
    long expired = 0;
    std::atomic<bool> stopped{false};
    std::atomic<std::uint64_t> sent{0};
};

std::size_t linesOf(std::string const& text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

TEST_F(VellumctlList, ATableForPeople) {
    fill();
    ChildResult const result = run({"greylist", "list"});
    auto const line = [](std::string const& network, std::string const& state, std::string const& passes,
                         std::string const& expires, std::string const& sender, std::string const& recipient) {
        auto const padded = [](std::string const& text, std::size_t columns) {
            return text + std::string(columns - text.size() + 2, ' ');
        };
        return padded(network, 15) + padded(state, 7) + padded(passes, 27) + padded(expires, 26) + padded(sender, 17) +
               recipient + "\n";
    };
    EXPECT_EQ(result.out, line("NETWORK", "STATE", "MAY PASS", "EXPIRES", "SENDER", "RECIPIENT") +
                              line("192.0.2.0/24", "waiting", localTime(waiting + delay) + " (in 4 min)",
                                   localTime(waiting + 4 * hour + 30 * minute) + " (in 4 h)", "early@example.net",
                                   "b@example.org") +
                              line("198.51.100.0/24", "passed", localTime(passed + delay) + " (3 h ago)",
                                   localTime(passed + 8 * hour) + " (in 4 h)", "<>", "a@example.org") +
                              line("2001:db8::/64", "expired", localTime(expired + delay) + " (9 h ago)",
                                   localTime(expired + 4 * hour) + " (5 h ago)", "late@example.com", "b@example.org"));
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.exitCode, 0);
}

TEST_F(VellumctlList, AJsonArrayForPrograms) {
    fill();
    EXPECT_EQ(shown({}), json({waitingJson(), passedJson(), expiredJson()}));
}

TEST_F(VellumctlList, FiltersShowWhatMatches) {
    fill();
    EXPECT_EQ(shown({"--waiting"}), json::array({waitingJson()}));
    EXPECT_EQ(shown({"--passed"}), json::array({passedJson()}));
    EXPECT_EQ(shown({"--expired", "--waiting"}), json({waitingJson(), expiredJson()}));
    EXPECT_EQ(shown({"--network", "198.51.100.7"}), json::array({passedJson()}));
    EXPECT_EQ(shown({"--sender", "<>"}), json::array({passedJson()}));
    EXPECT_EQ(shown({"--sender", "*@EXAMPLE.NET"}), json::array({waitingJson()}));
    EXPECT_EQ(shown({"--recipient", "b@*"}), json({waitingJson(), expiredJson()}));
    EXPECT_EQ(shown({"--recipient", "b@*", "--waiting", "--network", "198.51.100.0/24"}), json::array());
}

TEST_F(VellumctlList, SortsWhenItIsToldTo) {
    fill();
    EXPECT_EQ(shown({"--sort", "expiry"}), json({expiredJson(), waitingJson(), passedJson()}));
    EXPECT_EQ(shown({"--sort", "sender"}), json({passedJson(), waitingJson(), expiredJson()}));
    EXPECT_EQ(shown({"--sort", "network", "--reverse"}), json({expiredJson(), passedJson(), waitingJson()}));
    EXPECT_EQ(shown({"--sort", "pass-time", "--limit", "2"}), json({expiredJson(), passedJson()}));
    EXPECT_EQ(shown({"--sort", "recipient"}), json({passedJson(), waitingJson(), expiredJson()}))
        << "equal ones stay as they were sent";
}

TEST_F(VellumctlList, AnEmptyCacheIsAHeaderOrAnEmptyArray) {
    EXPECT_EQ(run({"greylist", "list"}).out, "NETWORK  STATE  MAY PASS  EXPIRES  SENDER  RECIPIENT\n");
    EXPECT_EQ(run({"greylist", "list", "--no-header"}).out, "");
    EXPECT_EQ(run({"greylist", "list", "--json"}).out, "[]\n");
    EXPECT_EQ(run({"greylist", "exemptions"}).out, "NETWORK  STATE  EXPIRES  DOMAIN\n");
    EXPECT_EQ(run({"greylist", "exemptions"}).exitCode, 0);
}

TEST_F(VellumctlList, ExemptionsAreListedByDomain) {
    exemptions().add(exemption("192.0.2.0/24", "b.example"), Status(now, now + 4 * hour + 30 * minute, 0));
    exemptions().add(exemption("2001:db8::/64", "a.example"), Status(0, 0, 0));
    std::string const held = timeText(now + 4 * hour + 30 * minute, now);
    EXPECT_EQ(run({"greylist", "exemptions"}).out,
              "NETWORK        STATE    EXPIRES" + std::string(timeText(0, now).size() - 5, ' ') +
                  "DOMAIN\n"
                  "2001:db8::/64  expired  " +
                  timeText(0, now) +
                  "  a.example\n"
                  "192.0.2.0/24   active   " +
                  held + std::string(timeText(0, now).size() - held.size() + 2, ' ') + "b.example\n");
    EXPECT_EQ(run({"greylist", "exemptions", "--json", "--active"}).out,
              "[\n{\"network\":\"192.0.2.0/24\",\"domain\":\"b.example\",\"state\":\"active\",\"expiry\":" +
                  std::to_string(now + 4 * hour + 30 * minute) + "}\n]\n");
    EXPECT_EQ(linesOf(run({"greylist", "exemptions", "--domain", "A.*", "--no-header"}).out), 1U);
}

TEST_F(VellumctlList, AddressesCannotDriveATerminalAndAreTellableInJson) {
    std::string const foreign = "\x1b[2J\xff\n\"@x";
    tuples().add(tuple("192.0.2.0/24", foreign, "b@example.org"), Status(now, now + hour, 0));
    ChildResult const table = run({"greylist", "list", "--no-header"});
    EXPECT_NE(table.out.find("  \\x1b[2J\\xff\\n\"@x  b@example.org\n"), std::string::npos) << table.out;
    json const listed = shown({});
    EXPECT_EQ(listed.at(0).at("sender"), "\x1b[2J\xc3\xbf\n\"@x");
    EXPECT_EQ(listed.at(0).at("sender_hex"), "1b5b324aff0a224078");
    EXPECT_FALSE(listed.at(0).contains("recipient_hex"));
}

TEST_F(VellumctlList, ManyRecordsArriveWholeAndInOrder) {
    constexpr unsigned int many = 20000;
    for (unsigned int n = 0; n < many; ++n) {
        tuples().add(tuple(n), Status(now, now + hour, 0));
    }
    json const listed = shown({});
    ASSERT_EQ(listed.size(), many);
    for (unsigned int n = 0; n < many; ++n) {
        ASSERT_EQ(listed[n].at("sender"), tuple(n)->sender().address());
    }
    EXPECT_EQ(linesOf(run({"greylist", "list", "--no-header"}).out), many);
}

TEST_F(VellumctlList, AReaderThatGoesAwayStopsTheListing) {
    listWithoutEnd();
    for (char const* form : {"--no-header", "--json"}) {
        stopped = false;
        ChildOptions head;
        head.readLines = 3;
        ChildResult const result = run({"greylist", "list", form}, head);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.err, "");
        EXPECT_GE(linesOf(result.out), 3U);
        EXPECT_TRUE(stopped);
    }
}

TEST_F(VellumctlList, AReaderThatGoesAwayIsNoticedWhenNothingIsShown) {
    listWithoutEnd();
    ChildOptions nobody;
    nobody.readLines = 0;
    ChildResult const result = run({"greylist", "list", "--no-header", "--sender", "nobody"}, nobody);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(stopped);
}

TEST_F(VellumctlList, AReaderThatPausesDoesNotHoldUpTheDaemon) {
    constexpr unsigned int many = 50000; // 28 MB, far more than the daemon and two sockets buffer
    std::promise<bool> listed;
    answer(IPC::PduType::listTuples, [&](IPC::SocketIPC& client, IPC::Pdu const&) {
        try {
            IPC::Listing listing(client, many);
            for (unsigned int n = 0; n < many; ++n) {
                listing.send(IPC::PduType::tupleRecord, GreyList::Packet(tuple(n), Status(now, now + hour, 0), now));
            }
            listing.end();
            listed.set_value(true);
            return 0;
        } catch (Exception const&) {
            listed.set_value(false);
            return -1;
        }
    });
    ChildOptions less;
    less.beforeReading = [&] {
        listed.get_future().wait();
    };
    ChildResult const result = run({"greylist", "list", "--no-header"}, less);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(linesOf(result.out), many);
}

TEST_F(VellumctlList, ALimitStopsTheListing) {
    listWithoutEnd();
    ChildResult const result = run({"greylist", "list", "--no-header", "--limit", "5"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(linesOf(result.out), 5U);
    EXPECT_TRUE(stopped);
}

TEST_F(VellumctlList, ALimitAtTheLastRecordNeedsNoStop) {
    fill();
    EXPECT_EQ(shown({"--limit", "3"}), json({waitingJson(), passedJson(), expiredJson()}));
    EXPECT_EQ(shown({"--limit", "2"}), json({waitingJson(), passedJson()}));
    for (CapturingLogger::Line const& line : m_log.lines()) {
        EXPECT_LT(line.severity, Logger::Severity::warning) << line.text;
    }
}

TEST_F(VellumctlList, AProgressBarAppearsOnATerminal) {
    listWithoutEnd();
    ChildOptions options;
    options.terminal = true;
    options.readUntil = " of 2147483647 records";
    ChildResult const result = run({"greylist", "list"}, options);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_NE(result.err.find("\r["), std::string::npos) << result.err;
    EXPECT_EQ(result.err.back(), '\r') << "it is wiped out";
}

TEST_F(VellumctlList, AListingThatBreaksIsIncomplete) {
    listAndThen([](IPC::SocketIPC&, IPC::Pdu const&) { return -1; });
    ChildResult const table = run({"greylist", "list", "--no-header"});
    EXPECT_EQ(table.exitCode, 4);
    EXPECT_EQ(linesOf(table.out), 3U);
    EXPECT_EQ(table.err, "vellumctl greylist list: the conversation with the state daemon broke: the daemon ended the "
                         "connection\n");
    ChildResult const array = run({"greylist", "list", "--json"});
    EXPECT_EQ(array.exitCode, 4);
    EXPECT_TRUE(json::parse(array.out, nullptr, false).is_discarded()) << "a part must not look like a whole";
    EXPECT_TRUE(json::parse(array.out + "]", nullptr, false).is_array());
}

TEST_F(VellumctlList, AUnitThatHasNoPlaceInTheListingMakesItIncomplete) {
    listAndThen([](IPC::SocketIPC& client, IPC::Pdu const&) {
        client << IPC::Pdu(IPC::PduType::exemptionRecord, 0);
        return 0;
    });
    ChildResult const result = run({"greylist", "list"});
    EXPECT_EQ(result.exitCode, 4);
    EXPECT_EQ(result.err, "vellumctl greylist list: the daemon sent a unit of type 8 with 0 bytes, which has no place "
                          "here\n");
}

TEST_F(VellumctlList, ARecordOfAnotherSizeMakesItIncomplete) {
    listAndThen([](IPC::SocketIPC& client, IPC::Pdu const&) {
        std::int32_t const something = 7;
        client.send(IPC::PduType::tupleRecord, &something, sizeof something);
        return 0;
    });
    ChildResult const result = run({"greylist", "list"});
    EXPECT_EQ(result.exitCode, 4);
    EXPECT_NE(result.err.find("a record of 4 bytes, expected 560"), std::string::npos) << result.err;
}

TEST_F(VellumctlList, AListingWithoutItsCountIsIncomplete) {
    answer(IPC::PduType::listTuples, [](IPC::SocketIPC& client, IPC::Pdu const&) {
        client << IPC::Pdu(IPC::PduType::endOfListing, 0);
        return 0;
    });
    EXPECT_EQ(run({"greylist", "list"}).exitCode, 4);
}

TEST_F(VellumctlList, ADaemonThatClosesWithoutAnAnswerDoesNotServeThisUser) {
    answer(IPC::PduType::listTuples, [](IPC::SocketIPC&, IPC::Pdu const&) { return -1; });
    ChildResult const result = run({"greylist", "list"});
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.err.find("vellumctl greylist list: the state daemon on port " + std::to_string(port()) +
                              " closed the connection without an answer: it may not serve user "),
              0U)
        << result.err;
}

TEST_F(VellumctlList, WithoutADaemonItSaysSo) {
    unsigned int const nowUnused = port();
    m_dispatcher.stop();
    ChildResult const result =
        runChild(VELLUM_BINARY_DIR "/bin/vellumctl", {"greylist", "list", "--port", std::to_string(nowUnused)});
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "vellumctl greylist list: no state daemon on port " + std::to_string(nowUnused) +
                              ": Connection refused\n");
}

TEST_F(VellumctlList, ADaemonThatSaysNothingIsNotWaitedForForEver) {
    FileDescriptor const listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), length), 0);
    ASSERT_EQ(::listen(listener.get(), 1), 0);
    ASSERT_EQ(::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    ChildResult const result =
        runChild(VELLUM_BINARY_DIR "/bin/vellumctl",
                 {"greylist", "list", "--timeout", "1", "--port", std::to_string(ntohs(address.sin_port))});
    EXPECT_EQ(result.exitCode, 4);
    EXPECT_NE(result.err.find("no answer within"), std::string::npos) << result.err;
}

TEST_F(VellumctlList, AFullDiskIsAFailure) {
    fill();
    ChildOptions full;
    full.standardOutput = "/dev/full";
    ChildResult const result = run({"greylist", "list"}, full);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "vellumctl greylist list: cannot write the output: No space left on device\n");
}

TEST_F(VellumctlList, AWrongCommandLineIsSaidBeforeAnythingIsAsked) {
    ChildResult const result = run({"greylist", "list", "--limit", "ten"});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.err, "vellumctl greylist list: --limit \"ten\" is not a whole number\n");
}

} // namespace
} // namespace Vellum::Tools
