// What counting and timing costs a decision.
//
//   MetricsBench [--tuples N] [--turns N] [--json]
//
// The same decisions on known tuples among N, with the counters of a front and without, in turns: from one thread, and
// from two that share the counters. Then the same with every decision timed, and with one counter that all threads
// share, which are what the daemon does not do.
#include "bench/BenchSupport.h"
#include "daemon/Decision.h"
#include "daemon/DecisionCounters.h"
#include "greylist/DynamicExemptCache.h"
#include "greylist/TupleCache.h"

#include <array>
#include <atomic>
#include <random>
#include <thread>

using namespace Vellum;
using namespace Vellum::Daemon;

namespace {

constexpr long now = 1700000000;
constexpr std::size_t decisions = 400'000; // of one turn, all threads together

std::vector<Message> messagesOf(std::size_t tuples, unsigned int seed) {
    struct Id {
        Id(IPAddressMask const& network, EmailAddress const& sender, EmailAddress const& recipient) {
            std::string const text = network.asString(); // "192.0.2.0/24"
            message.client = IPAddress(text.substr(0, text.find('/')));
            message.sender = sender;
            message.recipient = recipient;
        }
        Message message;
    };
    std::mt19937_64 random(seed);
    std::vector<Message> messages;
    for (std::size_t i = 0; i < 20'000; ++i) {
        messages.push_back(Bench::identity<Id>(random() % tuples).message);
    }
    return messages;
}

// One turn of the same decisions, each handed to `count`, in milliseconds.
template <class Count>
double turn(std::vector<std::vector<Message>> const& work, Count count) {
    return Bench::milliseconds([&] {
        std::vector<std::thread> threads;
        for (std::vector<Message> const& messages : work) {
            threads.emplace_back([&messages, &work, count] {
                for (std::size_t i = 0; i < decisions / work.size(); ++i) {
                    count(messages[i % messages.size()]);
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    });
}

// The ways that are compared with a decision that nobody counts.
struct Ways {
    Decision& decision;
    DecisionCounters counters;
    std::array<std::atomic<std::uint64_t>, 64> shared{};

    void plain(Message const& message) const { decision.atRecipient(message, now); }
    void asTheFrontsDo(Message const& message) {
        counters.count(counters.timed([&] { return decision.atRecipient(message, now); }));
    }
    void allTimed(Message const& message) {
        auto const start = std::chrono::steady_clock::now();
        Verdict const verdict = decision.atRecipient(message, now);
        auto const time = std::chrono::steady_clock::now() - start;
        counters.count(verdict);
        ++shared[DurationBuckets::of(static_cast<std::uint64_t>(time.count()))];
    }
    void sharedCounter(Message const& message) {
        ++shared[static_cast<std::size_t>(decision.atRecipient(message, now).reason)];
    }
};

void compare(Decision& decision, std::size_t tuples, Bench::Options const& options) {
    Ways ways{decision, {}, {}};
    for (unsigned int const threads : {1U, 2U}) {
        std::vector<std::vector<Message>> work;
        for (unsigned int i = 0; i < threads; ++i) {
            work.push_back(messagesOf(tuples, i));
        }
        Bench::Comparison fronts;
        Bench::Comparison timed;
        Bench::Comparison shared;
        auto const plain = [&] {
            return turn(work, [&](Message const& message) { ways.plain(message); });
        };
        plain(); // warms the caches for all
        for (unsigned int i = 0; i < options.turns; ++i) {
            fronts.turn([&] { return turn(work, [&](Message const& message) { ways.asTheFrontsDo(message); }); },
                        plain);
            timed.turn([&] { return turn(work, [&](Message const& message) { ways.allTimed(message); }); }, plain);
            shared.turn([&] { return turn(work, [&](Message const& message) { ways.sharedCounter(message); }); },
                        plain);
        }
        std::string const of = std::to_string(threads) + (threads == 1 ? " thread" : " threads");
        fronts.print(("counted, one in eight timed, " + of).c_str(), tuples, options.json);
        timed.print(("counted, all timed, " + of).c_str(), tuples, options.json);
        shared.print(("one shared counter, " + of).c_str(), tuples, options.json);
    }
}

} // namespace

int main(int argc, char** argv) {
    Bench::Options const options = Bench::Options::parse(argc, argv, {100'000}, 15);
    Bench::SilentLogger const logger;
    for (std::size_t const tuples : options.sizes) {
        Bench::installConfiguration(tuples);
        GreyList::_TupleCache cache;
        GreyList::_DynamicExemptCache exemptions;
        DecisionSettings settings;
        settings.autoExemptAfter = 0;
        Decision decision(cache, exemptions, settings);
        for (unsigned int const seed : {0U, 1U}) {
            for (Message const& message : messagesOf(tuples, seed)) {
                decision.atRecipient(message, now - 1000); // so that they pass now
            }
        }
        compare(decision, tuples, options);
    }
}
