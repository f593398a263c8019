#include "foundation/AsyncLogger.h"

#include "foundation/Escape.h"

#include <algorithm>
#include <exception>
#include <spdlog/details/log_msg.h>
#include <spdlog/sinks/sink.h>

namespace Vellum {
namespace {

using Clock = std::chrono::system_clock;

spdlog::level::level_enum levelOf(Logger::Severity severity) {
    switch (severity) {
    case Logger::Severity::debug:
        return spdlog::level::debug;
    case Logger::Severity::info:
        return spdlog::level::info;
    case Logger::Severity::warning:
        return spdlog::level::warn;
    case Logger::Severity::error:
        return spdlog::level::err;
    }
    return spdlog::level::err;
}

} // namespace

AsyncLogger::AsyncLogger(OpenSink open, Options options)
    : m_open(std::move(open)), m_options(std::move(options)), m_sink(m_open()), m_batch(m_options.capacity),
      m_pending(m_options.capacity), m_thread(&AsyncLogger::run, this) {}

AsyncLogger::~AsyncLogger() {
    {
        std::lock_guard<std::mutex> const holding(m_mutex);
        m_stop = true;
    }
    m_work.notify_one();
    m_thread.join();
}

void AsyncLogger::flush() {
    request(false);
}

void AsyncLogger::reopen() {
    request(true);
}

void AsyncLogger::request(bool reopen) {
    std::unique_lock<std::mutex> holding(m_mutex);
    m_reopen = m_reopen || reopen;
    std::uint64_t const mine = ++m_requests;
    m_work.notify_one();
    m_served.wait(holding, [&] { return m_servedRequests >= mine; });
}

void AsyncLogger::write(Severity severity, std::string_view line) {
    Clock::time_point const now = Clock::now();
    bool halfFull = false;
    {
        std::lock_guard<std::mutex> const holding(m_mutex);
        std::size_t const before = m_pending.size();
        m_pending.push(severity, now, line);
        std::size_t const half = m_pending.capacity() / 2;
        halfFull = before < half && m_pending.size() >= half;
    }
    if (halfFull) {
        m_work.notify_one(); // the one line in thousands that pays for a system call
    }
}

Logger::Severity AsyncLogger::severityOf(Record const& record) const {
    auto const& codes = m_options.informational;
    bool const informational = std::find(codes.begin(), codes.end(), record.code) != codes.end();
    return informational ? Severity::info : Severity::warning;
}

void AsyncLogger::run() {
    for (;;) {
        Work const work = takeLines();
        writeBatch();
        if (work.reopen) {
            openAgain();
        }
        {
            std::lock_guard<std::mutex> const holding(m_mutex);
            m_servedRequests = work.requests;
        }
        m_served.notify_all();
        if (work.stop) {
            return;
        }
    }
}

AsyncLogger::Work AsyncLogger::takeLines() {
    std::unique_lock<std::mutex> holding(m_mutex);
    m_work.wait_for(holding, writeInterval, [this] {
        return m_stop || m_requests != m_servedRequests || m_pending.size() >= (m_pending.capacity() + 1) / 2;
    });
    std::swap(m_batch, m_pending); // m_batch is empty: loggers go on in its memory
    Work const work{m_requests, m_reopen, m_stop};
    m_reopen = false;
    return work;
}

void AsyncLogger::writeBatch() {
    std::uint64_t const lostBefore = m_lost;
    m_lost += m_batch.lost();
    for (std::size_t i = 0; i < m_batch.size(); ++i) {
        if (!writeLine(m_batch[i])) {
            ++m_lost;
        }
    }
    bool const written = m_batch.size() == 0 || flushSink();
    m_batch.clear();
    bool const pressureIsOver = m_lost == lostBefore && written;
    if (m_lost > 0 && pressureIsOver) {
        reportLoss();
    }
}

bool AsyncLogger::writeLine(LogLine const& line) {
    try {
        m_sink->log(spdlog::details::log_msg(line.time, {}, m_options.ident, levelOf(line.severity), line.text));
        return true;
    } catch (std::exception const& caught) {
        m_failure = caught.what();
        return false;
    }
}

bool AsyncLogger::flushSink() {
    try {
        m_sink->flush();
        return true;
    } catch (std::exception const& caught) {
        m_failure = caught.what();
        return false;
    }
}

void AsyncLogger::reportLoss() {
    std::string const reason = m_failure.empty() ? "they came faster than they could be written" : m_failure;
    std::string const text = std::to_string(m_lost) + " log lines were lost: " + escapeControls(reason);
    if (writeLine({Severity::error, Clock::now(), text}) && flushSink()) {
        m_lost = 0;
        m_failure.clear();
    }
}

void AsyncLogger::openAgain() {
    try {
        m_sink = m_open();
    } catch (std::exception const& caught) {
        writeLine({Severity::error, Clock::now(), "the log cannot be opened again: " + escapeControls(caught.what())});
        flushSink();
    }
}

} // namespace Vellum
