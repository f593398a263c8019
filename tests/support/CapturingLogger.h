// A logger for tests: keeps what is logged, and is the process's logger for its life.
//
//   CapturingLogger log;
//   ... something that must complain ...
//   EXPECT_EQ(log.records(0x03000170).at(0).text, "GlDisplay\x01" "154");
//
// Thread-safe. Threads that log must be gone before it is destroyed.
#pragma once

#include "foundation/Logger.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace Vellum {

class CapturingLogger : public Logger {
  public:
    static constexpr std::chrono::milliseconds patience{30000}; // only a test that fails waits for so long

    // One record or note, in the order of logging.
    struct Line {
        bool isRecord;                   // coded record, else note
        std::uint32_t code;              // of a record, else 0
        int level;                       // of a record, else 0
        Severity severity;               // of a note; a record's is what Logger makes of it
        std::string format;              // of a record, 0x01 separators included
        std::vector<std::string> fields; // of a record
        std::string text;                // of a record: its fields with 0x01 between them; of a note: its line
    };

    CapturingLogger();
    ~CapturingLogger() override; // installs the previous logger again

    std::vector<Line> lines() const;
    std::vector<Line> records() const;
    std::vector<Line> records(std::uint32_t code) const;
    std::vector<std::string> notes() const; // their lines
    void clear();

    // The first record with this code, logged already or within `timeout`; none when there is still none by then.
    std::optional<Line> waitForRecord(std::uint32_t code, std::chrono::milliseconds timeout = patience) const;
    // The first note that holds `part`, likewise.
    std::optional<Line> waitForNote(std::string const& part, std::chrono::milliseconds timeout = patience) const;

  protected:
    void write(Severity severity, std::string_view line) override;
    void write(Record const& record) override;

  private:
    void keep(Line line);
    template <class Wanted>
    std::vector<Line> select(Wanted wanted) const;
    template <class Wanted>
    std::optional<Line> wait(Wanted wanted, std::chrono::milliseconds timeout) const;

    Logger* m_previous; // borrowed; null when it was the built-in one
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_added;
    std::vector<Line> m_lines; // under m_mutex
};

} // namespace Vellum
