// Policy servers side by side, under the load of mail servers: requests per second, latencies, and the server's CPU
// time for each request. Ends with 3 when one of them had to be left out.
//
// In every round each server is measured once, in turn (A B A B ...), and the medians over the rounds are shown; so
// whatever else the machine does falls on all of them alike.
#include "bench/Contenders.h"
#include "bench/Peers.h"
#include "bench/PolicyLoad.h"
#include "foundation/AllocatorTuning.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

namespace Vellum::Bench {
namespace {

std::vector<std::string> allServers() {
    std::vector<std::string> servers{"noop", "vellum-noop", "vellumd"};
    servers.insert(servers.end(), peerNames().begin(), peerNames().end());
    return servers;
}

struct Options {
    std::vector<std::string> servers = allServers();
    std::vector<std::string> transports{"unix", "tcp"};
    std::vector<unsigned int> connections{1, 4, 32};
    std::vector<std::string> keys{"known", "skewed", "new"};
    std::uint64_t tuples = 1000000;
    unsigned int rounds = 5;
    unsigned int milliseconds = 1000;
    unsigned int workers = 0;
    std::string json;
};

// ---- what was measured

struct Row {
    std::string server;
    std::string transport;
    unsigned int connections;
    std::string keys;
    std::vector<LoadResult> rounds;

    double median(double (*figure)(LoadResult const&)) const {
        std::vector<double> values;
        std::transform(rounds.begin(), rounds.end(), std::back_inserter(values), figure);
        std::sort(values.begin(), values.end());
        std::size_t const middle = values.size() / 2;
        return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
    }
    double perSecond() const {
        return median([](LoadResult const& r) { return static_cast<double>(r.requests) / r.seconds; });
    }
};

void printHeading() {
    std::printf("%-14s %-5s %5s %-7s %11s %7s %9s %9s %9s %9s  %s\n", "server", "", "conns", "keys", "requests/s",
                "of noop", "p50 us", "p99 us", "p99.9 us", "CPU us", "dunno/defer/prepend/other");
}

void print(Row const& row, double limit) {
    LoadResult sum;
    for (LoadResult const& round : row.rounds) {
        sum.dunno += round.dunno;
        sum.defer += round.defer;
        sum.prepend += round.prepend;
        sum.other += round.other;
    }
    std::printf("%-14s %-5s %5u %-7s %11.0f %6.0f%% %9.1f %9.1f %9.1f %9.2f  %llu/%llu/%llu/%llu\n", row.server.c_str(),
                row.transport.c_str(), row.connections, row.keys.c_str(), row.perSecond(),
                limit > 0 ? 100 * row.perSecond() / limit : 0, row.median([](auto const& r) { return r.p50; }),
                row.median([](auto const& r) { return r.p99; }), row.median([](auto const& r) { return r.p999; }),
                row.median([](auto const& r) { return r.serverCpu; }), static_cast<unsigned long long>(sum.dunno),
                static_cast<unsigned long long>(sum.defer), static_cast<unsigned long long>(sum.prepend),
                static_cast<unsigned long long>(sum.other));
    std::fflush(stdout);
}

nlohmann::json asJson(Row const& row) {
    return {{"server", row.server},
            {"transport", row.transport},
            {"connections", row.connections},
            {"keys", row.keys},
            {"rounds", row.rounds.size()},
            {"requests_per_second", row.perSecond()},
            {"p50_us", row.median([](auto const& r) { return r.p50; })},
            {"p99_us", row.median([](auto const& r) { return r.p99; })},
            {"p999_us", row.median([](auto const& r) { return r.p999; })},
            {"server_cpu_us_per_request", row.median([](auto const& r) { return r.serverCpu; })}};
}

// ---- the measuring

// One that does not start or stops answering is said, with its reason, and left out of what follows.
class Contest {
  public:
    explicit Contest(Options const& options) : m_options(options), m_firstFresh(options.tuples) {
        for (std::string const& name : options.servers) {
            attempt(name, [&] {
                m_contenders.push_back(startContender(name, options.tuples, options.workers, m_directory));
                if (m_contenders.back().learns) {
                    teach(m_contenders.back());
                }
            });
        }
    }

    // All of one kind of keys before the next: new tuples make the server forget known ones, so they come last.
    void run() {
        printHeading();
        for (std::string const& keys : m_options.keys) {
            for (std::string const& transport : m_options.transports) {
                for (unsigned int const connections : m_options.connections) {
                    compare(keys, transport, connections);
                }
            }
        }
        if (!m_options.json.empty()) {
            std::ofstream(m_options.json) << m_results.dump(2) << '\n';
        }
    }

    // Every one that was asked for took part to the end.
    bool complete() const { return m_out.empty(); }

  private:
    template <class Work>
    void attempt(std::string const& name, Work work) {
        try {
            work();
        } catch (std::exception const& e) {
            m_out.insert(name);
            std::cerr << "left out: " << name << ": " << reasonOf(e) << '\n';
            m_results.push_back({{"server", name}, {"left_out", reasonOf(e)}});
        }
    }

    LoadResult measure(Contender const& contender, ServerProcess const& server, std::string const& keys,
                       unsigned int connections) {
        Load load;
        load.server = &server == contender.onUnix.get() ? server.unixAddress() : server.tcpAddress();
        load.protocol = contender.protocol;
        load.connections = connections;
        load.keys = keysNamed(keys);
        load.tuples = contender.tuples;
        load.firstFresh = m_firstFresh;
        load.duration = std::chrono::milliseconds(m_options.milliseconds);
        LoadResult const result = Bench::run(load, server.process());
        m_firstFresh += result.fresh;
        return result;
    }

    // Twice, with more than its delay in between, so that the tuples have passed.
    void teach(Contender const& contender) {
        for (int time = 0; time < 2; ++time) {
            for (ServerProcess const* const server : {contender.on("unix"), contender.on("tcp")}) {
                if (server != nullptr) {
                    measure(contender, *server, "known", 4);
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1100));
        }
    }

    void compare(std::string const& keys, std::string const& transport, unsigned int connections) {
        std::vector<Row> rows;
        for (Contender const& contender : m_contenders) {
            rows.push_back({contender.name, transport, connections, keys, {}});
        }
        for (unsigned int round = 0; round < m_options.rounds; ++round) {
            for (std::size_t i = 0; i < m_contenders.size(); ++i) {
                ServerProcess const* const server = m_contenders[i].on(transport);
                if (server != nullptr && m_out.count(m_contenders[i].name) == 0) {
                    attempt(m_contenders[i].name,
                            [&] { rows[i].rounds.push_back(measure(m_contenders[i], *server, keys, connections)); });
                }
            }
        }
        double const limit = rows.front().rounds.empty() ? 0 : rows.front().perSecond();
        for (Row const& row : rows) {
            if (row.rounds.size() == m_options.rounds) {
                print(row, limit);
                m_results.push_back(asJson(row));
            }
        }
    }

    Options const& m_options;
    TemporaryDirectory m_directory;
    std::vector<Contender> m_contenders; // gone before their directory
    std::set<std::string> m_out;
    nlohmann::json m_results = nlohmann::json::array();
    std::uint64_t m_firstFresh;
};

int benchMain(int argc, char** argv) {
    Options options;
    CLI::App app("Policy servers side by side; the first one named is what the others are compared with");
    app.add_option("--servers", options.servers, "noop, vellum-noop, vellumd, or the name of a package")
        ->delimiter(',');
    app.add_option("--transports", options.transports, "unix, tcp")->delimiter(',');
    app.add_option("--connections", options.connections, "connections, one request in flight on each")->delimiter(',');
    app.add_option("--keys", options.keys, "known, skewed, new; new last, they displace known ones")->delimiter(',');
    app.add_option("--tuples", options.tuples, "tuples that the servers know");
    app.add_option("--rounds", options.rounds, "measurements of each server");
    app.add_option("--milliseconds", options.milliseconds, "length of one measurement");
    app.add_option("--workers", options.workers, "threads of our server; 0: one for each core");
    app.add_option("--json", options.json, "file for the figures");
    CLI11_PARSE(app, argc, argv);
    try {
        Contest contest(options);
        contest.run();
        return contest.complete() ? 0 : 3;
    } catch (std::exception const& e) {
        std::cerr << "PolicyBench: " << e.what() << '\n';
        return 1;
    }
}

} // namespace
} // namespace Vellum::Bench

int main(int argc, char** argv) {
    Vellum::tuneAllocator(argv); // as vellumd does; its servers are forks of this process
    return Vellum::Bench::benchMain(argc, argv);
}
