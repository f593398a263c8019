#include "tools/vellumctl/Arguments.h"

#include "foundation/Exception.h"
#include "foundation/Utf8.h"
#include "tools/vellumctl/ArgumentChecks.h"
#include "tools/vellumctl/EndpointArguments.h"
#include "tools/vellumctl/Failure.h"
#include "tools/vellumctl/HelpTexts.h"
#include "tools/vellumctl/RateArguments.h"
#include "tools/vellumctl/ReputationArguments.h"

#include <CLI/CLI.hpp>

#include <ctime>
#include <filesystem>

namespace Vellum::Tools {
namespace {

constexpr char const* version = "vellumctl " VELLUM_VERSION;
constexpr unsigned int highestPort = 65535;
constexpr std::uint64_t longestTimeout = std::uint64_t{24} * 60 * 60; // seconds
constexpr std::uint64_t longestInterval = 3600;                       // seconds
constexpr std::uint64_t timeoutOfListings = 60;                       // seconds
constexpr std::uint64_t timeoutOfDatabaseWork =
    std::uint64_t{10} * 60; // seconds; a load or a commit of a million rows says nothing

// What the command line says, as text; checked once it is whole.
struct Words {
    std::string port, timeout, interval, limit, network, sender, recipient, sort, path;
    bool ipv6 = false, json = false, noHeader = false, yes = false, reverse = false;
    bool waiting = false, passed = false, active = false, expired = false;
};

IPAddressMask network(std::string const& text) {
    try {
        return parseNetwork(text);
    } catch (Exception const&) {
        wrongArgument("--network \"" + text + "\" is no network: expected an address, or address/length");
    }
}

SortBy sortBy(std::string const& text, Listed listed) {
    bool const tuples = listed == Listed::tuples;
    if (text.empty()) {
        return SortBy::asSent;
    }
    if (text == "network") {
        return SortBy::network;
    }
    if (text == (tuples ? "sender" : "domain")) {
        return SortBy::sender;
    }
    if (tuples && text == "recipient") {
        return SortBy::recipient;
    }
    if (tuples && text == "pass-time") {
        return SortBy::passTime;
    }
    if (text == "expiry") {
        return SortBy::expiry;
    }
    wrongArgument("--sort \"" + text + "\" is not known: expected network, " +
                  (tuples ? "sender, recipient, pass-time" : "domain") + " or expiry");
}

std::string absolutePath(std::string const& text) {
    for (std::string_view rest = text; !rest.empty();) {
        std::size_t const length = Utf8::decode(rest).length;
        if (length == 0) {
            wrongArgument("the name of the file is not UTF-8");
        }
        rest.remove_prefix(length);
    }
    if (text.empty()) {
        wrongArgument("the name of the file is empty");
    }
    return std::filesystem::absolute(text).lexically_normal();
}

// Where the words of a command line go, and what is known of them.
class Parser {
  public:
    Parser() : m_app(HelpText::about, "vellumctl") {
        m_app.require_subcommand(1);
        m_app.footer(HelpText::exitCodes);
        addPlaceOptions(m_app);
        addPlain("status", "Show how the daemon, its caches and its backups are", Command::status, "");
        addTop();
        addGreylist();
        addReputation();
        addRate();
        addEndpoint();
        addExplain();
        addPlain("backup", "Save the caches now", Command::backup, HelpText::backup);
        addRestore();
    }

    std::optional<Arguments> parse(int count, char const* const* values, std::ostream& out) {
        try {
            m_app.parse(count, values);
        } catch (CLI::Success const& answered) { // help, version
            m_app.exit(answered, out, out);
            return std::nullopt;
        } catch (CLI::ParseError const& failed) {
            std::vector<std::string> const unknown = m_app.remaining(true);
            wrongArgument(
                "vellumctl: " +
                (unknown.empty() ? std::string(failed.what()) : "\"" + unknown.front() + "\" is not known here") +
                "\nSee vellumctl --help.");
        }
        try {
            check();
        } catch (Failure const& failed) {
            wrongArgument("vellumctl " + m_arguments.name + ": " + failed.what());
        }
        return m_arguments;
    }

  private:
    CLI::App* add(CLI::App& parent, std::string const& name, std::string const& text, std::string const& footer) {
        CLI::App* const command = parent.add_subcommand(name, text);
        command->set_version_flag("--version", version, "Show the version and exit");
        command->footer(footer.empty() ? HelpText::exitCodes : footer + "\n\n" + HelpText::exitCodes);
        return command;
    }
    CLI::App* addLeaf(CLI::App& parent, std::string const& name, std::string const& text, Command kind,
                      std::string const& footer) {
        CLI::App* const command = add(parent, name, text, footer);
        std::string const whole = pathOf(parent) + name;
        command->callback([this, kind, whole] {
            m_arguments.command = kind;
            m_arguments.name = whole;
        });
        return command;
    }
    // "endpoint blacklist " of that command; "" of the whole line.
    std::string pathOf(CLI::App& command) const {
        return &command == &m_app ? "" : pathOf(*command.get_parent()) + command.get_name() + " ";
    }
    void addPlaceOptions(CLI::App& command) {
        if (&command == &m_app) {
            command.set_version_flag("--version", version, "Show the version and exit");
        }
        std::string const group = "Where and how";
        command.add_option("--port", m_words.port, "Port of the daemon (29001)")->group(group)->type_name("N");
        command.add_flag("--ipv6", m_words.ipv6, "Connect to ::1 instead of 127.0.0.1")->group(group);
        command
            .add_option("--timeout", m_words.timeout,
                        "Give up when the daemon says nothing for so long (60; 600 for backup, restore and reload)")
            ->group(group)
            ->type_name("SECONDS");
        command.add_flag("--json", m_words.json, "Write JSON, for programs")->group(group);
    }
    void addPlain(std::string const& name, std::string const& text, Command kind, std::string const& footer) {
        addPlaceOptions(*addLeaf(m_app, name, text, kind, footer));
    }
    void addTop() {
        CLI::App& top = *addLeaf(m_app, "top", "Show what the daemon does, live", Command::top, HelpText::top);
        top.add_option("--interval", m_words.interval, "Refresh every so many seconds (1)")->type_name("SECONDS");
        top.add_flag("--once", m_arguments.top.once, "Print one page and end; needs no terminal");
        addPlaceOptions(top);
    }
    void addGreylist() {
        CLI::App& greylist = *add(m_app, "greylist", "Tuples and automatic exemptions", "");
        greylist.require_subcommand(1);
        addList(greylist);
        addExemptions(greylist);
        addPlaceOptions(
            *addLeaf(greylist, "reload", "Load the caches from the tables again", Command::reload, HelpText::reload));
        addPlaceOptions(*addLeaf(greylist, "accept-empty", "Give up tables that could not be loaded",
                                 Command::acceptEmpty, HelpText::acceptEmpty));
        addRelease(greylist);
    }
    void addReputation() {
        CLI::App& reputation = *add(m_app, "reputation", "Scores of client addresses and what they sent", "");
        reputation.require_subcommand(1);
        CLI::App& list = *addLeaf(reputation, "list", "List the addresses: score, state and last change",
                                  Command::reputationList, HelpText::reputationList);
        list.add_option("--network", m_reputation.network, "Only addresses in this network (192.0.2.0/24)")
            ->type_name("NETWORK");
        list.add_option("--state", m_reputation.state, "Only addresses of this state")->type_name("STATE");
        list.add_option("--min-score", m_reputation.minScore, "Only scores from N on")->type_name("N");
        addShapeOptions(list, "address, score, state or change");
        CLI::App& show = *addLeaf(reputation, "show", "Show one address's twelve hours, one on each line",
                                  Command::reputationShow, HelpText::reputationShow);
        show.add_option("ADDRESS", m_reputation.address, "IPv4 or IPv6")->required()->type_name("");
        show.add_flag("--no-header", m_words.noHeader, "A table without its line of titles");
        addPlaceOptions(show);
        CLI::App& set = *addLeaf(reputation, "set-state", "Have the daemon log that an address should have a state",
                                 Command::reputationSetState, HelpText::reputationSetState);
        set.add_option("ADDRESS", m_reputation.address, "IPv4")->required()->type_name("");
        set.add_option("STATE", m_reputation.state, "unset, trusted, watched, blocked, or 0 to 3")
            ->required()
            ->type_name("");
        addPlaceOptions(set);
        addPlaceOptions(*addLeaf(reputation, "reload", "Load the cache from the tables again",
                                 Command::reputationReload, HelpText::reputationReload));
        addPlaceOptions(*addLeaf(reputation, "accept-empty", "Give up tables that could not be loaded",
                                 Command::reputationAcceptEmpty, HelpText::acceptEmpty));
    }
    void addRate() {
        CLI::App& rate = *add(m_app, "rate", "What senders sent in the last half hour", "");
        rate.require_subcommand(1);
        CLI::App& list = *addLeaf(rate, "list", "List the senders: totals of the half hour, and who is blocked",
                                  Command::rateList, HelpText::rateList);
        list.add_option("--sender", m_rate.sender, "Only senders that match")->type_name("PATTERN");
        list.add_flag("--blocked", m_rate.blocked, "Only those whose block is not over");
        list.add_flag("--active", m_rate.active, "Only those of which anything was counted");
        list.add_option("--reason", m_rate.reason, "Only those that this counter had blocked")->type_name("1-5");
        addShapeOptions(list, "sender, count1 to count5 or blocked-until");
        CLI::App& show = *addLeaf(rate, "show", "Show one sender's half hour, five minutes on each line",
                                  Command::rateShow, HelpText::rateShow);
        show.add_option("SENDER", m_rate.sender, "The mailbox; <> for the null sender")->required()->type_name("");
        show.add_flag("--no-header", m_words.noHeader, "A table without its line of titles");
        addPlaceOptions(show);
        addRateReset(rate);
    }
    void addRateReset(CLI::App& rate) {
        CLI::App& reset = *addLeaf(rate, "reset", "Lift a sender's block and count his mail afresh", Command::rateReset,
                                   HelpText::rateReset);
        reset.add_option("SENDER", m_arguments.message.sender, "The mailbox")->required()->type_name("");
        addPlaceOptions(reset);
    }
    void addRelease(CLI::App& greylist) {
        CLI::App& release = *addLeaf(greylist, "release", "Let the next message of a tuple through", Command::release,
                                     HelpText::release);
        MessageRequest& message = m_arguments.message;
        release.add_option("ADDRESS", message.address, "The client's")->required()->type_name("");
        release.add_option("SENDER", message.sender, "The mailbox; <> for a bounce")->required()->type_name("");
        release.add_option("RECIPIENT", message.recipient, "The mailbox")->required()->type_name("");
        addPlaceOptions(release);
    }
    void addExplain() {
        CLI::App& explain =
            *addLeaf(m_app, "explain", "Tell what the daemon would answer now, and every fact on the way",
                     Command::explain, HelpText::explain);
        MessageRequest& message = m_arguments.message;
        explain.add_option("ADDRESS", message.address, "The client's")->required()->type_name("");
        explain.add_option("SENDER", message.sender, "The mailbox; <> for a bounce")->type_name("");
        explain.add_option("RECIPIENT", message.recipient, "The mailbox")->type_name("");
        explain.add_option("--name", message.name, "The client's verified name, for rules that ask for it")
            ->type_name("NAME");
        explain.add_option("--user", message.user, "Who has logged in")->type_name("USER");
        addPlaceOptions(explain);
    }
    void addEndpoint() {
        CLI::App& endpoint = *add(m_app, "endpoint", "Mobile subscribers: counts, scores and lists", "");
        endpoint.require_subcommand(1);
        CLI::App& list = *addLeaf(endpoint, "list", "List the subscribers in the daemon's memory",
                                  Command::endpointList, HelpText::endpointList);
        list.add_option("--number", m_endpoint.pattern, "Only numbers that match")->type_name("PATTERN");
        list.add_flag("--blacklisted", m_endpoint.blacklisted, "Only those that are automatically blacklisted now");
        list.add_flag("--scored", m_endpoint.scored, "Only those with a score");
        addShapeOptions(list, "number, score or expiry");
        CLI::App& show = *addLeaf(endpoint, "show", "Show one subscriber", Command::endpointShow, "");
        show.add_option("NUMBER", m_endpoint.number, "Digits; a + may come first")->required()->type_name("");
        addPlaceOptions(show);
        CLI::App& remove = *addLeaf(endpoint, "remove", "Forget what was counted of a subscriber",
                                    Command::endpointRemove, HelpText::endpointRemove);
        remove.add_option("NUMBER", m_endpoint.number, "Digits; a + may come first")->required()->type_name("");
        addPlaceOptions(remove);
        addPlaceOptions(*addLeaf(endpoint, "reload", "Load the cache and both lists from the tables again",
                                 Command::endpointReload, HelpText::endpointReload));
        addPlaceOptions(*addLeaf(endpoint, "accept-empty", "Give up tables that could not be loaded",
                                 Command::endpointAcceptEmpty, HelpText::acceptEmpty));
        addEndpointList(endpoint, "blacklist", "Numbers that are always treated as bad", EndpointList::blacklist);
        addEndpointList(endpoint, "exempt", "Numbers that are never scored", EndpointList::exempt);
        CLI::App& scores = *addLeaf(endpoint, "scores", "Have the daemon dump its scores into their table, and show it",
                                    Command::endpointScores, HelpText::endpointScores);
        scores.add_option("--limit", m_words.limit, "Show so many at most")->type_name("N");
        scores.add_option("--sort", m_words.sort, "Sort by score, expiry or number, ascending")->type_name("KEY");
        scores.add_flag("--no-header", m_words.noHeader, "A table without its line of titles");
        addDatabaseOptions(scores);
    }
    void addEndpointList(CLI::App& endpoint, std::string const& name, std::string const& text, EndpointList which) {
        CLI::App& group = *add(endpoint, name, text, "");
        group.require_subcommand(1);
        auto const addChange = [&](std::string const& verb, std::string const& what, Command kind) {
            CLI::App& leaf = *addLeaf(group, verb, what, kind, HelpText::endpointLists);
            leaf.add_option("NUMBER", m_endpoint.numbers, "Digits; a + may come first")->required()->type_name("");
            addDatabaseOptions(leaf);
            leaf.preparse_callback([this, which](std::size_t) { m_arguments.namedList = which; });
        };
        addChange("add", "Put numbers on the list", Command::endpointListAdd);
        addChange("remove", "Take numbers off the list", Command::endpointListRemove);
        CLI::App& show = *addLeaf(group, "list", "Show the list, as it stands in its table", Command::endpointListShow,
                                  HelpText::endpointLists);
        show.preparse_callback([this, which](std::size_t) { m_arguments.namedList = which; });
        show.add_flag("--no-header", m_words.noHeader, "A table without its line of titles");
        addDatabaseOptions(show);
    }
    void addDatabaseOptions(CLI::App& leaf) {
        leaf.add_option("--settings", m_endpoint.settings,
                        "The daemon's settings file, for the account of the database")
            ->type_name("FILE")
            ->capture_default_str();
        addPlaceOptions(leaf);
    }
    void addList(CLI::App& greylist) {
        CLI::App& list = *addLeaf(greylist, "list", "List the tuples: network, sender, recipient, and their times",
                                  Command::list, HelpText::list);
        addNetworkOption(list);
        list.add_option("--sender", m_words.sender, "Only senders that match")->type_name("PATTERN");
        list.add_option("--recipient", m_words.recipient, "Only recipients that match")->type_name("PATTERN");
        list.add_flag("--waiting", m_words.waiting, "Those whose delay is not over");
        list.add_flag("--passed", m_words.passed, "Those whose delay is over: mail may pass");
        list.add_flag("--expired", m_words.expired, "Those that are too old");
        addShapeOptions(list, "network, sender, recipient, pass-time or expiry");
    }
    void addExemptions(CLI::App& greylist) {
        CLI::App& list = *addLeaf(greylist, "exemptions",
                                  "List the automatic exemptions: networks and domains whose mail need not wait",
                                  Command::list, HelpText::exemptions);
        m_exemptions = &list;
        addNetworkOption(list);
        list.add_option("--domain", m_words.sender, "Only domains that match")->type_name("PATTERN");
        list.add_flag("--active", m_words.active, "Those that hold");
        list.add_flag("--expired", m_words.expired, "Those that are too old");
        addShapeOptions(list, "network, domain or expiry");
    }
    void addNetworkOption(CLI::App& list) {
        list.add_option("--network", m_words.network,
                        "Only networks that hold this address, or that overlap this network (192.0.2.0/24)")
            ->type_name("NETWORK");
    }
    void addShapeOptions(CLI::App& list, std::string const& keys) {
        list.add_option("--limit", m_words.limit, "Show so many at most")->type_name("N");
        CLI::Option* const sort =
            list.add_option("--sort", m_words.sort,
                            "Sort by " + keys + "; all of them are held until the listing has ended")
                ->type_name("KEY");
        list.add_flag("--reverse", m_words.reverse, "Sort the other way round")->needs(sort);
        list.add_flag("--no-header", m_words.noHeader, "A table without its line of titles");
        addPlaceOptions(list);
    }
    void addRestore() {
        CLI::App& restore = *addLeaf(m_app, "restore", "Replace the tables and the caches by a backup",
                                     Command::restore, HelpText::restore);
        restore.add_option("FILE", m_words.path, "The script")->required()->type_name("");
        restore.add_flag("--yes", m_words.yes, "Do not ask");
        addPlaceOptions(restore);
    }

    void check() {
        Arguments& all = m_arguments;
        if (!m_words.port.empty()) {
            all.place.port = static_cast<unsigned int>(wholeNumber("--port", m_words.port, 1, highestPort));
        }
        all.place.ipv6 = m_words.ipv6;
        if (!m_words.interval.empty()) {
            all.top.interval = std::chrono::seconds(wholeNumber("--interval", m_words.interval, 1, longestInterval));
        }
        all.top.json = m_words.json;
        bool const quick = all.command == Command::list || all.command == Command::top ||
                           all.command == Command::status || all.command == Command::rateList ||
                           all.command == Command::rateShow || all.command == Command::endpointList ||
                           all.command == Command::endpointShow || all.command == Command::endpointRemove ||
                           all.command == Command::reputationList || all.command == Command::reputationShow ||
                           all.command == Command::reputationSetState || all.command == Command::explain ||
                           all.command == Command::release || all.command == Command::rateReset;
        std::uint64_t const seconds = m_words.timeout.empty()
                                          ? (quick ? timeoutOfListings : timeoutOfDatabaseWork)
                                          : wholeNumber("--timeout", m_words.timeout, 1, longestTimeout);
        all.place.timeout = std::chrono::seconds(seconds);
        all.json = m_words.json;
        checkEndpoints(all);
        all.message.json = m_words.json;
        all.message.now = std::time(nullptr);
        all.message.check();
        if (all.command == Command::list) {
            checkList(all.list);
        } else if (all.command == Command::rateList) {
            all.rateList = rateListRequest(m_rate, {m_words.limit, m_words.sort, m_words.reverse}, rateStyle());
        } else if (all.command == Command::reputationList) {
            all.reputationList =
                reputationListRequest(m_reputation, {m_words.limit, m_words.sort, m_words.reverse}, reputationStyle());
        } else if (all.command == Command::reputationShow) {
            all.reputationShow = reputationShowRequest(m_reputation, reputationStyle());
        } else if (all.command == Command::reputationSetState) {
            all.reputationSet = reputationSetRequest(m_reputation, m_words.json);
        } else if (all.command == Command::rateShow) {
            all.rateShow = rateShowRequest(m_rate, rateStyle());
        } else if (all.command == Command::endpointList) {
            all.endpointList =
                endpointListRequest(m_endpoint, {m_words.limit, m_words.sort, m_words.reverse}, endpointStyle());
        } else if (all.command == Command::endpointScores) {
            all.endpointScores = endpointScoresRequest({m_words.limit, m_words.sort, false}, endpointStyle());
        } else if (all.command == Command::restore) {
            all.path = absolutePath(m_words.path);
            all.yes = m_words.yes;
        }
    }
    // What several of the endpoint commands take.
    void checkEndpoints(Arguments& all) const {
        all.endpointStyle = endpointStyle();
        all.settings = m_endpoint.settings;
        if (all.command == Command::endpointShow || all.command == Command::endpointRemove) {
            all.endpoints = {subscriberNumber(m_endpoint.number)};
        }
        for (std::string const& number : m_endpoint.numbers) {
            all.endpoints.push_back(subscriberNumber(number));
        }
    }
    EndpointStyle endpointStyle() const { return {m_words.json, !m_words.noHeader, std::time(nullptr)}; }
    ReputationStyle reputationStyle() const { return {m_words.json, !m_words.noHeader, std::time(nullptr)}; }
    RateStyle rateStyle() const { return {m_words.json, !m_words.noHeader, std::time(nullptr)}; }
    void checkList(ListRequest& list) {
        list.style.listed = m_exemptions->parsed() ? Listed::exemptions : Listed::tuples;
        list.style.json = m_words.json;
        list.style.header = !m_words.noHeader;
        list.style.now = std::time(nullptr);
        if (!m_words.network.empty()) {
            list.filter.network = network(m_words.network);
        }
        list.filter.sender =
            patternArgument(list.style.listed == Listed::tuples ? "--sender" : "--domain", m_words.sender);
        list.filter.recipient = patternArgument("--recipient", m_words.recipient);
        list.filter.waiting = m_words.waiting;
        list.filter.passed = m_words.passed;
        list.filter.active = m_words.active;
        list.filter.expired = m_words.expired;
        if (!m_words.limit.empty()) {
            list.limit = wholeNumber("--limit", m_words.limit, 1);
        }
        list.sort = sortBy(m_words.sort, list.style.listed);
        list.reverse = m_words.reverse;
    }

    CLI::App m_app;
    CLI::App* m_exemptions = nullptr; // owned by m_app
    Words m_words;
    RateWords m_rate;
    EndpointWords m_endpoint;
    ReputationWords m_reputation;
    Arguments m_arguments;
};

} // namespace

std::optional<Arguments> parseArguments(int count, char const* const* values, std::ostream& out) {
    return Parser().parse(count, values, out);
}

} // namespace Vellum::Tools
