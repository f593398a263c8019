#include "foundation/Logger.h"

#include "foundation/LogFormat.h"
#include "foundation/StandardErrorLogger.h"
#include "tests/support/CapturingLogger.h"

#include <climits>
#include <cstdint>
#include <cstdio>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

namespace Vellum {
namespace {

// The lines that the default writing of records makes.
class LineLogger : public Logger {
  public:
    std::string last;
    Severity severity = Severity::debug;

  protected:
    using Logger::write;
    void write(Severity of, std::string_view line) override {
        severity = of;
        last = line;
    }
};

template <class... Values>
std::vector<std::string> fieldsOf(char const* format, Values... values) {
    CapturingLogger log;
    // Through a pointer: the formats here include some that a compiler rightly warns of.
    auto const logging = static_cast<void (Logger::*)(std::uint32_t, int, char const*, ...)>(&Logger::log);
    (static_cast<Logger&>(log).*logging)(1, 0, format, values...);
    return log.records().at(0).fields;
}

std::string rendered(std::vector<std::string> const& fields) {
    return fields.at(0);
}

TEST(Logger, RecordBecomesOneLineWithItsCode) {
    LineLogger log;
    log.log(0x03000170, 0, "%s\x01%d", "GlDisplay", 154);
    EXPECT_EQ(log.last, "0x03000170: GlDisplay; 154");
    EXPECT_EQ(log.severity, Logger::Severity::warning);
    log.log(0x30001A1, 0, "%s", " ");
    EXPECT_EQ(log.last, "0x030001a1:  ");
}

TEST(Logger, SeparatorInsideAFieldCannotForgeTheNextOne) {
    LineLogger log;
    log.log(1, 0, "%s\x01%d\x01%s", "a; 7; b", 1, "text; with; these");
    EXPECT_EQ(log.last, "0x00000001: a\\x3b 7\\x3b b; 1; text; with; these");
}

TEST(Logger, FieldsAreSplitAtTheSeparatorOfTheFormat) {
    EXPECT_EQ(fieldsOf("%s\x01%d\x01%s", "GlDisplay", 154, "text"),
              (std::vector<std::string>{"GlDisplay", "154", "text"}));
    EXPECT_EQ(fieldsOf("plain"), std::vector<std::string>{"plain"});
    EXPECT_EQ(fieldsOf(""), std::vector<std::string>{""});
    EXPECT_EQ(fieldsOf("\x01"), (std::vector<std::string>{"", ""}));
    EXPECT_EQ(fieldsOf("line %d of %s\x01!", 7, "x"), (std::vector<std::string>{"line 7 of x", "!"}));
}

TEST(Logger, ValueCannotForgeAFieldOrALine) {
    EXPECT_EQ(fieldsOf("%s\x01%s",
                       "a\x01"
                       "b\nc\x7f",
                       "\\x01"),
              (std::vector<std::string>{"a\\x01b\\nc\\x7f", "\\x5cx01"}));
    EXPECT_EQ(rendered(fieldsOf("%c%c", '\x01', 'x')), "\\x01x");
    EXPECT_EQ(rendered(fieldsOf("%s", "100%s %n")), "100%s %n") << "a value is no format";
}

TEST(Logger, EveryConversionTakesItsOwnValue) {
    EXPECT_EQ(rendered(fieldsOf("%d %i %u %x %X %o", -1, -2, 3U, 0xabU, 0xabU, 8U)), "-1 -2 3 ab AB 10");
    EXPECT_EQ(rendered(fieldsOf("%ld %lu %lx", LONG_MIN, ULONG_MAX, 0x123456789abUL)),
              "-9223372036854775808 18446744073709551615 123456789ab");
    EXPECT_EQ(rendered(fieldsOf("%lld %llu", LLONG_MAX, ULLONG_MAX)), "9223372036854775807 18446744073709551615");
    EXPECT_EQ(rendered(fieldsOf("%zu %zd %jd %td", SIZE_MAX, ssize_t{-1}, INTMAX_MIN, ptrdiff_t{-5})),
              "18446744073709551615 -1 -9223372036854775808 -5");
    EXPECT_EQ(rendered(fieldsOf("%hd %hhd %hu %hhu", 65535, 255, 65536 + 7, 256 + 7)), "-1 -1 7 7");
    EXPECT_EQ(rendered(fieldsOf("%d %u", INT_MIN, UINT_MAX)), "-2147483648 4294967295");
    EXPECT_EQ(rendered(fieldsOf("%.2f %g", 1.005, 0.5)), "1.00 0.5");
    EXPECT_EQ(rendered(fieldsOf("%p", static_cast<void*>(nullptr))), "(nil)");
    EXPECT_EQ(rendered(fieldsOf("100%% of %s", "all")), "100% of all");
    EXPECT_EQ(rendered(fieldsOf("%d%s%d%s", 1, "a", 2, "b")), "1a2b");
}

TEST(Logger, FlagsWidthAndPrecisionAreThoseOfPrintf) {
    EXPECT_EQ(rendered(fieldsOf("[%5d][%-5d][%05d][%+d][%#x]", 42, 42, 42, 42, 42U)),
              "[   42][42   ][00042][+42][0x2a]");
    EXPECT_EQ(rendered(fieldsOf("0x%08x", 0x3000170U)), "0x03000170");
    EXPECT_EQ(rendered(fieldsOf("[%5s][%-5s][%.2s][%5.1s]", "ab", "ab", "abc", "abc")), "[   ab][ab   ][ab][    a]");
    EXPECT_EQ(rendered(fieldsOf("[%*d][%*d][%.*s]", 4, 7, -4, 7, 2, "abc")), "[   7][7   ][ab]");
    EXPECT_EQ(rendered(fieldsOf("[%.3d][%.0d]", 7, 0)), "[007][]");
    EXPECT_EQ(rendered(fieldsOf("[%.*d][%.*s]", -1, 7, -1, "abc")), "[7][abc]") << "a negative precision is none";
    char const unterminated[3] = {'a', 'b', 'c'};
    EXPECT_EQ(rendered(fieldsOf("%.3s", static_cast<char const*>(unterminated))), "abc");
}

TEST(Logger, NullTextIsShownAsSuch) {
    EXPECT_EQ(rendered(fieldsOf("%s", static_cast<char const*>(nullptr))), "(null)");
}

TEST(Logger, UnknownConversionEndsTheReadingOfValues) {
    EXPECT_EQ(rendered(fieldsOf("%d %y %d", 1, 2, 3)), "1 %y %d");
    EXPECT_EQ(rendered(fieldsOf("%d %", 1)), "1 %");
    int untouched = 5;
    EXPECT_EQ(rendered(fieldsOf("%d%n", 1, &untouched)), "1%n");
    EXPECT_EQ(untouched, 5);
}

TEST(Logger, LongValuesAreNotCut) {
    std::string const text(100000, 'x');
    EXPECT_EQ(rendered(fieldsOf("%s", text.c_str())), text);
}

TEST(Logger, NoteIsEscapedLikeAValueButKeepsItsBackslashes) {
    LineLogger log;
    log.note(Logger::Severity::info, "a\nb \\n \xc3\xbc \xff");
    EXPECT_EQ(log.last, "a\\nb \\n \xc3\xbc \\xff");
    EXPECT_EQ(log.severity, Logger::Severity::info);
    log.note(Logger::Severity::error, std::string_view("plain\0", 6));
    EXPECT_EQ(log.last, "plain\\x00");
}

TEST(Logger, InstalledLoggerIsTheInstanceUntilItIsReplaced) {
    Logger& builtIn = Logger::instance(false);
    LineLogger first;
    LineLogger second;
    EXPECT_EQ(Logger::install(&first), nullptr);
    EXPECT_EQ(&Logger::instance(false), &first);
    EXPECT_EQ(&Logger::instance(true), &first) << "the flag changes nothing";
    EXPECT_EQ(Logger::install(&second), &first);
    EXPECT_EQ(Logger::install(nullptr), &second);
    EXPECT_EQ(&Logger::instance(false), &builtIn);
}

TEST(Logger, BuiltInWritesToStandardErrorAtOnce) {
    testing::internal::CaptureStderr();
    Logger::instance(false).log(0x03000170, 0, "%s\x01%d", "GlDisplay", 154);
    Logger::instance(false).note(Logger::Severity::error, "two\nlines");
    std::string const written = testing::internal::GetCapturedStderr();
    std::string const start =
        R"([0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3}[+-][0-9]{2}:[0-9]{2} foundation_tests\[[0-9]+\] )";
    std::string const expected(start + "warning: 0x03000170: GlDisplay; 154\n" + start + "error: two\\\\nlines\n");
    EXPECT_THAT(written, testing::MatchesRegex(expected));
}

// A static object that logs when the process ends; declared before anything makes the logger, so destroyed last.
struct LastWords {
    ~LastWords() { Logger::instance(false).note(Logger::Severity::info, "last words"); }
};

TEST(LoggerDeathTest, BuiltInStillWorksWhileStaticObjectsAreDestroyed) {
    EXPECT_EXIT(
        {
            static LastWords const words;
            Logger::instance(false).note(Logger::Severity::info, "first words");
            std::exit(0);
        },
        testing::ExitedWithCode(0), "info: first words\n.*info: last words\n");
}

TEST(CapturingLogger, KeepsRecordsAndNotesInOrder) {
    CapturingLogger log;
    Logger::instance(false).log(7, 3, "%s\x01%d", "Source", 1);
    Logger::instance(false).note(Logger::Severity::error, "a note");
    Logger::instance(false).log(8, 0, "%s", "x");
    ASSERT_EQ(log.lines().size(), 3U);
    CapturingLogger::Line const first = log.lines()[0];
    EXPECT_TRUE(first.isRecord);
    EXPECT_EQ(first.code, 7U);
    EXPECT_EQ(first.level, 3);
    EXPECT_EQ(first.format, "%s\x01%d");
    EXPECT_EQ(first.fields, (std::vector<std::string>{"Source", "1"}));
    EXPECT_EQ(first.text, "Source\x01"
                          "1");
    EXPECT_EQ(log.notes(), std::vector<std::string>{"a note"});
    EXPECT_EQ(log.lines()[1].severity, Logger::Severity::error);
    EXPECT_EQ(log.records().size(), 2U);
    EXPECT_EQ(log.records(8).size(), 1U);
    log.clear();
    EXPECT_TRUE(log.lines().empty());
}

TEST(CapturingLogger, PreviousLoggerIsBackAfterwards) {
    CapturingLogger outer;
    {
        CapturingLogger const inner;
        EXPECT_EQ(&Logger::instance(false), &inner);
    }
    EXPECT_EQ(&Logger::instance(false), &outer);
}

TEST(CapturingLogger, WaitEndsWithTheRecordOrTheTime) {
    CapturingLogger log;
    EXPECT_FALSE(log.waitForRecord(7, std::chrono::milliseconds(0)).has_value());
    std::thread other([] {
        Logger::instance(false).log(6, 0, "%s", "another");
        Logger::instance(false).log(7, 0, "%s", "awaited");
        Logger::instance(false).note(Logger::Severity::info, "a long note");
    });
    EXPECT_EQ(log.waitForRecord(7).value().text, "awaited");
    EXPECT_EQ(log.waitForNote("long").value().text, "a long note");
    other.join();
    EXPECT_TRUE(log.waitForRecord(6, std::chrono::milliseconds(0)).has_value()) << "already there";
}

} // namespace
} // namespace Vellum
