// What the benchmarks of the library share: a quiet log, a configuration, identities, and medians of turns.
//
// Two things are compared by running them in turns in one process, and by the median of the turns' ratios: a busy
// machine slows both.
#pragma once

#include "foundation/EmailAddress.h"
#include "foundation/IPAddressMask.h"
#include "foundation/Logger.h"
#include "greylist/Configuration.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace Vellum::Bench {

class SilentLogger : public Logger {
  public:
    SilentLogger() { install(this); }
    ~SilentLogger() override { install(nullptr); }

  protected:
    void write(Severity, std::string_view) override {}
};

class BenchConfiguration : public GreyList::Configuration {
  public:
    explicit BenchConfiguration(std::size_t maxRecords) : m_maxRecords(static_cast<int>(maxRecords)) {}
    int initialExpiryHours() const override { return 24; }
    int ttlDays() const override { return 36; }
    int greylistMinutes() const override { return 5; }
    std::string backupPath() const override { return {}; }
    void backupDone() override {}
    bool backupEnabled() const override { return false; }
    int maxRecords() const override { return m_maxRecords; }

  private:
    int m_maxRecords;
};

inline void installConfiguration(std::size_t maxRecords) {
    GreyList::RefConfiguration::instance(new BenchConfiguration(maxRecords));
}

// Identity number n of a mail stream in which networks and senders repeat as they do in real logs: some eleven tuples
// of a network, addresses of 24 characters on average. `Id` is made of mask, sender and recipient.
template <class Id>
Id identity(std::uint64_t n) {
    std::uint64_t const mixed = n / 11 * 0x9E3779B97F4A7C15ULL;
    char text[80];
    ip_addr_t raw{4, {}};
    raw.bytes[0] = static_cast<std::uint8_t>(1 + (mixed >> 56) % 220);
    raw.bytes[1] = static_cast<std::uint8_t>(mixed >> 48);
    raw.bytes[2] = static_cast<std::uint8_t>(mixed >> 40);
    std::snprintf(text, sizeof text, "user%llu.%llu@example%llu.net", static_cast<unsigned long long>(n % 11),
                  static_cast<unsigned long long>((mixed >> 8) % 100000), static_cast<unsigned long long>(n % 7));
    EmailAddress const sender = EmailAddress::fromAddress(text);
    std::snprintf(text, sizeof text, "recipient%llu@example.org", static_cast<unsigned long long>(n % 1000));
    return Id(IPAddressMask(raw, 24), sender, EmailAddress::fromAddress(text));
}

// Fills a tuple cache with that many identities, in an order that is not the keys'.
template <class Cache, class Id>
void fill(Cache& cache, std::size_t tuples) {
    for (std::size_t n = 0; n < tuples; ++n) {
        cache.state(identity<Id>(n * 7919 % tuples), 1700000000);
    }
}

template <class Work>
double milliseconds(Work work) {
    auto const start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

inline double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

// Ours beside the plain way, turn by turn.
class Comparison {
  public:
    // Every other turn begins with the plain way, so that neither always finds what the other has warmed.
    template <class Ours, class Plain>
    void turn(Ours ours, Plain plain) {
        bool const plainFirst = m_ours.size() % 2 != 0;
        double const before = plainFirst ? plain() : 0;
        m_ours.push_back(ours());
        m_plain.push_back(plainFirst ? before : plain());
        m_ratios.push_back(m_plain.back() / m_ours.back());
    }
    // One line: medians in milliseconds, and how fast ours is where the plain way is 1.
    void print(char const* name, std::size_t tuples, bool json) const {
        std::printf(json ? "{\"case\":\"%s\",\"tuples\":%zu,\"ms\":%.2f,\"plain_ms\":%.2f,\"ratio\":%.3f}\n"
                         : "%-34s %8zu tuples %9.1f ms  plain %9.1f ms  %5.2f times as fast\n",
                    name, tuples, median(m_ours), median(m_plain), median(m_ratios));
        std::fflush(stdout);
    }

  private:
    std::vector<double> m_ours, m_plain, m_ratios;
};

// --json, --tuples N (several times), --turns N.
struct Options {
    bool json = false;
    std::vector<std::size_t> sizes;
    unsigned int turns = 5;

    // Says what is wrong on standard error and ends the process for anything else.
    static Options parse(int argc, char** argv, std::vector<std::size_t> const& sizes, unsigned int turns) {
        Options options{false, {}, turns};
        for (int i = 1; i < argc; ++i) {
            std::string const argument = argv[i];
            if (argument == "--json") {
                options.json = true;
            } else if (argument == "--tuples" && i + 1 < argc) {
                options.sizes.push_back(std::stoul(argv[++i]));
            } else if (argument == "--turns" && i + 1 < argc) {
                options.turns = static_cast<unsigned int>(std::stoul(argv[++i]));
            } else {
                std::fprintf(stderr, "usage: %s [--tuples N]... [--turns N] [--json]\n", argv[0]);
                std::exit(2);
            }
        }
        if (options.sizes.empty()) {
            options.sizes = sizes;
        }
        return options;
    }
};

} // namespace Vellum::Bench
