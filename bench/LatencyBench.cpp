// How long decisions take while something large goes on with the same cache.
//
//   LatencyBench [--tuples N]... [--turns N] [--json]     a turn is a second of each situation and each kind of tuples
//
// One thread decides 5,000 times a second, on existing tuples, on new ones, and on one new among ten, while in turn
// nothing else happens, listings go to clients that stop reading, backups are written, and the table is loaded again,
// each over and over. A decision is timed from when it was due, so one that is held up holds up those that were due
// behind it, as mail does.
#include "bench/BenchSupport.h"
#include "bench/LatencyHistogram.h"
#include "bench/SocketCopy.h"
#include "daemon/Decision.h"
#include "foundation/AllocatorTuning.h"
#include "foundation/File.h"
#include "foundation/ipc/Dispatcher.h"
#include "foundation/ipc/Pdu.h"
#include "greylist/BackupScript.h"
#include "greylist/GlDisplay.h"
#include "greylist/GlDynamicExemptDatabase.h"
#include "greylist/GlRecordDatabase.h"
#include "greylist/LoadReport.h"
#include "tests/support/PrivateMariaDb.h"
#include "tests/support/TemporaryDirectory.h"

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <sys/prctl.h>
#include <thread>

using namespace Vellum;
using namespace Vellum::Bench;
using namespace Vellum::GreyList;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::chrono::microseconds interval{200};
constexpr long startOfLives = 1700000000;

// How many of a thousand tuples were never seen.
struct Kind {
    char const* name;
    unsigned int fresh;
};
constexpr Kind kinds[] = {{"existing", 0}, {"new", 1000}, {"mixed", 100}};

// A message that needs no more parsing, as a front hands it over.
struct Parts {
    Parts(IPAddressMask const& mask, EmailAddress from, EmailAddress to) {
        message.client = mask.prefix();
        message.sender = std::move(from);
        message.recipient = std::move(to);
    }
    Daemon::Message message;
};

class LatencyBench {
  public:
    LatencyBench(PrivateMariaDb& server, std::size_t tuples, Options const& options)
        : m_tuples(tuples), m_options(options), m_cache(**TupleCache::instance()),
          m_exemptions(**DynamicExemptCache::instance()), m_decision(m_cache, m_exemptions, {}) {
        server.freshDatabase();
        GlRecordDatabase(Database::Connection::defaultAddress()).createTable();
        DynamicExemptDatabase(Database::Connection::defaultAddress()).createTable();
        for (std::size_t n = 0; n < tuples; ++n) {
            m_decision.atRecipient(identity<Parts>(n * 7919 % tuples).message, startOfLives);
        }
        backUp();
        GlRecordDatabase(Database::Connection::defaultAddress()).runScript(m_script);
        m_dispatcher.add(IPC::MyHandler<RecordHandler>());
        IPC::DispatcherOptions dispatcherOptions;
        dispatcherOptions.port = 0;
        m_dispatcher.start(dispatcherOptions);
    }
    ~LatencyBench() {
        m_dispatcher.stop();
        m_cache.clear();
    }
    LatencyBench(LatencyBench const&) = delete;
    LatencyBench& operator=(LatencyBench const&) = delete;

    void run() {
        for (Kind const& kind : kinds) {
            situation("nothing else", kind, nullptr);
            situation("a listing to a client that stops reading", kind, [this] { listWithoutReading(); });
            situation("a backup", kind, [this] { backUp(); });
            situation("a load", kind, [this] { load(); });
        }
    }

  private:
    void situation(char const* name, Kind const& kind, std::function<void()> const& work) {
        std::atomic<bool> over{false};
        std::atomic<unsigned int> done{0};
        std::thread other;
        if (work) {
            other = std::thread([&] {
                while (!over) {
                    work();
                    ++done;
                }
            });
        }
        auto const latency = std::make_unique<LatencyHistogram>();
        decideFor(std::chrono::seconds(m_options.turns), kind, *latency);
        over = true;
        if (other.joinable()) {
            other.join();
        }
        std::printf(
            m_options.json
                ? "{\"case\":\"%s\",\"kind\":\"%s\",\"tuples\":%zu,\"times\":%u,\"p50_us\":%.1f,"
                  "\"p99_us\":%.1f,\"p999_us\":%.1f,\"most_us\":%.0f}\n"
                : "%-40s %-8s %8zu tuples, %3u times: p50 %6.1f us, p99 %6.1f us, p99.9 %7.1f us, most %8.0f us\n",
            name, kind.name, m_tuples, done.load(), latency->quantile(0.5), latency->quantile(0.99),
            latency->quantile(0.999), latency->quantile(0.999999));
        std::fflush(stdout);
    }

    void decideFor(Clock::duration length, Kind const& kind, LatencyHistogram& latency) {
        long const now = startOfLives + 400;
        std::uint64_t random = 1;
        auto due = Clock::now();
        for (auto const end = due + length; due < end; due += interval) {
            random = random * 6364136223846793005ULL + 1442695040888963407ULL;
            bool const isNew = (random >> 33) % 1000 < kind.fresh;
            Parts const parts = identity<Parts>(isNew ? m_tuples + m_new++ : (random >> 20) % m_tuples);
            std::this_thread::sleep_until(due);
            m_decision.atRecipient(parts.message, now);
            latency.add(static_cast<std::uint64_t>(
                std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - due).count()));
        }
    }

    // For longer than the dispatcher waits for a client that takes nothing.
    void listWithoutReading() const {
        FileDescriptor const client = connectTo(m_dispatcher.boundPort());
        char request[IPC::Pdu::headerSize];
        IPC::Pdu::writeHeader(request, IPC::number(IPC::PduType::listTuples), 0);
        sendAll(client.get(), {request, sizeof request});
        std::this_thread::sleep_for(IPC::DispatcherOptions().stallTimeout * 5 / 4);
    }
    void backUp() {
        File::basic_ofstream<char> out{File::Path(m_script)};
        BackupSnapshot(m_cache, m_exemptions).write(out);
        out.commit();
    }
    static void load() {
        GlRecordDatabase(Database::Connection::defaultAddress()).read();
        if (!LoadReport::last().complete()) {
            throw std::runtime_error("the table did not load: " + LoadReport::last().tuples.problem);
        }
    }

    std::size_t m_tuples;
    Options const& m_options;
    _TupleCache& m_cache;
    _DynamicExemptCache& m_exemptions;
    Daemon::Decision m_decision;
    std::uint64_t m_new = 0;
    TemporaryDirectory m_directory;
    std::string const m_script = m_directory.path() + "/greylist.sql";
    IPC::Dispatcher m_dispatcher{IPC::stateDaemonPort};
};

} // namespace

int main(int argc, char** argv) {
    tuneAllocator(argv); // as vellumd does
    SilentLogger const silent;
    Options const options = Options::parse(argc, argv, {1000000}, 5);
    prctl(PR_SET_TIMERSLACK, 1UL); // the kernel wakes a sleeper within 50 us otherwise, which would be most of a figure
    PrivateMariaDb server({"--innodb-buffer-pool-size=1G", "--max-allowed-packet=64M"});
    // The process's cache is made once: with room for the largest table, and what is new meanwhile.
    installConfiguration(*std::max_element(options.sizes.begin(), options.sizes.end()) * 6 / 5);
    for (std::size_t const tuples : options.sizes) {
        LatencyBench(server, tuples, options).run();
    }
}
