#include "foundation/LogSinks.h"

#include "foundation/Exception.h"
#include "tests/support/TemporaryDirectory.h"

#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct SystemLog {
    std::string ident;
    int options = 0;
    int facility = 0;
    std::vector<std::pair<int, std::string>> lines;
    bool open = false;
};

SystemLog& systemLog() {
    static SystemLog log;
    return log;
}

} // namespace

// The system log of this process: the linker prefers these to the C library's, in the library under test, too.
extern "C" {
void openlog(char const* ident, int options, int facility) {
    systemLog() = {ident, options, facility, {}, true};
}
void closelog() {
    systemLog().open = false;
}
__attribute__((format(printf, 2, 3))) void syslog(int priority, char const* format, ...) {
    char line[1000];
    va_list values;
    va_start(values, format);
    std::vsnprintf(line, sizeof line, format, values);
    va_end(values);
    systemLog().lines.emplace_back(priority, line);
}
// What a compiler makes of syslog() where it checks formats at run time.
__attribute__((format(printf, 3, 4))) void __syslog_chk(int priority, int, char const* format, ...) {
    char line[1000];
    va_list values;
    va_start(values, format);
    std::vsnprintf(line, sizeof line, format, values);
    va_end(values);
    systemLog().lines.emplace_back(priority, line);
}
}

namespace Vellum {
namespace {

std::string contentOf(std::string const& path) {
    std::ifstream file(path);
    std::stringstream content;
    content << file.rdbuf();
    return content.str();
}

std::string const timeAndProgram =
    R"([0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3}[+-][0-9]{2}:[0-9]{2} )";

TEST(LogTarget, TextReadsAndWrites) {
    EXPECT_EQ(LogTarget::parse("syslog").kind, LogTarget::Kind::syslog);
    EXPECT_EQ(LogTarget::parse("stderr").kind, LogTarget::Kind::standardError);
    EXPECT_EQ(LogTarget::parse("/var/log/x.log").kind, LogTarget::Kind::file);
    EXPECT_EQ(LogTarget::parse("/var/log/x.log").path, "/var/log/x.log");
    for (char const* text : {"syslog", "stderr", "/x"}) {
        EXPECT_EQ(LogTarget::parse(text).asString(), text);
    }
}

TEST(LogTarget, OtherTextIsRefusedByName) {
    for (char const* text : {"", "x.log", "./x", "Syslog", "stdout", " syslog"}) {
        EXPECT_THROW(LogTarget::parse(text), Exception) << text;
    }
    EXPECT_THROW(LogTarget::parse(std::string("/x\0y", 4)), Exception);
    try {
        LogTarget::parse("x.log");
        FAIL() << "accepted";
    } catch (Exception const& caught) {
        EXPECT_EQ(caught.asString(), "LogTarget::parse (code 4, LogSinks): \"x.log\" is neither \"syslog\", \"stderr\" "
                                     "nor an absolute path");
    }
}

TEST(LogSinks, FileLineHasTimeProgramPidAndSeverity) {
    TemporaryDirectory const directory;
    std::string const path = directory.path() + "/log";
    auto logger = makeLogger(LogTarget::parse(path), {.ident = "program%d"});
    logger->note(Logger::Severity::info, "a note with 100%d");
    logger->log(0x03000170, 0, "%s\x01%d", "GlDisplay", 154);
    logger->flush();
    std::string const start = timeAndProgram + "program%d\\[" + std::to_string(getpid()) + "\\] ";
    std::string const expected(start + "info: a note with 100%d\n" + start + "warning: 0x03000170: GlDisplay; 154\n");
    EXPECT_THAT(contentOf(path), testing::MatchesRegex(expected));
}

TEST(LogSinks, FileIsAppendedToAndNotReadableByEveryone) {
    TemporaryDirectory const directory;
    std::string const path = directory.path() + "/log";
    for (int run = 0; run < 2; ++run) {
        makeLogger(LogTarget::parse(path))->note(Logger::Severity::info, "line");
    }
    std::string const content = contentOf(path);
    EXPECT_EQ(std::count(content.begin(), content.end(), '\n'), 2);
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0007U, 0U);
}

TEST(LogSinks, ReopenFollowsARotation) {
    TemporaryDirectory const directory;
    std::string const path = directory.path() + "/log";
    auto logger = makeLogger(LogTarget::parse(path));
    logger->note(Logger::Severity::info, "before");
    logger->flush();
    ASSERT_EQ(std::rename(path.c_str(), (path + ".1").c_str()), 0);
    logger->note(Logger::Severity::info, "between");
    logger->reopen();
    logger->note(Logger::Severity::info, "after");
    logger->flush();
    EXPECT_NE(contentOf(path + ".1").find("before\n"), std::string::npos);
    EXPECT_NE(contentOf(path + ".1").find("between\n"), std::string::npos);
    EXPECT_EQ(contentOf(path + ".1").find("after"), std::string::npos);
    EXPECT_NE(contentOf(path).find("after\n"), std::string::npos);
    EXPECT_EQ(contentOf(path).find("between"), std::string::npos);
}

TEST(LogSinks, FileThatCannotBeOpenedIsNamedWithTheReason) {
    TemporaryDirectory const directory;
    std::string const path = directory.path() + "/missing/log";
    try {
        makeLogger(LogTarget::parse(path));
        FAIL() << "opened";
    } catch (Exception const& caught) {
        EXPECT_EQ(caught.asString(),
                  "makeLogger (code 4, LogSinks): cannot open log file " + path + ": No such file or directory");
    }
}

TEST(LogSinks, FileBehindASymbolicLinkIsNotOpened) {
    TemporaryDirectory const directory;
    std::string const victim = directory.path() + "/victim";
    std::string const path = directory.path() + "/log";
    ASSERT_EQ(symlink(victim.c_str(), path.c_str()), 0);
    try {
        makeLogger(LogTarget::parse(path));
        FAIL() << "opened";
    } catch (Exception const& caught) {
        EXPECT_EQ(caught.asString(),
                  "makeLogger (code 4, LogSinks): cannot open log file " + path + ": it is a symbolic link");
    }
    EXPECT_NE(access(victim.c_str(), F_OK), 0) << "it was made";
}

TEST(LogSinks, FullDiskStopsNobody) {
    if (access("/dev/full", W_OK) != 0) {
        GTEST_SKIP() << "no /dev/full here";
    }
    auto logger = makeLogger(LogTarget::parse("/dev/full"));
    for (int i = 0; i < 1000; ++i) {
        logger->note(Logger::Severity::info, std::string(100, 'x'));
    }
    logger->flush();
}

TEST(LogSinks, StandardErrorHasTheSameLines) {
    testing::internal::CaptureStderr();
    makeLogger(LogTarget::parse("stderr"), {.ident = "program"})->note(Logger::Severity::error, "broken");
    std::string const written = testing::internal::GetCapturedStderr();
    std::string const expected(timeAndProgram + "program\\[[0-9]+\\] error: broken\n");
    EXPECT_THAT(written, testing::MatchesRegex(expected));
}

TEST(LogSinks, ProgramsNameIsTheIdentUnlessGiven) {
    testing::internal::CaptureStderr();
    makeLogger(LogTarget::parse("stderr"))->note(Logger::Severity::error, "broken");
    std::string const written = testing::internal::GetCapturedStderr();
    EXPECT_NE(written.find(" foundation_tests["), std::string::npos) << written;
}

TEST(LogSinks, SystemLogGetsTheLineAloneWithItsPriority) {
    LogTarget target = LogTarget::parse("syslog");
    target.facility = LOG_LOCAL3;
    {
        auto logger = makeLogger(target, {.ident = "program"});
        EXPECT_EQ(systemLog().facility, LOG_LOCAL3);
        EXPECT_EQ(systemLog().options, LOG_PID);
        EXPECT_EQ(systemLog().ident, "program");
        logger->note(Logger::Severity::debug, "one");
        logger->note(Logger::Severity::info, "two %s");
        logger->log(0x03000170, 0, "%s", "three");
        logger->note(Logger::Severity::error, "four");
        logger->reopen();
        EXPECT_TRUE(systemLog().open) << "a rotation does not close the system log";
    }
    EXPECT_FALSE(systemLog().open);
    EXPECT_EQ(systemLog().lines,
              (std::vector<std::pair<int, std::string>>{
                  {LOG_DEBUG, "one"}, {LOG_INFO, "two %s"}, {LOG_WARNING, "0x03000170: three"}, {LOG_ERR, "four"}}));
}

} // namespace
} // namespace Vellum
