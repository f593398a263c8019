// A logger whose callers never wait for the place the lines go to.
//
// A line is copied into a bounded ring, and a thread of the logger's own writes it out a moment later through a spdlog
// sink. When lines come faster than the sink takes them, the oldest unwritten ones are dropped; how many were lost is
// logged once the pressure is over. So a full disk or a hanging system log costs lines, never mail.
//
// spdlog's own asynchronous logger is not used: it wakes its thread for every line, and that system call costs the
// caller more than all the rest. Here the thread looks by itself several times a second and takes all lines at once.
//
// Cost of a line to its caller: a mutex held for one copy; measured in docs/performance.md.
#pragma once

#include "foundation/LineRing.h"
#include "foundation/Logger.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace spdlog::sinks {
class sink;
}

namespace Vellum {

class AsyncLogger final : public Logger {
  public:
    // Makes the sink; throws std::exception when it cannot be had.
    using OpenSink = std::function<std::shared_ptr<spdlog::sinks::sink>()>;

    static constexpr std::chrono::milliseconds writeInterval{200}; // a line is written and flushed by then

    struct Options {
        std::string ident;                          // the program, as the sink shows it
        std::size_t capacity = 8192;                // lines that may wait
        std::vector<std::uint32_t> informational{}; // codes of records that report no failure
    };

    // Opens the sink and starts the thread. Throws what `open` throws.
    AsyncLogger(OpenSink open, Options options);
    // Writes out what was accepted.
    ~AsyncLogger() override;

    // Waits until all lines accepted so far are written, or dropped.
    void flush() override;
    // Writes the accepted lines to the old sink, then opens it anew. If that fails, the old one stays in use and an
    // error is logged there. Waits for it.
    void reopen() override;

  protected:
    using Logger::write;
    void write(Severity severity, std::string_view line) override;
    Severity severityOf(Record const& record) const override; // info for the informational codes, else warning

  private:
    // What the thread found to do besides the lines.
    struct Work {
        std::uint64_t requests; // m_requests when the lines were taken
        bool reopen;
        bool stop;
    };

    void run();
    Work takeLines();
    void writeBatch();
    bool writeLine(LogLine const& line);
    bool flushSink();
    void reportLoss();
    void openAgain();
    void request(bool reopen);

    OpenSink const m_open;
    Options const m_options;
    std::shared_ptr<spdlog::sinks::sink> m_sink; // the thread's own once it runs
    LineRing m_batch;                            // the lines being written; the thread's own
    std::uint64_t m_lost = 0;                    // lines lost and not reported yet; the thread's own
    std::string m_failure;                       // why the sink lost some of them, or empty; the thread's own

    std::mutex m_mutex;
    std::condition_variable m_work; // for the thread: a request, the end, or a ring half full
    std::condition_variable m_served;
    // All under m_mutex.
    LineRing m_pending;
    std::uint64_t m_requests = 0;       // flush() and reopen() calls so far
    std::uint64_t m_servedRequests = 0; // of those, answered
    bool m_reopen = false;
    bool m_stop = false;

    std::thread m_thread; // last: it uses everything above
};

} // namespace Vellum
