// What a log line costs the thread that logs it.
//
// Lines come one by one with a pause between them, as decisions do: a logger that woke a thread for each line would pay
// for that most when the thread has gone to sleep in the meantime. The clock is read twice per line; "nothing" shows
// how much of each figure that is.
#include "foundation/LogSinks.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

namespace Vellum {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int lines = 20000;

// Calls `log` with pauses of state.range(0) microseconds. Only the calls are timed.
template <class Log>
void measure(benchmark::State& state, Log log) {
    std::chrono::microseconds const pause(state.range(0));
    std::vector<double> seconds;
    seconds.reserve(lines);
    for (auto _ : state) {
        auto const start = Clock::now();
        log();
        auto const end = Clock::now();
        seconds.push_back(std::chrono::duration<double>(end - start).count());
        state.SetIterationTime(seconds.back());
        while (Clock::now() - end < pause) {
        }
    }
    std::sort(seconds.begin(), seconds.end());
    auto const nanoseconds = [&](double share) {
        return seconds[static_cast<std::size_t>(share * static_cast<double>(seconds.size() - 1))] * 1e9;
    };
    state.counters["p50_ns"] = nanoseconds(0.5);
    state.counters["p99_ns"] = nanoseconds(0.99);
    state.counters["p99.9_ns"] = nanoseconds(0.999);
}

void nothing(benchmark::State& state) {
    measure(state, [] {});
}

void noteToAFile(benchmark::State& state) {
    std::string const path = (std::filesystem::temp_directory_path() / "vellum-bench.log").string();
    {
        auto const logger = makeLogger(LogTarget::parse(path));
        std::string const line = "action=greylist, reason=new, client_name=mail.example.org, client_address=192.0.2.1, "
                                 "sender=someone@example.com, recipient=other@example.net";
        measure(state, [&] { logger->note(Logger::Severity::info, line); });
    }
    std::filesystem::remove(path);
}

BENCHMARK(nothing)->Arg(0)->UseManualTime()->Iterations(lines);
BENCHMARK(noteToAFile)->Arg(0)->Arg(10)->Arg(50)->UseManualTime()->Iterations(lines);

} // namespace
} // namespace Vellum

BENCHMARK_MAIN();
