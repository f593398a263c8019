// Lookups of subscribers by address through RadiusDatabase beside the same query on bare connections.
//
//   RadiusBench [--tuples N]... [--turns N] [--json]
//
// "Tuples" are open sessions here, half of them IPv4, half with an IPv6 prefix; IPv4 addresses are asked for. A private
// MariaDB holds them, in the columns of FreeRADIUS' table that a lookup reads. Each thread does the same number of
// lookups in every turn. Beside find() from 1 and 8 threads stand as many threads with a connection of their own;
// beside 60 threads stand 8 connections, which is what the server can use.
#include "bench/BenchSupport.h"
#include "foundation/radius/SubscriberQuery.h"
#include "mmsreputation/MMSRadius.h"
#include "tests/support/PrivateMariaDb.h"

#include <atomic>
#include <memory>
#include <stdexcept>
#include <thread>

using namespace Vellum;
using namespace Vellum::Bench;

namespace {

constexpr unsigned int lookupsOfATurn = 8000;

IPAddress addressOf(std::size_t n) {
    return IPAddress("10." + std::to_string(n >> 16 & 0xff) + "." + std::to_string(n >> 8 & 0xff) + "." +
                     std::to_string(n & 0xff));
}

void fill(PrivateMariaDb& server, std::size_t sessions) {
    server.run({"drop database if exists msisdn", "create database msisdn"});
    server.run(
        {"create table radacct (radacctid bigint(21) not null auto_increment primary key, "
         "acctuniqueid varchar(32) not null, acctstarttime datetime, acctupdatetime datetime, "
         "acctstoptime datetime, callingstationid varchar(50) not null default '', "
         "framedipaddress varchar(15) not null default '', framedipv6address varchar(45) not null default '', "
         "framedipv6prefix varchar(45) not null default '', delegatedipv6prefix varchar(45) not null default '', "
         "unique key (acctuniqueid), key (framedipaddress), key (framedipv6address), key (framedipv6prefix), "
         "key (delegatedipv6prefix), key (acctstarttime), key (acctstoptime))"},
        "msisdn");
    std::string rows;
    for (std::size_t n = 0; n < sessions; ++n) {
        std::string const text = std::to_string(n);
        rows += (rows.empty() ? "('" : ",('") + text + "',now(),now(),'1555" + text + "','" +
                (n % 2 == 0 ? addressOf(n).asString() + "','')" : "','2001:db8:" + text + "::/64')");
        if (n % 5000 == 4999 || n + 1 == sessions) {
            server.run({"insert into radacct (acctuniqueid, acctstarttime, acctupdatetime, callingstationid, "
                        "framedipaddress, framedipv6prefix) values " +
                        rows},
                       "msisdn");
            rows.clear();
        }
    }
    server.run({"analyze table radacct"}, "msisdn");
}

class RadiusBench {
  public:
    RadiusBench(std::size_t sessions, Options const& options) : m_sessions(sessions), m_options(options) {
        for (unsigned int n = 0; n < 8; ++n) {
            m_bare.push_back(
                std::make_unique<Database::Connection>("msisdn", "root", "", Database::Connection::defaultAddress()));
        }
    }

    void run() {
        for (unsigned int const threads : {1U, 8U, 60U}) {
            unsigned int const bare = std::min(threads, 8U);
            Comparison comparison;
            pooled(threads); // lets the pool grow
            for (unsigned int turn = 0; turn < m_options.turns; ++turn) {
                comparison.turn([&] { return pooled(threads); }, [&] { return onBareConnections(bare); });
            }
            std::string const name = "8000 lookups, " + std::to_string(threads) + " threads";
            comparison.print(name.c_str(), m_sessions, m_options.json);
        }
    }

  private:
    // Milliseconds of so many lookups in all. `find(thread, address)` answers the number.
    template <class Find>
    double timed(unsigned int threads, Find const& find) const {
        std::atomic<unsigned int> wrong{0};
        double const taken = milliseconds([&] {
            std::vector<std::thread> running;
            for (unsigned int t = 0; t < threads; ++t) {
                running.emplace_back([&, t] {
                    std::uint64_t at = t * 0x9E3779B97F4A7C15ULL + 1;
                    for (unsigned int n = t; n < lookupsOfATurn; n += threads) {
                        at = at * 6364136223846793005ULL + 1442695040888963407ULL;
                        std::size_t const asked = (at >> 33) % m_sessions & ~std::size_t{1};
                        wrong += find(t, addressOf(asked)) == "1555" + std::to_string(asked) ? 0 : 1;
                    }
                });
            }
            for (std::thread& thread : running) {
                thread.join();
            }
        });
        if (wrong != 0) {
            throw std::runtime_error(std::to_string(wrong) + " lookups were wrong");
        }
        return taken;
    }
    double pooled(unsigned int threads) {
        return timed(threads,
                     [&](unsigned int, IPAddress const& address) { return m_database.find(address).asString(); });
    }
    double onBareConnections(unsigned int threads) {
        return timed(threads, [&](unsigned int thread, IPAddress const& address) {
            return msisdn::database::getMSISDN(*m_bare[thread], address);
        });
    }

    std::size_t m_sessions;
    Options const& m_options;
    std::vector<std::unique_ptr<Database::Connection>> m_bare;
    MMSReputation::RadiusDatabase m_database;
};

} // namespace

int main(int argc, char** argv) {
    SilentLogger const silent;
    Options const options = Options::parse(argc, argv, {100'000}, 7);
    PrivateMariaDb server;
    for (std::size_t const sessions : options.sizes) {
        fill(server, sessions);
        RadiusBench(sessions, options).run();
    }
}
