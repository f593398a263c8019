// Random mail, decided by the daemon and by a model that is as plain as it can be.
#include "tests/daemon/DecisionFixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace Vellum::Daemon {
namespace {

using Reason = Verdict::Reason;

// An address as it is written in a message, and as it is remembered.
struct Written {
    char const* text;
    char const* folded;
    char const* domain; // of the folded sender
};

constexpr Written senders[] = {
    {"", "", ""},
    {"jo@a.example", "jo@a.example", "a.example"},
    {"jo@A.Example", "jo@a.example", "a.example"},
    {"Jo@a.example", "Jo@a.example", "a.example"},
    {"jo+1@a.example", "jo@a.example", "a.example"},
    {"al@a.example", "al@a.example", "a.example"},
    {"list-return-17-x=y@b.example", "list-return-#-x=y@b.example", "b.example"},
    {"list-return-18-x=y@b.example", "list-return-#-x=y@b.example", "b.example"},
    {"u1@c.example", "u1@c.example", "c.example"},
    {"u2@c.example", "u2@c.example", "c.example"},
    {"u3@c.example", "u3@c.example", "c.example"},
    {"root", "root", ""},
    {"exempt@d.example", "exempt@d.example", "d.example"},
};
constexpr Written recipients[] = {
    {"me@x.example", "me@x.example", ""},       {"me+list@X.example", "me@x.example", ""},
    {"you@x.example", "you@x.example", ""},     {"us@y.example", "us@y.example", ""},
    {"abuse@y.example", "abuse@y.example", ""},
};
struct Client {
    char const* address;
    char const* network;
};
constexpr Client clients[] = {
    {"192.0.2.1", "192.0.2.0/24"},      {"192.0.2.200", "192.0.2.0/24"},    {"198.51.100.9", "198.51.100.0/24"},
    {"2001:db8::1", "2001:db8::/64"},   {"2001:db8::2:1", "2001:db8::/64"}, {"2001:db8:1::1", "2001:db8:1::/64"},
    {"203.0.113.25", "203.0.113.0/24"},
};

struct Envelope {
    Client client;
    Written sender;
    Written recipient;
    bool loggedIn;
};

// Lists in the order of adding stand for the caches; nothing here is quick.
class Model {
  public:
    Model(TestTimes const& times, unsigned int autoExemptAfter) : m_times(times), m_needed(autoExemptAfter) {}

    Reason decide(Envelope const& mail, long now) {
        if (mail.loggedIn) {
            return Reason::authenticated;
        }
        if (std::string(mail.sender.text) == "exempt@d.example" ||
            std::string(mail.recipient.text) == "abuse@y.example" ||
            std::string(mail.client.network) == "203.0.113.0/24") {
            return Reason::exemptRule;
        }
        Pair const pair{mail.client.network, mail.sender.domain};
        bool const canEarn = m_needed > 0 && *mail.sender.domain != '\0';
        if (canEarn && isExempt(pair, now)) {
            return Reason::autoExempt;
        }
        return decideTuple({mail.client.network, mail.sender.folded, mail.recipient.folded}, pair, canEarn, now);
    }

  private:
    using Pair = std::pair<std::string, std::string>;
    using Tuple = std::tuple<std::string, std::string, std::string>;
    struct Record {
        Tuple tuple;
        long firstSeen;
        long expiry;
        bool hasPassed;
    };
    static constexpr long day = 86400;

    bool isExempt(Pair const& pair, long now) {
        auto const found = m_exempt.find(pair);
        if (found == m_exempt.end()) {
            return false;
        }
        if (found->second <= now) {
            m_exempt.erase(found);
            return false;
        }
        found->second = now + m_times.lifeDays * day;
        return true;
    }

    Reason decideTuple(Tuple const& tuple, Pair const& pair, bool canEarn, long now) {
        long const firstLife = m_times.firstLifeHours * 3600L;
        auto const found = std::find_if(m_tuples.begin(), m_tuples.end(), [&](auto& r) { return r.tuple == tuple; });
        if (found == m_tuples.end()) {
            m_tuples.push_back({tuple, now, now + firstLife, false});
            if (m_tuples.size() > static_cast<std::size_t>(m_times.maxRecords)) {
                m_tuples.erase(m_tuples.begin());
            }
            return Reason::fresh;
        }
        if (now > found->expiry) {
            *found = {tuple, now, now + firstLife, false};
            return Reason::restarted;
        }
        if (now < found->firstSeen + m_times.delayMinutes * 60L) {
            return Reason::earlyRetry;
        }
        bool const first = !found->hasPassed;
        found->hasPassed = true;
        found->expiry = now + m_times.lifeDays * day;
        if (first && canEarn) {
            countPass(tuple, pair, now);
        }
        return first ? Reason::passed : Reason::known;
    }

    void countPass(Tuple const& tuple, Pair const& pair, long now) {
        std::set<Tuple>& passed = m_passed[pair];
        bool const isNew = passed.count(tuple) == 0;
        std::size_t const room = static_cast<std::size_t>(m_times.maxRecords) / 4;
        if (isNew && passed.size() + 1 >= m_needed) {
            if (m_exempt.size() < room) {
                m_exempt[pair] = now + m_times.lifeDays * day;
                m_passed.erase(pair);
            }
        } else {
            passed.insert(tuple);
        }
    }

    TestTimes const m_times;
    unsigned int const m_needed;
    std::vector<Record> m_tuples; // oldest first
    std::map<Pair, long> m_exempt;
    std::map<Pair, std::set<Tuple>> m_passed;
};

GreyList::RefExemptRuleSet rules() {
    GreyList::RefExemptRuleSet set("model");
    set->add(GreyList::RefExemptRule(1, StringPattern("exempt@d.example"), {}, {}, {}));
    set->add(GreyList::RefExemptRule(2, {}, StringPattern("/^abuse@/"), {}, {}));
    set->add(GreyList::RefExemptRule(3, {}, {}, IPAddressMask("203.0.113.0/24"), {}));
    return set;
}

// Steps of time around everything that ends: the delay, the first life, the life.
long step(std::mt19937& random, TestTimes const& times) {
    long const ends[] = {times.delayMinutes * 60L, times.firstLifeHours * 3600L, times.lifeDays * 86400L};
    switch (random() % 8) {
    case 0:
        return ends[random() % 3] - 1 + static_cast<long>(random() % 3);
    case 1:
        return static_cast<long>(random() % 86400);
    default:
        return static_cast<long>(random() % 100);
    }
}

template <std::size_t N, class T>
T const& anyOf(T const (&list)[N], std::mt19937& random) {
    return list[random() % N];
}

void runAgainstModel(unsigned int seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    TestTimes const times{.delayMinutes = static_cast<int>(random() % 10),
                          .firstLifeHours = 1 + static_cast<int>(random() % 8),
                          .lifeDays = 1 + static_cast<int>(random() % 3),
                          .maxRecords = random() % 2 == 0 ? 1000 : 100};
    unsigned int const needed = random() % 5;
    DecisionFixture daemon(times, {.autoExemptAfter = needed, .exemptRules = rules()});
    Model model(times, needed);
    long now = 1'000'000'000;
    for (int i = 0; i < 3000; ++i) {
        Envelope const mail{anyOf(clients, random), anyOf(senders, random), anyOf(recipients, random),
                            random() % 50 == 0};
        Message asked = message(mail.client.address, mail.sender.text, mail.recipient.text);
        asked.authenticatedUser = mail.loggedIn ? "jo" : "";
        now += step(random, times);
        Reason const expected = model.decide(mail, now);
        Verdict const verdict = daemon.ask(asked, now);
        ASSERT_EQ(reasonText(verdict.reason), reasonText(expected))
            << "message " << i << " at " << now << ": " << mail.client.address << ' ' << mail.sender.text << " -> "
            << mail.recipient.text;
        ASSERT_EQ(verdict.action, actionOf(expected));
        if (random() % 100 == 0) {
            daemon.decision.rebuildPassCounts(now); // counts nothing that is not counted
        }
    }
}

TEST(DecisionModel, RandomMailIsDecidedAsThePlainModelDecidesIt) {
    for (unsigned int seed = 1; seed <= 40; ++seed) {
        runAgainstModel(seed);
        if (HasFatalFailure()) {
            return;
        }
    }
}

TEST(DecisionModel, AndWithANewSeedEachTime) {
    runAgainstModel(std::random_device{}());
}

} // namespace
} // namespace Vellum::Daemon
