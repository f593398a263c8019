// Sender reputation: counting, scoring and looking up beside a plain map under one lock; dump, script and load beside
// plain copies of the same bytes and a bare fetch of the same rows.
//
//   ReputationBench [--tuples ADDRESSES] [--turns N] [--json]
//
// Every address has twelve hours. Load needs the private database server of the tests.
#include "bench/BenchSupport.h"
#include "bench/SocketCopy.h"
#include "foundation/File.h"
#include "foundation/ipc/Dispatcher.h"
#include "reputation/BackupScript.h"
#include "reputation/Cache.h"
#include "reputation/LoadReport.h"
#include "reputation/ReputationDatabase.h"
#include "reputation/ReputationDisplay.h"
#include "tests/support/PrivateMariaDb.h"
#include "tests/support/TemporaryDirectory.h"

#include <boost/thread/locks.hpp>
#include <boost/thread/shared_mutex.hpp>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <malloc.h>
#include <map>
#include <mysql.h>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <unistd.h>

using namespace Vellum;
using namespace Vellum::Bench;
using namespace Vellum::Reputation;

namespace {

constexpr unsigned int hoursEach = 12;
constexpr unsigned int current = 477000;
constexpr unsigned int operations = 200000; // of each thread

IPAddress addressOf(std::uint64_t n) {
    return {static_cast<unsigned int>(0x0A000000U + n * 2654435761U % 0x00FFFFFFU), false};
}

// What one would write first: a map of maps under one lock.
class Plain {
  public:
    void increment(IPAddress const& address, unsigned int period) {
        boost::unique_lock<boost::shared_mutex> const hold(m_lock);
        ++m_hours[address][period];
    }
    std::size_t find(IPAddress const& address) {
        boost::unique_lock<boost::shared_mutex> const hold(m_lock);
        return m_hours[address].size();
    }
    std::uint64_t total(IPAddress const& address) const {
        boost::shared_lock<boost::shared_mutex> const hold(m_lock);
        std::uint64_t sum = 0;
        if (auto const found = m_hours.find(address); found != m_hours.end()) {
            for (auto const& [period, count] : found->second) {
                sum += count;
            }
        }
        return sum;
    }

  private:
    mutable boost::shared_mutex m_lock;
    std::map<IPAddress, std::map<unsigned int, std::uint64_t>> m_hours;
};

// Milliseconds until `threads` threads have each done their operations on random addresses.
template <class Operation>
double together(unsigned int threads, Operation operation) {
    return milliseconds([&] {
        std::vector<std::thread> all;
        for (unsigned int thread = 0; thread < threads; ++thread) {
            all.emplace_back([&operation, thread] {
                std::uint64_t state = thread + 1;
                for (unsigned int n = 0; n < operations; ++n) {
                    state = state * 6364136223846793005ULL + 1442695040888963407ULL;
                    operation(state >> 33);
                }
            });
        }
        for (std::thread& thread : all) {
            thread.join();
        }
    });
}

class ReputationBench {
  public:
    ReputationBench(std::size_t addresses, Options const& options) : m_addresses(addresses), m_options(options) {
        std::size_t const before = mallinfo2().uordblks;
        for (std::size_t n = 0; n < addresses; ++n) {
            RefEntry const entry = m_cache.entry(addressOf(n));
            for (unsigned int hour = 0; hour < hoursEach; ++hour) {
                entry->add(current - hour, Entry::Record(30, 40, 4, 1, 10));
            }
        }
        std::size_t const used = mallinfo2().uordblks - before;
        std::printf(m_options.json ? "{\"case\":\"memory\",\"addresses\":%zu,\"bytes\":%zu}\n"
                                   : "memory of an address with 12 hours  %8zu addresses %9zu bytes\n",
                    addresses, used / addresses);
        for (std::size_t n = 0; n < addresses; ++n) {
            for (unsigned int hour = 0; hour < hoursEach; ++hour) {
                m_plain.increment(addressOf(n), current - hour);
            }
        }
    }

    void run() {
        for (unsigned int const threads : {1U, 2U, 4U}) {
            compareOperations(threads);
        }
        compareDump();
        compareScript();
        compareLoad();
    }

  private:
    template <class Ours, class PlainOne>
    void compare(std::string const& name, Ours ours, PlainOne plain) {
        Comparison comparison;
        for (unsigned int turn = 0; turn < m_options.turns; ++turn) {
            comparison.turn(ours, plain);
        }
        comparison.print(name.c_str(), m_addresses, m_options.json);
    }
    void compareOperations(unsigned int threads) {
        std::string const with = ", " + std::to_string(threads) + " threads";
        std::vector<RefEntry> entries;
        std::vector<IPAddress> addresses;
        for (std::size_t n = 0; n < m_addresses; ++n) {
            addresses.push_back(addressOf(n));
            entries.push_back(m_cache.entry(addresses.back()));
        }
        std::size_t const count = m_addresses;
        compare(
            "increment" + with,
            [&] {
                return together(threads, [&](std::uint64_t n) {
                    entries[n % count]->increment(Entry::AttributeType::MessageCount, current, 1);
                });
            },
            [&] {
                return together(threads, [&](std::uint64_t n) { m_plain.increment(addresses[n % count], current); });
            });
        std::atomic<std::uint64_t> sink{0};
        compare(
            "score beside a sum" + with,
            [&] {
                return together(threads, [&](std::uint64_t n) {
                    sink.store(entries[n % count]->scoreAndDrop(current * 3600L), std::memory_order_relaxed);
                });
            },
            [&] {
                return together(threads, [&](std::uint64_t n) {
                    sink.store(m_plain.total(addresses[n % count]), std::memory_order_relaxed);
                });
            });
        compare(
            "find, hit" + with,
            [&] { return together(threads, [&](std::uint64_t n) { m_cache.entry(addresses[n % count]); }); },
            [&] {
                return together(threads, [&](std::uint64_t n) {
                    sink.store(m_plain.find(addresses[n % count]), std::memory_order_relaxed);
                });
            });
        // A full cache, and addresses that are never there: each evicts another. The plain map grows and never evicts.
        Cache full;
        for (std::size_t n = 0; n < Cache::mostEntries; ++n) {
            full.entry(addressOf(n));
        }
        std::atomic<std::uint64_t> next{1U << 24};
        Plain growing;
        compare(
            "find, miss" + with,
            [&] {
                return together(threads, [&](std::uint64_t) {
                    full.entry({static_cast<unsigned int>(next.fetch_add(1, std::memory_order_relaxed)), false});
                });
            },
            [&] {
                return together(threads, [&](std::uint64_t) {
                    growing.find({static_cast<unsigned int>(next.fetch_add(1, std::memory_order_relaxed)), false});
                });
            });
    }
    void compareDump() {
        constexpr std::size_t unit = IPC::Pdu::headerSize + sizeof(Packet);
        std::size_t const size = 2 * IPC::Pdu::headerSize + sizeof(std::int32_t) + m_addresses * unit;
        IPC::Dispatcher dispatcher{IPC::stateDaemonPort};
        dispatcher.add(IPC::MyHandler<EntryHandler>());
        IPC::DispatcherOptions options;
        options.port = 0;
        dispatcher.start(options);
        auto const dump = [&](std::string* keep) {
            return askFor(dispatcher.boundPort(), IPC::number(IPC::PduType::listReputations), size, keep);
        };
        std::string bytes;
        dump(&bytes);
        compare(
            "dump", [&] { return dump(nullptr); }, [&] { return copyOf(bytes); });
        dispatcher.stop();
    }
    void compareScript() {
        std::ostringstream text;
        BackupSnapshot(m_cache).write(text);
        std::string const bytes = text.str();
        std::string const path = m_directory.path() + "/script.sql";
        std::vector<double> held;
        for (bool const durable : {false, true}) {
            compare(
                durable ? "script, with fsync" : "script, without fsync",
                [&] {
                    return milliseconds([&] {
                        File::basic_ofstream<char> out{File::Path(path)};
                        BackupSnapshot const snapshot(m_cache);
                        held.push_back(static_cast<double>(snapshot.nanosecondsHeld()) / 1e6);
                        snapshot.write(out);
                        durable ? out.commit() : static_cast<void>(out.flush());
                    });
                },
                [&] { return milliseconds([&] { writePlain(bytes, durable); }); });
        }
        std::printf(m_options.json ? "{\"case\":\"locks held\",\"addresses\":%zu,\"ms\":%.2f}\n"
                                   : "locks held for the script of %zu addresses: %.2f ms\n",
                    m_addresses, median(held));
    }
    void writePlain(std::string const& bytes, bool durable) const {
        std::string const target = m_directory.path() + "/plain.sql";
        std::FILE* const file = std::fopen((target + ".new").c_str(), "wb");
        bool const written = file != nullptr && std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size() &&
                             std::fflush(file) == 0 && (!durable || ::fsync(::fileno(file)) == 0);
        if (file != nullptr) {
            std::fclose(file);
        }
        if (!written || (durable && std::rename((target + ".new").c_str(), target.c_str()) != 0)) {
            throw std::runtime_error("cannot write " + target);
        }
    }
    void compareLoad() {
        PrivateMariaDb& server = PrivateMariaDb::shared();
        server.freshDatabase();
        Reputation::Database database(Vellum::Database::Connection::defaultAddress());
        database.createTable();
        std::string const path = m_directory.path() + "/rows.sql";
        {
            File::basic_ofstream<char> out{File::Path(path)};
            BackupSnapshot(m_cache).write(out);
            out.commit();
        }
        database.runScript(path);
        compare(
            "load", [&] { return milliseconds([&] { database.read(); }); }, [] { return fetch(); });
        if (LoadReport::last().rows != m_addresses * hoursEach) {
            throw std::runtime_error("the tables did not load: " + LoadReport::last().problem);
        }
    }
    static double fetch() {
        Vellum::Database::Connection connection(Vellum::Database::Connection::defaultAddress(),
                                                Vellum::Database::senderHistoryDatabase);
        return milliseconds([&] {
            MYSQL* const mysql = connection.native();
            if (mysql_query(mysql,
                            "select * from sender_reputation,sender_reputation_state where "
                            "(sender_reputation.ClientIPAddress = sender_reputation_state.ClientIPAddress )") != 0) {
                throw std::runtime_error(mysql_error(mysql));
            }
            MYSQL_RES* const result = mysql_store_result(mysql);
            while (mysql_fetch_row(result) != nullptr) {
            }
            mysql_free_result(result);
        });
    }

    std::size_t m_addresses;
    Options const& m_options;
    Cache& m_cache = **RefCache::instance();
    Plain m_plain;
    TemporaryDirectory m_directory;
};

} // namespace

int main(int argc, char** argv) {
    SilentLogger const silent;
    Options const options = Options::parse(argc, argv, {Cache::mostEntries}, 7);
    for (std::size_t const addresses : options.sizes) {
        (**RefCache::instance()).clear();
        ReputationBench(std::min<std::size_t>(addresses, Cache::mostEntries), options).run();
    }
}
