// A whole daemon with everything going on at once, for the thread sanitizer: mail over both fronts, every request of
// port 29001, metrics, backups by hand and by the job table, restores, reloads by signal and by request, a unit of a
// pair that changes sides, lists that are edited, and caches that are emptied. VELLUM_STRESS_SECONDS=300 makes it long.
#include "tests/stress/Clients.h"
#include "tests/stress/WholeDaemon.h"

#include "foundation/IPAddress.h"
#include "foundation/ipc/Dispatcher.h"
#include "fuzz/Requests.h"
#include "greylist/DynamicExemptCache.h"
#include "greylist/TupleCache.h"
#include "mmsreputation/MMSReputationDisplay.h"
#include "mmsreputation/RefCache.h"
#include "mmsreputation/vellum_mms_reputation.h"
#include "reputation/Cache.h"
#include "senderratecontrol/SenderRateControlCache.h"
#include "tests/support/Crew.h"
#include "tests/support/Eventually.h"
#include "tests/support/RandomSource.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <set>

namespace Vellum::Stress {
namespace {

using IPC::number;
using IPC::PduType;
using Json = nlohmann::json;

constexpr int usualSeconds = 5;

std::string subscriber(unsigned int n) {
    return "1555555" + std::to_string(1000 + n % WholeDaemon::subscribers);
}

template <class Cache>
std::uint32_t sizeOf(Cache const& cache) {
    SharedLock const hold(cache.lock);
    return cache.sizeNoLock();
}

void require(bool holds, std::string const& what) {
    if (!holds) {
        throw std::runtime_error(what);
    }
}

// One of the listings, whole or stopped; over a connection of its own now and then, which may read slowly or leave.
class Lister {
  public:
    Lister(unsigned int port, std::uint64_t seed) : m_port(port), m_people(seed), m_tool(port) {}

    void listOne() {
        constexpr PduType listings[] = {PduType::listTuples, PduType::listExemptions, PduType::listReputations,
                                        PduType::listEndpoints, PduType::listSenderRates};
        std::uint32_t const type = number(listings[m_people.any(std::size(listings))]);
        switch (m_people.any(6)) {
        case 0:
            m_tool.listSome(type);
            break;
        case 1: {
            ip_addr_t const address = IPAddress(m_people.client()).asIpAddr();
            m_tool.list(number(PduType::listReputationRecords),
                        {reinterpret_cast<char const*>(&address), sizeof address});
            break;
        }
        case 2:
            m_tool.list(number(PduType::listSenderRateRecords), "s1@d1.example");
            break;
        case 3: { // reads a little and goes
            RawClient leaving(m_port, "127.0.0.1", 4096);
            leaving.send(rawUnit(number(PduType::listTuples)));
            leaving.read(8);
            break;
        }
        case 4:
            Tool(m_port, 4096).list(type); // takes it in small pieces
            break;
        default:
            m_tool.list(type);
        }
    }

  private:
    unsigned int const m_port;
    Correspondents m_people;
    Tool m_tool;
};

// The requests of an administrator about state and single messages.
class Administrator {
  public:
    Administrator(WholeDaemon& daemon, std::uint64_t seed) : m_daemon(daemon), m_people(seed), m_tool(daemon.port()) {}

    void askSomething() {
        Json const message = {
            {"address", m_people.client()}, {"sender", "s1@d1.example"}, {"recipient", m_people.recipient()}};
        switch (m_people.any(8)) {
        case 0:
            require(m_tool.ask(number(PduType::adminStatus)).contains("greylist"), "no status");
            break;
        case 1:
            require(m_tool.ask(number(PduType::adminMetrics)).contains("metrics"), "no metrics");
            break;
        case 2:
            require(!m_tool.ask(number(PduType::adminExplain), message).contains("error"), "no explanation");
            break;
        case 3:
            require(m_tool.ask(number(PduType::adminRelease), message).contains("released"), "no release");
            break;
        case 4:
            require(m_tool.ask(number(PduType::adminResetRate), {{"sender", "s1@d1.example"}}).contains("known"),
                    "no reset");
            break;
        case 5:
            m_tool.ask(number(PduType::adminAcceptEmpty),
                       {{"family", std::array{"greylist", "reputation", "endpoint"}[m_people.any(3)]}});
            break;
        case 6:
            m_tool.ask(number(PduType::adminRestore), {{"path", m_daemon.scriptPath()}, {"dry_run", true}});
            break;
        default:
            require(metricsOf(m_daemon.metricsPort()).starts_with("HTTP/1.1 200 OK"), "no metrics over HTTP");
        }
    }

    // A backup of all families; refused while tables are being loaded, or have to be since this is
    // the active unit of the pair.
    void askForBackup() {
        Json const answer = m_tool.ask(number(PduType::adminBackup));
        std::string const problem = answer.value("error", "");
        require(problem.empty() || problem.find("backups are off: ") != std::string::npos,
                "a backup fails: " + answer.dump());
    }
    void backUp() { succeed(PduType::adminBackup, Json::object()); }
    // A restore of the last backup, which has to wait until that is in the tables.
    void restore() { succeed(PduType::adminRestore, {{"path", m_daemon.scriptPath()}, {"dry_run", false}}); }

  private:
    void succeed(PduType type, Json const& request) {
        Json answer;
        bool const done = eventually([&] {
            answer = m_tool.ask(number(type), request);
            return !answer.contains("error");
        });
        require(done, "does not succeed: " + request.dump() + ", " + answer.dump());
    }

    WholeDaemon& m_daemon;
    Correspondents m_people;
    Tool m_tool;
};

// All is forgotten at one moment, but not before there is something.
void clearCaches() {
    auto& tuples = **GreyList::TupleCache::instance();
    if (sizeOf(tuples) < WholeDaemon::mostTuples / 2) {
        return;
    }
    tuples.clear();
    (**GreyList::DynamicExemptCache::instance()).clear();
    (**Reputation::RefCache::instance()).clear();
    (**SenderRateControl::RefCache::instance()).clear();
}

// The requests of other tools: tables to be loaded again, states, scores, lists. And caches that are emptied.
class OtherTool {
  public:
    OtherTool(unsigned int port, std::uint64_t seed) : m_people(seed), m_tool(port) {}

    void tellSomething() {
        std::uint32_t const what = m_people.any(8); // of the endpoints; above 3 the whole cache
        switch (m_people.any(8)) {
        case 0:
            m_tool.tell(number(PduType::reloadGreylist));
            break;
        case 1:
            m_tool.tell(number(PduType::reloadReputations));
            break;
        case 2:
            m_tool.tell(number(PduType::reloadEndpoints), {reinterpret_cast<char const*>(&what), sizeof what});
            break;
        case 3: {
            std::int32_t const state[] = {0x010200C0, static_cast<std::int32_t>(m_people.any(4))};
            m_tool.tell(number(PduType::setReputationState), {reinterpret_cast<char const*>(state), sizeof state});
            break;
        }
        case 4:
            MMSReputation::ScoreTable::nextRefresh = 0; // at once
            m_tool.list(number(PduType::rebuildEndpointScores));
            break;
        case 5:
            m_tool.tell(number(PduType::removeEndpoint), subscriber(m_people.any(100)));
            break;
        case 6:
            clearCaches();
            break;
        default:
            editLists(subscriber(m_people.any(100)));
        }
    }

  private:
    static void editLists(std::string const& someNumber) {
        char const* const number = someNumber.c_str();
        require(vellum_mms_reputation_blacklist_add(number) == 0, "the blacklist takes no number");
        require(vellum_mms_reputation_exempt_add(number) == 0, "the exempt list takes no number");
        require(vellum_mms_reputation_blacklist_remove(number) == 0, "the blacklist keeps a number");
        require(vellum_mms_reputation_exempt_remove(number) == 0, "the exempt list keeps a number");
    }

    Correspondents m_people;
    Tool m_tool;
};

// Whether the daemon knows that this unit is the active one, and has loaded the tables since it is.
bool backsUp(Tool& tool) {
    Json const metrics = tool.ask(number(PduType::adminMetrics)).at("metrics");
    Json const& active = metrics.at("vellum_high_availability_active").at("samples");
    if (active.empty() || active.at(0).at("value") != 1) {
        return false;
    }
    Json const status = tool.ask(number(PduType::adminStatus));
    return status.at("backup").at("allowed") == true && status.at("reputation").at("backup").at("allowed") == true &&
           status.at("endpoints").at("backup").at("allowed") == true;
}

// So that there is a last backup.
void becomeActive(WholeDaemon& daemon) {
    daemon.setActive(true);
    Tool tool(daemon.port());
    require(eventually([&] {
                daemon.reload(0); // housekeeping looks after each, and loads once the last backup is in the tables
                return backsUp(tool);
            }),
            "this unit does not become the active one");
}

void expectTablesToHoldWhatMemoryHeld(WholeDaemon& daemon) {
    auto const rows = [&](std::string const& table) {
        return static_cast<std::uint32_t>(std::stoul(daemon.server().query("select count(*) from " + table).at(0)));
    };
    EXPECT_EQ(rows("grey_list"), sizeOf(**GreyList::TupleCache::instance()));
    EXPECT_EQ(rows("autoexempt"), sizeOf(**GreyList::DynamicExemptCache::instance()));
    EXPECT_GT(rows("grey_list"), 0U);
    EXPECT_GT(rows("sender_reputation"), 0U);
    EXPECT_GT(rows("mms_reputation"), 0U);
}

// Those among all numbers that requests have; and those that are fuzzed.
std::set<std::uint32_t> handledRequests() {
    std::set<std::uint32_t> handled;
    auto const& dispatcher = IPC::Dispatcher::instance(IPC::stateDaemonPort);
    for (std::uint32_t const first : {0U, number(PduType::adminStatus)}) {
        for (std::uint32_t type = first; type < first + 0x1000; ++type) {
            if (!dispatcher.handler(type).isNull()) {
                handled.insert(type);
            }
        }
    }
    return handled;
}
std::set<std::uint32_t> fuzzedRequests() {
    std::set<std::uint32_t> fuzzed;
    for (PduType const type : Fuzz::requests) {
        fuzzed.insert(number(type));
    }
    return fuzzed;
}

TEST(Stress, WholeDaemonAtOnce) {
    RandomSource source;
    WholeDaemon daemon;
    EXPECT_EQ(handledRequests(), fuzzedRequests()) << "each request that is handled is fuzzed (fuzz/Requests.h)";
    unsigned int const port = daemon.port();
    PolicyAsker mail[] = {{daemon.policySocket(), source.any()}, {daemon.policySocket(), source.any()}};
    MilterSender messages(daemon.milterSocket(), source.any());
    Lister lister(port, source.any());
    Administrator administrator(daemon, source.any());
    Administrator backups(daemon, source.any());
    OtherTool other(port, source.any());
    unsigned int variant = 0;

    Crew crew(Crew::duration(usualSeconds));
    crew.add("policy requests, in twenties", 300, [&] { mail[0].askMany(); });
    crew.add("policy requests, in twenties", 300, [&] { mail[1].askMany(); });
    crew.add("milter connections", 50, [&] { messages.sendSome(); });
    crew.add("listings", 50, [&] { lister.listOne(); });
    crew.add("administration", 100, [&] { administrator.askSomething(); });
    backups.backUp(); // so that there is something to restore
    crew.add("backups and restores", 2, [&] {
        backups.askForBackup();
        backups.restore();
    });
    crew.add("other tools' requests", 50, [&] { other.tellSomething(); });
    crew.add("settings read again", 4, [&] {
        ++variant;
        daemon.setActive(variant % 4 != 3);
        daemon.reload(variant);
    });
    for (auto const& [name, times] : crew.wait()) {
        std::printf("  %-32s %d\n", name.c_str(), times);
    }

    becomeActive(daemon);
    backups.backUp();
    EXPECT_EQ(daemon.end(), 0);
    EXPECT_EQ(daemon.endDatabaseDaemon(), 0) << daemon.databaseDaemonOutput();
    expectTablesToHoldWhatMemoryHeld(daemon);
}

} // namespace
} // namespace Vellum::Stress
