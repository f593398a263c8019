#include "tools/vellumctl/Arguments.h"

#include "tools/vellumctl/Failure.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <vector>

namespace Vellum::Tools {
namespace {

std::optional<Arguments> parse(std::vector<char const*> words, std::string* shown = nullptr) {
    words.insert(words.begin(), "vellumctl");
    std::ostringstream out;
    auto arguments = parseArguments(static_cast<int>(words.size()), words.data(), out);
    if (shown != nullptr) {
        *shown = out.str();
    }
    return arguments;
}

// What is wrong with a command line; empty when nothing is.
std::string complaint(std::vector<char const*> const& words) {
    try {
        parse(words);
        return {};
    } catch (Failure const& failed) {
        EXPECT_EQ(failed.exitCode(), ExitCode::usage);
        return failed.what();
    }
}

bool startsWith(std::string const& text, std::string const& start) {
    return text.substr(0, start.size()) == start;
}

TEST(Arguments, CommandsAreKnownByTheirNames) {
    struct {
        std::vector<char const*> words;
        Command command;
        char const* name;
    } const cases[] = {
        {{"status"}, Command::status, "status"},
        {{"backup"}, Command::backup, "backup"},
        {{"restore", "/x"}, Command::restore, "restore"},
        {{"greylist", "list"}, Command::list, "greylist list"},
        {{"greylist", "exemptions"}, Command::list, "greylist exemptions"},
        {{"greylist", "reload"}, Command::reload, "greylist reload"},
        {{"greylist", "accept-empty"}, Command::acceptEmpty, "greylist accept-empty"},
        {{"reputation", "list"}, Command::reputationList, "reputation list"},
        {{"reputation", "show", "192.0.2.1"}, Command::reputationShow, "reputation show"},
        {{"reputation", "set-state", "192.0.2.1", "3"}, Command::reputationSetState, "reputation set-state"},
        {{"reputation", "reload"}, Command::reputationReload, "reputation reload"},
        {{"reputation", "accept-empty"}, Command::reputationAcceptEmpty, "reputation accept-empty"},
        {{"endpoint", "reload"}, Command::endpointReload, "endpoint reload"},
        {{"endpoint", "accept-empty"}, Command::endpointAcceptEmpty, "endpoint accept-empty"},
        {{"rate", "list"}, Command::rateList, "rate list"},
        {{"rate", "show", "a@b"}, Command::rateShow, "rate show"}};
    for (auto const& expected : cases) {
        auto const arguments = parse(expected.words);
        ASSERT_TRUE(arguments);
        EXPECT_EQ(arguments->command, expected.command);
        EXPECT_EQ(arguments->name, expected.name);
    }
}

TEST(Arguments, ThePlaceMayStandBeforeAndBehindTheCommand) {
    for (auto const& words :
         {std::vector<char const*>{"--port", "4000", "--ipv6", "--json", "--timeout", "7", "status"},
          {"status", "--port", "4000", "--ipv6", "--json", "--timeout", "7"}}) {
        auto const arguments = parse(words);
        ASSERT_TRUE(arguments);
        EXPECT_EQ(arguments->place.port, 4000U);
        EXPECT_TRUE(arguments->place.ipv6);
        EXPECT_TRUE(arguments->json);
        EXPECT_EQ(arguments->place.timeout, std::chrono::seconds(7));
    }
}

TEST(Arguments, UnlessToldOtherwiseItIsTheWellKnownPortOfTheIpv4Loopback) {
    auto const arguments = parse({"greylist", "list"});
    EXPECT_EQ(arguments->place.port, 29001U);
    EXPECT_FALSE(arguments->place.ipv6);
    EXPECT_FALSE(arguments->json);
    EXPECT_EQ(arguments->place.timeout, std::chrono::seconds(60));
    EXPECT_EQ(parse({"backup"})->place.timeout, std::chrono::seconds(600)) << "it waits for the database";
}

TEST(Arguments, AListingTakesFiltersAndAShape) {
    ListRequest const list =
        parse({"greylist", "list", "--network", "192.0.2.0/24", "--sender", "*@example.net", "--recipient", "/^post/",
               "--waiting", "--expired", "--limit", "10", "--sort", "pass-time", "--reverse", "--no-header"})
            ->list;
    EXPECT_EQ(list.style.listed, Listed::tuples);
    EXPECT_FALSE(list.style.header);
    EXPECT_EQ(list.filter.network->asString(), "192.0.2.0/24");
    EXPECT_EQ(list.filter.sender.asString(), "*@example.net");
    EXPECT_EQ(list.filter.recipient.asString(), "/^post/");
    EXPECT_TRUE(list.filter.waiting && list.filter.expired);
    EXPECT_FALSE(list.filter.passed || list.filter.active);
    EXPECT_EQ(list.limit, 10U);
    EXPECT_EQ(list.sort, SortBy::passTime);
    EXPECT_TRUE(list.reverse);
}

TEST(Arguments, AListingWithoutOptionsShowsEverythingAsItIsSent) {
    ListRequest const list = parse({"greylist", "exemptions"})->list;
    EXPECT_EQ(list.style.listed, Listed::exemptions);
    EXPECT_TRUE(list.style.header);
    EXPECT_FALSE(list.filter.network || list.limit || list.reverse);
    EXPECT_TRUE(list.filter.sender.isEmpty() && list.filter.recipient.isEmpty());
    EXPECT_EQ(list.sort, SortBy::asSent);
}

TEST(Arguments, AFileIsMeantFromHere) {
    EXPECT_EQ(parse({"restore", "/tmp/../tmp/x.sql"})->path, "/tmp/x.sql");
    EXPECT_EQ(parse({"restore", "x.sql"})->path, (std::filesystem::current_path() / "x.sql").string());
    EXPECT_FALSE(parse({"restore", "x.sql"})->yes);
    EXPECT_TRUE(parse({"restore", "x.sql", "--yes"})->yes);
}

TEST(Arguments, WrongValuesAreNamedWithWhatWasExpected) {
    EXPECT_EQ(complaint({"greylist", "list", "--limit", "ten"}),
              "vellumctl greylist list: --limit \"ten\" is not a whole number");
    EXPECT_EQ(complaint({"greylist", "list", "--limit", "0"}),
              "vellumctl greylist list: --limit 0 is out of range: expected 1 or more");
    EXPECT_EQ(complaint({"status", "--port", "65536"}),
              "vellumctl status: --port 65536 is out of range: expected 1 to 65535");
    EXPECT_EQ(complaint({"status", "--port", "99999999999999999999"}),
              "vellumctl status: --port 99999999999999999999 is out of range: expected 1 to 65535");
    EXPECT_EQ(complaint({"status", "--timeout", "1.5"}), "vellumctl status: --timeout \"1.5\" is not a whole number");
    EXPECT_EQ(
        complaint({"greylist", "list", "--network", "example.org"}),
        "vellumctl greylist list: --network \"example.org\" is no network: expected an address, or address/length");
    EXPECT_EQ(complaint({"greylist", "list", "--sort", "size"}),
              "vellumctl greylist list: --sort \"size\" is not known: expected network, sender, recipient, pass-time "
              "or expiry");
    EXPECT_EQ(complaint({"greylist", "exemptions", "--sort", "recipient"}),
              "vellumctl greylist exemptions: --sort \"recipient\" is not known: expected network, domain or expiry");
    EXPECT_TRUE(startsWith(complaint({"greylist", "list", "--sender", "/(/"}),
                           "vellumctl greylist list: --sender \"/(/\" is no pattern: "));
    EXPECT_EQ(complaint({"restore", "\xff.sql"}), "vellumctl restore: the name of the file is not UTF-8");
    EXPECT_EQ(complaint({"restore", ""}), "vellumctl restore: the name of the file is empty");
}

TEST(Arguments, CommandLinesThatMakeNoSenseAreRefused) {
    std::vector<std::vector<char const*>> const cases = {{},
                                                         {"greylist"},
                                                         {"nonsense"},
                                                         {"status", "extra"},
                                                         {"greylist", "list", "--colour"},
                                                         {"greylist", "list", "--reverse"},
                                                         {"greylist", "list", "--limit"},
                                                         {"greylist", "exemptions", "--waiting"},
                                                         {"restore"},
                                                         {"restore", "a", "b"}};
    for (auto const& words : cases) {
        std::string all;
        for (char const* word : words) {
            all += std::string(" ") + word;
        }
        EXPECT_NE(complaint(words), "") << "vellumctl" << all;
    }
}

TEST(Arguments, AWordThatIsNotKnownIsNamed) {
    EXPECT_TRUE(startsWith(complaint({"greylist", "lst"}), "vellumctl: \"lst\" is not known here\n"));
    EXPECT_TRUE(startsWith(complaint({"stats"}), "vellumctl: \"stats\" is not known here\n"));
    EXPECT_TRUE(startsWith(complaint({"status", "--colour"}), "vellumctl: \"--colour\" is not known here\n"));
}

TEST(Arguments, HelpOfEveryCommandNamesTheExitCodes) {
    std::vector<std::vector<char const*>> const cases = {{"--help"},
                                                         {"status", "--help"},
                                                         {"greylist", "--help"},
                                                         {"greylist", "list", "-h"},
                                                         {"greylist", "exemptions", "--help"},
                                                         {"greylist", "reload", "--help"},
                                                         {"greylist", "accept-empty", "--help"},
                                                         {"backup", "--help"},
                                                         {"restore", "--help"}};
    for (auto const& words : cases) {
        std::string shown;
        EXPECT_FALSE(parse(words, &shown));
        EXPECT_NE(shown.find("Exit codes:\n  0  done\n"), std::string::npos) << shown;
    }
}

TEST(Arguments, TheVersionIsShownByEveryCommand) {
    for (auto const& words : {std::vector<char const*>{"--version"}, {"greylist", "list", "--version"}}) {
        std::string shown;
        EXPECT_FALSE(parse(words, &shown));
        EXPECT_TRUE(startsWith(shown, "vellumctl ")) << shown;
        EXPECT_EQ(shown.back(), '\n');
    }
}

TEST(Arguments, RateWordsAreChecked) {
    EXPECT_EQ(complaint({"rate", "list", "--reason", "0"}),
              "vellumctl rate list: --reason 0 is out of range: expected 1 to 5");
    EXPECT_EQ(complaint({"rate", "list", "--reason", "6"}),
              "vellumctl rate list: --reason 6 is out of range: expected 1 to 5");
    EXPECT_EQ(complaint({"rate", "list", "--reason", "five"}),
              "vellumctl rate list: --reason \"five\" is not a whole number");
    EXPECT_EQ(complaint({"rate", "list", "--limit", "0"}),
              "vellumctl rate list: --limit 0 is out of range: expected 1 or more");
    for (char const* key : {"count0", "count6", "count", "count11", "COUNT1", "expiry"}) {
        EXPECT_EQ(complaint({"rate", "list", "--sort", key}),
                  std::string("vellumctl rate list: --sort \"") + key +
                      "\" is not known: expected sender, blocked-until, or count1 to count5");
    }
    EXPECT_TRUE(startsWith(complaint({"rate", "list", "--sender", "/(/"}),
                           "vellumctl rate list: --sender \"/(/\" is no pattern: "));
    EXPECT_TRUE(startsWith(complaint({"rate"}), "vellumctl: "));
    EXPECT_TRUE(startsWith(complaint({"rate", "show"}), "vellumctl: "));
    EXPECT_EQ(parse({"rate", "show", "<ann@example.net>"})->rateShow.sender, "ann@example.net");
    EXPECT_EQ(parse({"rate", "show", "<>"})->rateShow.sender, "<>");
}

} // namespace
} // namespace Vellum::Tools
