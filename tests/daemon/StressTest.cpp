// What decides and counts, at once, for the thread sanitizer: without sockets and a database in between, so threads
// meet at the caches more often than in the whole daemon (tests/stress). VELLUM_STRESS_SECONDS=300 makes it long.
#include "tests/daemon/DecisionFixture.h"
#include "tests/daemon/FamiliesFixture.h"

#include "greylist/BackupScript.h"
#include "greylist/GlDisplay.h"
#include "mmsreputation/BackupScript.h"
#include "mmsreputation/MMSReputationDisplay.h"
#include "reputation/BackupScript.h"
#include "reputation/ReputationDisplay.h"
#include "senderratecontrol/SenderRateControlDisplay.h"
#include "tests/support/Crew.h"
#include "tests/support/RandomSource.h"
#include "tests/support/ScriptedSocket.h"

#include <gtest/gtest.h>

#include <atomic>
#include <sstream>

namespace Vellum::Daemon {
namespace {

constexpr long start = FamiliesFixture::start;
constexpr unsigned int clients = 60;
constexpr unsigned int subscribersOfAll = 20;
constexpr int leastMessages = 3000; // of each mail thread
constexpr int leastTurns = 20;      // of each other one

std::string addressOf(std::uint64_t n) {
    return "192.0." + std::to_string(n % 7) + "." + std::to_string(n % clients);
}

class Stress : public FamiliesFixture {
  public:
    Stress() {
        for (unsigned int n = 0; n < subscribersOfAll; ++n) {
            learn(addressOf(n), "1555555" + std::to_string(1000 + n));
        }
        install(0);
    }

    // One message from its connection to its end; time goes on by itself.
    void mail(std::mt19937_64& random) {
        long const now = start + m_seconds.fetch_add(7, std::memory_order_relaxed);
        std::string const client = addressOf(random());
        std::string const sender =
            "s" + std::to_string(random() % 50) + "@d" + std::to_string(random() % 5) + ".example";
        Message asked = message(client, sender, "r" + std::to_string(random() % 9) + "@example.org");
        m_decision.at(Stage::connect, asked, now);
        m_decision.at(Stage::sender, asked, now);
        Verdict const verdict = m_decision.at(Stage::recipient, asked, now);
        if (verdict.action != Verdict::Action::pass) {
            return;
        }
        MessageSummary ended = summary(client, sender);
        ended.invalidRecipients = random() % 3 == 0 ? 1 : 0;
        ended.spam = random() % 4 == 0;
        ended.infected = random() % 9 == 0;
        m_counts.messageEnded(ended, now);
    }

    static void listAll() {
        expectListing(GreyList::RecordHandler(), 5);
        expectListing(GreyList::AutoExemptHandler(), 7);
        expectListing(Reputation::EntryHandler(), 10);
        expectListing(MMSReputation::EntryRetrievalHandler(), 20);
        expectListing(SenderRateControl::EntryHandler(), 28);
        ip_addr_t const address = IPAddress(addressOf(1)).asIpAddr();
        expectListing(Reputation::RecordHandler(), 26, {reinterpret_cast<char const*>(&address), sizeof address});
        expectListing(SenderRateControl::RecordHandler(), 30, "s1@d1.example");
    }

    static void copyAll() {
        std::ostringstream out;
        GreyList::BackupSnapshot(**GreyList::TupleCache::instance(), **GreyList::DynamicExemptCache::instance())
            .write(out);
        Reputation::BackupSnapshot(reputations()).write(out);
        auto const endpoints = MMSReputation::RefCache::instance(nullptr, 0);
        MMSReputation::BackupSnapshot(*endpoints).write(out);
        EXPECT_NE(out.str().find("UNLOCK TABLES"), std::string::npos);
    }

    // Another of the administrator's doings at each turn.
    void administer(std::mt19937_64& random) {
        long const now = start + m_seconds;
        Message const asked = message(addressOf(random()), "s1@d1.example", "r1@example.org");
        switch (random() % 9) {
        case 0:
            EXPECT_FALSE(m_decision.explain(asked, now).network.asString().empty());
            break;
        case 1:
            m_decision.release(asked, now);
            break;
        case 2:
            m_counts.liftBlocks(now);
            break;
        case 3:
            m_counts.dropOldHours(now);
            break;
        case 4:
            m_decision.dropDeadExemptions(now);
            break;
        case 5:
            m_decision.rebuildPassCounts(now);
            break;
        case 6:
            install(static_cast<unsigned int>(random() % 3));
            break;
        case 7: { // the process's endpoints begin anew
            MMSReputation::EmptySource source;
            MMSReputation::RefCache::instance(&source, MMSReputation::Select::everything);
            break;
        }
        default:
            expectListing(MMSReputation::EntryRemovalHandler(), 23, "15555551001", false);
        }
    }

  private:
    static void expectListing(IPC::HandlerImpl const& handler, std::uint32_t type, std::string const& payload = "",
                              bool ends = true) {
        ScriptedClient client;
        EXPECT_EQ(handler.task(client.connection, IPC::Pdu(type, Buffer(payload.data(), payload.size(), true))), 0);
        EXPECT_EQ(client.socket.sent.ends_with(rawUnit(4)), ends) << type;
    }

    void install(unsigned int variant) {
        DecisionSettings settings;
        settings.autoExemptAfter = 2 + variant;
        settings.standing.rate = {.most = {30, 0, 0, 20 - variant, 0}, .strangers = true, .blockSeconds = 60};
        settings.standing.reputation.rejectScore = 90 - variant;
        settings.standing.endpoint.blockScore = 5 + variant;
        m_counts.install({.rate = settings.standing.rate, .endpoint = settings.standing.endpoint});
        m_decision.install(settings);
    }

    std::atomic<long> m_seconds{0};
    bool m_configured = (installTimes({.maxRecords = 500}), true); // before the caches, which read it
    Standing m_standing{&subscribers};
    Decision m_decision{
        **GreyList::TupleCache::instance(), **GreyList::DynamicExemptCache::instance(), {}, &m_standing};
    MailCounts m_counts{MailLimits{}, &subscribers};
};

TEST(Stress, EverythingAtOnce) {
    RandomSource source;
    Stress daemon;
    std::mt19937_64 random[] = {std::mt19937_64(source.any()), std::mt19937_64(source.any()),
                                std::mt19937_64(source.any())};
    Crew crew(Crew::duration(0));
    crew.add("mail", leastMessages, [&] { daemon.mail(random[0]); });
    crew.add("mail", leastMessages, [&] { daemon.mail(random[1]); });
    crew.add("listings", leastTurns, [] { Stress::listAll(); });
    crew.add("copies", leastTurns, [] { Stress::copyAll(); });
    crew.add("administration", leastTurns * 10, [&] { daemon.administer(random[2]); });
    crew.wait();
    SharedLock const hold((**GreyList::TupleCache::instance()).lock);
    EXPECT_GT((**GreyList::TupleCache::instance()).sizeNoLock(), 0U);
}

} // namespace
} // namespace Vellum::Daemon
