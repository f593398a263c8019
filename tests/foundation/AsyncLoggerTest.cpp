#include "foundation/AsyncLogger.h"

#include <condition_variable>
#include <gtest/gtest.h>
#include <mutex>
#include <spdlog/details/log_msg.h>
#include <spdlog/sinks/sink.h>
#include <stdexcept>
#include <thread>

namespace Vellum {
namespace {

// A place for lines that a test can hold up and make fail.
class TestSink : public spdlog::sinks::sink {
  public:
    void log(spdlog::details::log_msg const& message) override {
        std::unique_lock<std::mutex> holding(m_mutex);
        m_waiting = m_blocked;
        m_changed.notify_all();
        m_changed.wait(holding, [this] { return !m_blocked; });
        m_waiting = false;
        if (m_failing) {
            throw std::runtime_error("No space left\n on device");
        }
        m_lines.emplace_back(message.payload.data(), message.payload.size());
        m_levels.push_back(message.level);
        m_ident.assign(message.logger_name.data(), message.logger_name.size());
    }
    void flush() override {
        std::lock_guard<std::mutex> const holding(m_mutex);
        m_flushed = m_lines.size();
        m_changed.notify_all();
    }
    void set_pattern(std::string const&) override {}
    void set_formatter(std::unique_ptr<spdlog::formatter>) override {}

    void block() {
        std::lock_guard<std::mutex> const holding(m_mutex);
        m_blocked = true;
    }
    void unblock() {
        std::lock_guard<std::mutex> const holding(m_mutex);
        m_blocked = false;
        m_changed.notify_all();
    }
    void fail(bool failing) {
        std::lock_guard<std::mutex> const holding(m_mutex);
        m_failing = failing;
    }
    // Until the logger's thread is held up in log().
    void awaitBlockedWriter() {
        std::unique_lock<std::mutex> holding(m_mutex);
        m_changed.wait(holding, [this] { return m_waiting; });
    }
    void awaitFlushedLines(std::size_t count) {
        std::unique_lock<std::mutex> holding(m_mutex);
        m_changed.wait(holding, [this, count] { return m_flushed >= count; });
    }
    std::vector<std::string> lines() const {
        std::lock_guard<std::mutex> const holding(m_mutex);
        return m_lines;
    }
    std::vector<spdlog::level::level_enum> levels() const {
        std::lock_guard<std::mutex> const holding(m_mutex);
        return m_levels;
    }
    std::string ident() const {
        std::lock_guard<std::mutex> const holding(m_mutex);
        return m_ident;
    }

  private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_blocked = false;
    bool m_waiting = false;
    bool m_failing = false;
    std::size_t m_flushed = 0; // lines there at the last flush
    std::vector<std::string> m_lines;
    std::vector<spdlog::level::level_enum> m_levels;
    std::string m_ident;
};

class AsyncLoggerTest : public testing::Test {
  protected:
    std::unique_ptr<AsyncLogger> makeLogger(std::size_t capacity) {
        AsyncLogger::Options options;
        options.ident = "program";
        options.capacity = capacity;
        options.informational = {0x0300018b};
        return std::make_unique<AsyncLogger>([this] { return m_sink; }, options);
    }
    static void note(Logger& logger, std::string const& text) { logger.note(Logger::Severity::info, text); }

    std::shared_ptr<TestSink> const m_sink = std::make_shared<TestSink>();
};

TEST_F(AsyncLoggerTest, LinesArriveInOrderWithTheirSeverity) {
    auto const logger = makeLogger(100);
    logger->note(Logger::Severity::debug, "one");
    logger->note(Logger::Severity::info, "two");
    logger->note(Logger::Severity::warning, "three");
    logger->note(Logger::Severity::error, "four");
    logger->flush();
    EXPECT_EQ(m_sink->lines(), (std::vector<std::string>{"one", "two", "three", "four"}));
    EXPECT_EQ(m_sink->levels(), (std::vector<spdlog::level::level_enum>{spdlog::level::debug, spdlog::level::info,
                                                                        spdlog::level::warn, spdlog::level::err}));
    EXPECT_EQ(m_sink->ident(), "program");
}

TEST_F(AsyncLoggerTest, RecordsAreWarningsUnlessTheirCodeIsInformational) {
    auto const logger = makeLogger(100);
    logger->log(0x03000170, 0, "%s\x01%d", "GlDisplay", 154);
    logger->log(0x0300018b, 0, "%d", 1000);
    logger->flush();
    EXPECT_EQ(m_sink->lines(), (std::vector<std::string>{"0x03000170: GlDisplay; 154", "0x0300018b: 1000"}));
    EXPECT_EQ(m_sink->levels(), (std::vector<spdlog::level::level_enum>{spdlog::level::warn, spdlog::level::info}));
}

TEST_F(AsyncLoggerTest, LinesAreWrittenWithoutAnybodyAsking) {
    auto const logger = makeLogger(100);
    note(*logger, "by itself");
    m_sink->awaitFlushedLines(1); // for ever, if it were not so
}

TEST_F(AsyncLoggerTest, DestructionWritesWhatIsLeft) {
    makeLogger(100)->note(Logger::Severity::info, "the last line");
    EXPECT_EQ(m_sink->lines(), std::vector<std::string>{"the last line"});
}

TEST_F(AsyncLoggerTest, BlockedSinkBlocksNobodyAndTheOldestLinesAreLostAndCounted) {
    auto const logger = makeLogger(10);
    m_sink->block();
    note(*logger, "held up");
    m_sink->awaitBlockedWriter();
    for (int i = 0; i < 10; ++i) {
        note(*logger, "lost " + std::to_string(i));
    }
    for (int i = 0; i < 10; ++i) {
        note(*logger, "kept " + std::to_string(i));
    }
    m_sink->unblock();
    logger->flush(); // this batch still tells of losses
    logger->flush();
    std::vector<std::string> const lines = m_sink->lines();
    ASSERT_EQ(lines.size(), 12U);
    EXPECT_EQ(lines[0], "held up");
    EXPECT_EQ(lines[1], "kept 0");
    EXPECT_EQ(lines[10], "kept 9");
    EXPECT_EQ(lines[11], "10 log lines were lost: they came faster than they could be written");
    logger->flush();
    EXPECT_EQ(m_sink->lines().size(), 12U) << "told once";
}

TEST_F(AsyncLoggerTest, ExactlyAFullRingLosesNothing) {
    auto const logger = makeLogger(10);
    m_sink->block();
    note(*logger, "held up");
    m_sink->awaitBlockedWriter();
    for (int i = 0; i < 10; ++i) {
        note(*logger, std::to_string(i));
    }
    m_sink->unblock();
    logger->flush();
    logger->flush();
    EXPECT_EQ(m_sink->lines().size(), 11U);
    EXPECT_EQ(m_sink->lines().back(), "9");
}

TEST_F(AsyncLoggerTest, FailingSinkLosesLinesAndSaysSoOnceItWorksAgain) {
    auto const logger = makeLogger(10);
    m_sink->fail(true);
    note(*logger, "one");
    logger->flush();
    note(*logger, "two");
    logger->flush();
    EXPECT_TRUE(m_sink->lines().empty());
    m_sink->fail(false);
    note(*logger, "three");
    logger->flush();
    EXPECT_EQ(m_sink->lines(),
              (std::vector<std::string>{"three", "2 log lines were lost: No space left\\n on device"}));
    EXPECT_EQ(m_sink->levels().back(), spdlog::level::err);
}

TEST_F(AsyncLoggerTest, ReopenAsksForANewSinkAfterWritingToTheOldOne) {
    auto const second = std::make_shared<TestSink>();
    int opened = 0;
    AsyncLogger logger([&] { return opened++ == 0 ? m_sink : second; }, {});
    note(logger, "before");
    logger.reopen();
    EXPECT_EQ(opened, 2);
    note(logger, "after");
    logger.flush();
    EXPECT_EQ(m_sink->lines(), std::vector<std::string>{"before"});
    EXPECT_EQ(second->lines(), std::vector<std::string>{"after"});
}

TEST_F(AsyncLoggerTest, ReopenThatFailsKeepsTheOldSinkAndSaysWhy) {
    int opened = 0;
    AsyncLogger logger(
        [&]() -> std::shared_ptr<spdlog::sinks::sink> {
            if (opened++ > 0) {
                throw std::runtime_error("Permission denied");
            }
            return m_sink;
        },
        {});
    logger.reopen();
    note(logger, "after");
    logger.flush();
    EXPECT_EQ(m_sink->lines(),
              (std::vector<std::string>{"the log cannot be opened again: Permission denied", "after"}));
}

TEST_F(AsyncLoggerTest, FailureToOpenAtFirstIsThrown) {
    auto const open = []() -> std::shared_ptr<spdlog::sinks::sink> {
        throw std::runtime_error("no");
    };
    EXPECT_THROW(AsyncLogger(open, {}), std::runtime_error);
}

TEST_F(AsyncLoggerTest, ManyThreadsLoseNothingThatFits) {
    constexpr int threads = 4;
    constexpr int linesEach = 2000;
    auto const logger = makeLogger(threads * linesEach);
    std::vector<std::thread> callers;
    for (int t = 0; t < threads; ++t) {
        callers.emplace_back([&logger, t] {
            for (int i = 0; i < linesEach; ++i) {
                note(*logger, std::to_string(t) + ' ' + std::to_string(i));
                if (i % 700 == 0) {
                    logger->flush();
                }
            }
        });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    logger->flush();
    std::vector<int> next(threads, 0);
    for (std::string const& line : m_sink->lines()) {
        int const t = std::stoi(line);
        ASSERT_EQ(std::stoi(line.substr(2)), next[static_cast<std::size_t>(t)]++)
            << "each thread's lines stay in order";
    }
    EXPECT_EQ(next, std::vector<int>(threads, linesEach));
}

TEST(LineRing, OverwritesTheOldestWhenFull) {
    LineRing ring(3);
    for (char const* text : {"a", "b", "c", "d", "e"}) {
        ring.push(Logger::Severity::info, {}, text);
    }
    ASSERT_EQ(ring.size(), 3U);
    EXPECT_EQ(ring[0].text, "c");
    EXPECT_EQ(ring[1].text, "d");
    EXPECT_EQ(ring[2].text, "e");
    EXPECT_EQ(ring.lost(), 2U);
    ring.clear();
    EXPECT_EQ(ring.size(), 0U);
    EXPECT_EQ(ring.lost(), 0U);
    ring.push(Logger::Severity::info, {}, "f");
    EXPECT_EQ(ring[0].text, "f");
}

TEST(LineRing, CapacityZeroStillHoldsALine) {
    LineRing ring(0);
    ring.push(Logger::Severity::info, {}, "a");
    ring.push(Logger::Severity::info, {}, "b");
    EXPECT_EQ(ring.size(), 1U);
    EXPECT_EQ(ring[0].text, "b");
}

TEST(LineRing, LineIsCutAboveItsLongestLength) {
    LineRing ring(3);
    std::string const longest(LineRing::maxLineLength, 'x');
    ring.push(Logger::Severity::info, {}, longest);
    ring.push(Logger::Severity::info, {}, longest + 'y');
    ring.push(Logger::Severity::info, {}, longest.substr(1) + "\xc3\xbc");
    EXPECT_EQ(ring[0].text, longest);
    EXPECT_EQ(ring[1].text, longest + "... (1 bytes more)");
    EXPECT_EQ(ring[2].text, longest.substr(1) + "... (2 bytes more)") << "no character is torn";
    ring.clear();
    ring.push(Logger::Severity::info, {}, "short");
    EXPECT_LE(ring[0].text.capacity(), LineRing::keptSlotMemory);
}

} // namespace
} // namespace Vellum
