// Sender rate control: counting and totals beside the plain way, a dump beside a plain copy of its bytes, and memory.
//
//   RateControlBench [--tuples N]... [--turns N] [--json]
//
// "Tuples" are senders here. The plain way is a std::map of periods for each sender under one boost::shared_mutex: what
// counting costs when it is written down without further thought. It would not survive two listings at once; ours does.
#include "bench/BenchSupport.h"
#include "bench/SocketCopy.h"
#include "foundation/ipc/Dispatcher.h"
#include "senderratecontrol/SenderRateControlCache.h"
#include "senderratecontrol/SenderRateControlDisplay.h"

#include <boost/thread/shared_mutex.hpp>

#include <ctime>
#include <deque>
#include <malloc.h>
#include <map>
#include <mutex>
#include <thread>

using namespace Vellum;
using namespace Vellum::Bench;
using namespace Vellum::SenderRateControl;

namespace {

constexpr unsigned int operationsOfAThread = 300'000;
constexpr long now = 1'700'000'000;
constexpr unsigned int current = now / periodSeconds;
constexpr std::size_t recordSize = IPC::Pdu::headerSize + sizeof(Packet);

class BenchSize : public SenderRateControl::Configuration {
  public:
    explicit BenchSize(std::size_t senders) : m_senders(static_cast<std::uint32_t>(senders)) { s_instance = this; }
    std::uint32_t cacheSize() const override { return m_senders; }

  private:
    std::uint32_t m_senders;
};

class PlainEntry {
  public:
    void increment(std::size_t counter, unsigned int period, unsigned int amount) {
        std::unique_lock const hold(s_lock);
        m_records[period].counts[counter] += amount;
    }
    void totals(unsigned int first, std::uint32_t (&out)[5]) {
        std::unique_lock const hold(s_lock);
        m_records.erase(m_records.begin(), m_records.lower_bound(first));
        for (auto const& [period, record] : m_records) {
            for (std::size_t n = 0; n < 5; ++n) {
                out[n] += record.counts[n];
            }
        }
    }

  private:
    struct Record {
        std::uint32_t counts[6];
    };
    static inline boost::shared_mutex s_lock;
    std::map<unsigned int, Record> m_records;
};

EmailAddress senderNumber(std::size_t n) {
    return EmailAddress::fromAddress("user" + std::to_string(n * 7919 % 1'000'003) + "@example" +
                                     std::to_string(n % 97) + ".net");
}

std::size_t heapInUse() {
    struct mallinfo2 const info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

class RateControlBench {
  public:
    RateControlBench(std::size_t senders, Options const& options)
        : m_senders(senders), m_options(options), m_cache(**RefCache::instance()), m_plain(senders) {
        std::size_t const before = heapInUse();
        for (std::size_t n = 0; n < senders; ++n) {
            m_cache.find(senderNumber(n));
        }
        for (unsigned int back = 6; back-- > 0;) {
            for (std::size_t n = 0; n < senders; ++n) {
                m_cache.find(senderNumber(n))->second->increment(Entry::Attribute1, current - back, 1);
            }
        }
        double const bytes = static_cast<double>(heapInUse() - before) / static_cast<double>(senders);
        std::printf(options.json ? "{\"case\":\"memory\",\"senders\":%zu,\"bytes\":%.1f}\n"
                                 : "%zu senders with six slots: %.0f bytes each\n",
                    senders, bytes);
        for (std::size_t n = 0; n < senders; ++n) {
            m_entries.push_back(m_cache.entryOf(senderNumber(n)));
            for (unsigned int back = 6; back-- > 0;) {
                m_plain[n].increment(0, current - back, 1);
            }
        }
    }

    void run() {
        for (unsigned int const threads : {1U, 2U, 4U}) {
            compare(
                "increment", threads, [this](std::size_t n) { m_entries[n]->increment(Entry::Attribute2, current, 1); },
                [this](std::size_t n) { m_plain[n].increment(1, current, 1); });
            compare(
                "totals", threads,
                [this](std::size_t n) {
                    SenderRateControlRecord out{};
                    m_entries[n]->totals(now, out);
                },
                [this](std::size_t n) {
                    std::uint32_t out[5]{};
                    m_plain[n].totals(firstPeriodAt(now), out);
                });
        }
        dump();
    }

  private:
    // Milliseconds for all threads to do their operations on senders of their choice.
    template <class Operation>
    double timed(unsigned int threads, Operation const& operation) const {
        return milliseconds([&] {
            std::vector<std::thread> running;
            for (unsigned int t = 0; t < threads; ++t) {
                running.emplace_back([&, t] {
                    std::uint64_t at = t * 0x9E3779B97F4A7C15ULL + 1;
                    for (unsigned int n = 0; n < operationsOfAThread; ++n) {
                        at = at * 6364136223846793005ULL + 1442695040888963407ULL;
                        operation((at >> 33) % m_senders);
                    }
                });
            }
            for (std::thread& thread : running) {
                thread.join();
            }
        });
    }
    template <class Ours, class Plain>
    void compare(std::string const& what, unsigned int threads, Ours const& ours, Plain const& plain) {
        Comparison comparison;
        for (unsigned int turn = 0; turn < m_options.turns; ++turn) {
            comparison.turn([&] { return timed(threads, ours); }, [&] { return timed(threads, plain); });
        }
        comparison.print((what + ", " + std::to_string(threads) + " x 300,000").c_str(), m_senders, m_options.json);
    }
    void dump() {
        // With totals that a dump of today does not forget.
        auto const today = static_cast<unsigned int>(std::time(nullptr) / periodSeconds);
        for (unsigned int slot = 0; slot < 6; ++slot) {
            for (RefEntry const& entry : m_entries) {
                entry->increment(Entry::Attribute1, today + slot, 1);
            }
        }
        IPC::Dispatcher dispatcher(IPC::stateDaemonPort);
        dispatcher.add(IPC::MyHandler<EntryHandler>());
        IPC::DispatcherOptions options;
        options.port = 0;
        dispatcher.start(options);
        std::size_t const size =
            IPC::Pdu::headerSize + sizeof(std::int32_t) + m_senders * recordSize + IPC::Pdu::headerSize;
        auto const ask = [&](std::string* keep = nullptr) {
            return askFor(dispatcher.boundPort(), IPC::number(IPC::PduType::listSenderRates), size, keep);
        };
        std::string bytes;
        ask(&bytes);
        Comparison comparison;
        for (unsigned int turn = 0; turn < m_options.turns; ++turn) {
            comparison.turn([&] { return ask(); }, [&] { return copyOf(bytes); });
        }
        comparison.print("dump", m_senders, m_options.json);
    }

    std::size_t m_senders;
    Options const& m_options;
    Cache& m_cache;
    std::vector<RefEntry> m_entries;
    std::deque<PlainEntry> m_plain;
};

} // namespace

int main(int argc, char** argv) {
    SilentLogger const silent;
    Options const options = Options::parse(argc, argv, {100'000}, 9);
    BenchSize const size(*std::max_element(options.sizes.begin(), options.sizes.end()));
    for (std::size_t const senders : options.sizes) {
        (**RefCache::instance()).clear();
        RateControlBench(senders, options).run();
    }
}
