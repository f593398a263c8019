// A line on the terminal that tells how far a long operation is.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace Vellum::Tools {

// Shows nothing in the first half second, so short operations leave no trace; after that it is drawn anew at most ten
// times a second, and wiped out at the end:
//
//   [############                  ]  40 %  400000 of 1000000 records
class ProgressBar {
  public:
    using Clock = std::chrono::steady_clock;
    using Write = std::function<void(std::string_view)>;
    using Now = std::function<Clock::time_point()>;

    static constexpr std::chrono::milliseconds patience{500};
    static constexpr std::chrono::milliseconds interval{100};

    // `write` puts text on the terminal; empty: there is none, and nothing is ever shown. `unit` stands behind the
    // numbers.
    explicit ProgressBar(
        Write write, std::string unit, Now now = [] { return Clock::now(); });
    ~ProgressBar() { erase(); }
    ProgressBar(ProgressBar const&) = delete;
    ProgressBar& operator=(ProgressBar const&) = delete;

    // `done` of `total`; a total of 0 is not known.
    void update(std::uint64_t done, std::uint64_t total);
    // Wipes it out until the next update, for other text on the same terminal.
    void erase();

  private:
    std::string line(std::uint64_t done, std::uint64_t total) const;

    Write m_write;
    std::string m_unit;
    Now m_now;
    Clock::time_point m_next;
    std::size_t m_shown = 0; // columns on the terminal now
};

// What writes to standard error when that is a terminal; empty when it is none.
ProgressBar::Write standardErrorTerminal();

} // namespace Vellum::Tools
