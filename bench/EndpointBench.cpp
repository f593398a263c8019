// Endpoint reputation: questions to the blacklist, counting, listing, script and load, each beside the plain way.
//
//   EndpointBench [--tuples N]... [--turns N] [--json]
//
// "Tuples" are subscribers here, 10,000 at most, with four slices each. Loading runs on a private MariaDB. Running the
// script is the same as for the other families (LoadBench).
#include "bench/BenchSupport.h"
#include "bench/SocketCopy.h"
#include "foundation/ipc/Dispatcher.h"
#include "mmsreputation/BackupScript.h"
#include "mmsreputation/Configuration.h"
#include "mmsreputation/MMSReputationDatabase.h"
#include "mmsreputation/MMSReputationDisplay.h"
#include "mmsreputation/Reports.h"
#include "tests/support/PrivateMariaDb.h"
#include "tests/support/TemporaryDirectory.h"

#include <boost/thread/locks.hpp>
#include <boost/thread/shared_mutex.hpp>

#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <mysql.h>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

using namespace Vellum;
using namespace Vellum::Bench;
using namespace Vellum::MMSReputation;

namespace {

constexpr unsigned int operationsOfAThread = 300'000;
constexpr std::uint32_t slicesEach = 4;
constexpr std::size_t recordSize = IPC::Pdu::headerSize + sizeof(DisplayPacket);

MSISDN number(std::size_t n) {
    return MSISDN(std::to_string(15550000000ULL + n * 7919 % 1'000'003));
}

std::uint32_t currentSlice() {
    return Period(0, 0, Period::slicesPerWindow).index;
}

// Counting as it is written down without further thought.
class PlainEntry {
  public:
    void increment(std::uint32_t slice) {
        std::unique_lock const hold(s_lock);
        ++m_records[slice].first;
    }

  private:
    static inline boost::shared_mutex s_lock;
    std::map<std::uint32_t, std::pair<std::uint32_t, std::uint32_t>> m_records;
};

// Walks a list of `size` numbers to its end, as for a number that is not on it, which is the usual case; beside the
// same walk over a std::set, whose members lie all over the heap.
void askBlacklist(std::size_t size, Options const& options) {
    std::size_t const questions = std::max<std::size_t>(20, 2'000'000 / (size + 10));
    Cache cache;
    std::set<MSISDN> plain;
    boost::shared_mutex plainLock;
    for (std::size_t n = 0; n < size; ++n) {
        cache.blacklist(number(n));
        plain.insert(number(n));
    }
    MSISDN const absent("15559999999");
    std::size_t found = 0;
    Comparison comparison;
    std::vector<double> nanoseconds;
    for (unsigned int turn = 0; turn < options.turns; ++turn) {
        comparison.turn(
            [&] {
                double const taken = milliseconds([&] {
                    for (std::size_t n = 0; n < questions; ++n) {
                        found += cache.isBlacklisted(absent) ? 1 : 0;
                    }
                });
                nanoseconds.push_back(taken * 1e6 / static_cast<double>(questions));
                return taken;
            },
            [&] {
                return milliseconds([&] {
                    for (std::size_t n = 0; n < questions; ++n) {
                        boost::shared_lock<boost::shared_mutex> const hold(plainLock);
                        found += std::find(plain.begin(), plain.end(), absent) != plain.end() ? 1 : 0;
                    }
                });
            });
    }
    if (found != 0) {
        throw std::runtime_error("a number was found that is not there");
    }
    comparison.print("blacklist, walked to its end", size, options.json);
    std::printf(options.json ? "{\"case\":\"isBlacklisted\",\"numbers\":%zu,\"ns\":%.0f}\n"
                             : "    one question to a list of %zu numbers: %.0f ns\n",
                size, median(nanoseconds));
}

class EndpointBench {
  public:
    EndpointBench(PrivateMariaDb& server, std::size_t subscribers, Options const& options)
        : m_subscribers(subscribers), m_options(options), m_plain(subscribers) {
        server.freshDatabase();
        MMSReputation::Database(address()).createTable("");
        MMSReputation::Database database(address());
        m_cache = RefCache::instance(&database, Select::everything);
        for (std::size_t n = 0; n < subscribers; ++n) {
            m_entries.push_back(m_cache->entry(number(n), 0, true));
            for (std::uint32_t back = 0; back < slicesEach; ++back) {
                m_entries.back()->add(Period(currentSlice() - back), {1, 1});
            }
        }
    }

    void run() {
        for (unsigned int const threads : {1U, 2U, 4U}) {
            increment(threads);
        }
        listing();
        script();
        load();
    }

  private:
    static SocketAddress address() { return Vellum::Database::Connection::defaultAddress(); }

    template <class Operation>
    double timed(unsigned int threads, Operation const& operation) const {
        return milliseconds([&] {
            std::vector<std::thread> running;
            for (unsigned int t = 0; t < threads; ++t) {
                running.emplace_back([&, t] {
                    std::uint64_t at = t * 0x9E3779B97F4A7C15ULL + 1;
                    for (unsigned int n = 0; n < operationsOfAThread; ++n) {
                        at = at * 6364136223846793005ULL + 1442695040888963407ULL;
                        operation((at >> 33) % m_subscribers);
                    }
                });
            }
            for (std::thread& thread : running) {
                thread.join();
            }
        });
    }
    void increment(unsigned int threads) {
        std::uint32_t const slice = currentSlice();
        Comparison comparison;
        for (unsigned int turn = 0; turn < m_options.turns; ++turn) {
            comparison.turn(
                [&] {
                    return timed(threads,
                                 [&](std::size_t n) { m_entries[n]->increment(Entry::AttributeType::spam, slice); });
                },
                [&] { return timed(threads, [&](std::size_t n) { m_plain[n].increment(slice); }); });
        }
        comparison.print(("increment, " + std::to_string(threads) + " x 300,000").c_str(), m_subscribers,
                         m_options.json);
    }
    void listing() {
        IPC::Dispatcher dispatcher(IPC::stateDaemonPort);
        dispatcher.add(IPC::MyHandler<EntryRetrievalHandler>());
        IPC::DispatcherOptions options;
        options.port = 0;
        dispatcher.start(options);
        std::size_t const size =
            IPC::Pdu::headerSize + sizeof(std::int32_t) + m_subscribers * recordSize + IPC::Pdu::headerSize;
        auto const ask = [&](std::string* keep = nullptr) {
            return askFor(dispatcher.boundPort(), IPC::number(IPC::PduType::listEndpoints), size, keep);
        };
        std::string bytes;
        ask(&bytes);
        Comparison comparison;
        for (unsigned int turn = 0; turn < 4 * m_options.turns; ++turn) {
            comparison.turn([&] { return ask(); }, [&] { return copyOf(bytes); });
        }
        comparison.print("listing, beside a socket copy", m_subscribers, m_options.json);
    }
    // Into memory on both sides; the disk is the same for both.
    void script() {
        Comparison comparison;
        std::vector<double> held;
        for (unsigned int turn = 0; turn < 4 * m_options.turns; ++turn) {
            comparison.turn(
                [&] {
                    return milliseconds([&] {
                        auto const start = std::chrono::steady_clock::now();
                        BackupSnapshot const snapshot(*m_cache);
                        held.push_back(
                            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                                .count());
                        std::ostringstream out;
                        snapshot.write(out);
                        m_script = out.str();
                    });
                },
                [&] {
                    return milliseconds([&] {
                        std::ostringstream out;
                        out.write(m_script.data(), static_cast<std::streamsize>(m_script.size()));
                    });
                });
        }
        comparison.print("script, beside a copy of its bytes", m_subscribers, m_options.json);
        std::printf(m_options.json ? "{\"case\":\"locks held\",\"subscribers\":%zu,\"ms\":%.2f}\n"
                                   : "    both locks held for %zu subscribers: %.2f ms\n",
                    m_subscribers, median(held));
    }
    void load() {
        std::string const path = m_directory.path() + "/endpoint.sql";
        std::FILE* const file = std::fopen(path.c_str(), "w");
        bool const written =
            file != nullptr && std::fwrite(m_script.data(), 1, m_script.size(), file) == m_script.size();
        if (file == nullptr || std::fclose(file) != 0 || !written) {
            throw std::runtime_error("no script");
        }
        MMSReputation::Database(address()).runScript(path);
        Comparison comparison;
        for (unsigned int turn = 0; turn < m_options.turns; ++turn) {
            comparison.turn([&] { return loadOurs(); }, [&] { return fetch(); });
        }
        comparison.print("loading, beside a bare fetch", m_subscribers, m_options.json);
    }
    double loadOurs() const {
        MMSReputation::Database database(address());
        RefCache target(true);
        double const taken = milliseconds([&] { database.read(target, Select::entries); });
        if (LoadReport::last().entries.rows != m_subscribers * slicesEach) {
            throw std::runtime_error("the tables did not load: " + LoadReport::last().entries.problem);
        }
        return taken;
    }
    double fetch() const {
        Vellum::Database::Connection connection(address(), Vellum::Database::senderHistoryDatabase);
        std::size_t rows = 0;
        double const taken = milliseconds([&] {
            MYSQL* const mysql = connection.native();
            if (mysql_query(mysql, "select mms_reputation.msisdn, Period, Spam, Infected, Expiry from mms_reputation,"
                                   "mms_reputation_expiry where mms_reputation.msisdn = "
                                   "mms_reputation_expiry.msisdn") != 0) {
                throw std::runtime_error(mysql_error(mysql));
            }
            MYSQL_RES* const result = mysql_store_result(mysql);
            while (mysql_fetch_row(result) != nullptr) {
                rows += mysql_fetch_lengths(result)[0] != 0 ? 1 : 0;
            }
            mysql_free_result(result);
        });
        if (rows != m_subscribers * slicesEach) {
            throw std::runtime_error("the tables have other rows");
        }
        return taken;
    }

    std::size_t m_subscribers;
    Options const& m_options;
    TemporaryDirectory m_directory;
    RefCache m_cache{false};
    std::vector<RefEntry> m_entries;
    std::deque<PlainEntry> m_plain;
    std::string m_script;
};

} // namespace

int main(int argc, char** argv) {
    SilentLogger const silent;
    Options const options = Options::parse(argc, argv, {10'000}, 5);
    StubConfiguration::instance();
    for (std::size_t const size : {10U, 1'000U, 100'000U}) {
        askBlacklist(size, options);
    }
    PrivateMariaDb server;
    for (std::size_t const subscribers : options.sizes) {
        EndpointBench(server, std::min<std::size_t>(subscribers, Cache::mostEntries), options).run();
    }
}
