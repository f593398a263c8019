#include "foundation/database/StatementSplitter.h"

#include "foundation/database/DatabaseException.h"
#include "foundation/database/ScriptStatement.h"

#include <cctype>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <random>
#include <vector>

namespace Vellum::Database {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

struct Found {
    std::string text;
    std::uint64_t line;
    bool operator==(Found const&) const = default;
};

std::ostream& operator<<(std::ostream& out, Found const& found) {
    return out << found.line << ": " << testing::PrintToString(found.text);
}

// The statements of `text`, or nothing when it ends inside of something. Fed in pieces that end at `cuts`.
std::optional<std::vector<Found>> split(std::string const& text, std::vector<std::size_t> const& cuts = {}) {
    std::vector<Found> found;
    StatementSplitter splitter([&](Statement const& statement) {
        found.push_back({std::string(statement.text), statement.line});
        EXPECT_EQ(statement.number, found.size());
    });
    try {
        std::size_t begin = 0;
        for (std::size_t const cut : cuts) {
            splitter.feed(std::string_view(text).substr(begin, cut - begin));
            begin = cut;
        }
        splitter.feed(std::string_view(text).substr(begin));
        splitter.finish();
    } catch (DatabaseException const&) {
        return std::nullopt;
    }
    return found;
}

std::vector<std::string> texts(std::string const& text) {
    auto const found = split(text);
    EXPECT_TRUE(found.has_value()) << text;
    std::vector<std::string> all;
    for (Found const& one : found.value_or(std::vector<Found>())) {
        all.push_back(one.text);
    }
    return all;
}

// The rules once more, slowly: the whole text at hand, one index, look as far ahead as it takes.
std::optional<std::vector<Found>> splitSlowly(std::string text) {
    text = text.substr(0, text.find('\0'));
    std::vector<Found> found;
    std::string statement;
    std::size_t first = std::string::npos; // of the statement's code
    bool conditional = false;
    auto const at = [&](std::size_t i, std::string const& what) {
        return text.compare(i, what.size(), what) == 0;
    };
    auto const lineAt = [&](std::size_t i) {
        return 1 + static_cast<std::uint64_t>(std::count(text.begin(), text.begin() + static_cast<long>(i), '\n'));
    };
    auto const end = [&](std::size_t i) {
        if (first != std::string::npos) {
            found.push_back({text.substr(first, i - first), lineAt(first)});
        }
        first = std::string::npos;
    };
    std::size_t i = 0;
    while (i < text.size()) {
        std::size_t next = i + 1;
        bool code = true;
        if (at(i, "'") || at(i, "\"") || at(i, "`")) {
            char const quote = text[i];
            while (next < text.size() && text[next] != quote) {
                next += quote != '`' && text[next] == '\\' ? 2 : 1;
            }
            if (next >= text.size()) {
                return std::nullopt;
            }
            ++next;
        } else if (at(i, "#") || (at(i, "--") && (i + 2 == text.size() || std::isspace(text[i + 2]) != 0 ||
                                                  std::iscntrl(text[i + 2]) != 0))) {
            next = std::min(text.find('\n', i), text.size() - 1) + 1;
            code = false;
        } else if (!conditional && (at(i, "/*!") || at(i, "/*M!"))) {
            conditional = true;
            next = text.find('!', i) + 1;
        } else if (at(i, "/*")) {
            next = text.find("*/", i + 2);
            if (next == std::string::npos) {
                return std::nullopt;
            }
            next += 2;
            code = false;
        } else if (conditional && at(i, "*/")) {
            conditional = false;
            next = i + 2;
        } else if (text[i] == ';' && !conditional) {
            end(i);
            code = false;
        } else if (std::isspace(text[i]) != 0) {
            code = false;
        }
        if (code && first == std::string::npos) {
            first = i;
        }
        i = next;
    }
    if (conditional) {
        return std::nullopt;
    }
    end(text.size());
    return found;
}

TEST(StatementSplitter, SemicolonEndsAStatement) {
    EXPECT_EQ(split("select 1;\nselect 2;"), (std::vector<Found>{{"select 1", 1}, {"select 2", 2}}));
}

TEST(StatementSplitter, LastStatementNeedsNoSemicolon) {
    EXPECT_THAT(texts("select 1;select 2"), ElementsAre("select 1", "select 2"));
    EXPECT_THAT(texts("select -"), ElementsAre("select -"));
    EXPECT_THAT(texts("select /"), ElementsAre("select /"));
}

TEST(StatementSplitter, EmptyStatementsAreSkipped) {
    EXPECT_THAT(texts(""), IsEmpty());
    EXPECT_THAT(texts(" \n\t;;;\n;"), IsEmpty());
    EXPECT_THAT(texts("delete from autoexempt;\n;\ncommit;\n"), ElementsAre("delete from autoexempt", "commit"));
    EXPECT_THAT(texts("-- nothing\n; # nothing\n; /* nothing; */ ;"), IsEmpty());
}

TEST(StatementSplitter, NulEndsTheText) {
    EXPECT_THAT(texts(std::string("create table t (a int);\0select 1;", 33)), ElementsAre("create table t (a int)"));
    EXPECT_THAT(texts(std::string("select 1\0;", 10)), ElementsAre("select 1"));
    EXPECT_FALSE(split(std::string("select '\0';", 11)).has_value()) << "inside of a quote, too";
}

TEST(StatementSplitter, QuotedTextHidesEverything) {
    EXPECT_THAT(texts("a ';' b;c"), ElementsAre("a ';' b", "c"));
    EXPECT_THAT(texts("a \";--\" b;c"), ElementsAre("a \";--\" b", "c"));
    EXPECT_THAT(texts("a `;#` b;c"), ElementsAre("a `;#` b", "c"));
    EXPECT_THAT(texts("'/*';'*/'"), ElementsAre("'/*'", "'*/'"));
}

TEST(StatementSplitter, BackslashEscapesInQuotesButNotInBackticks) {
    EXPECT_THAT(texts(R"('\';';b)"), ElementsAre(R"('\';')", "b"));
    EXPECT_THAT(texts(R"("\";";b)"), ElementsAre(R"("\";")", "b"));
    EXPECT_THAT(texts(R"('\\';b)"), ElementsAre(R"('\\')", "b"));
    EXPECT_THAT(texts(R"(`\`;b)"), ElementsAre(R"(`\`)", "b"));
    EXPECT_THAT(texts(R"(\';';b)"), ElementsAre(R"(\';')", "b")) << "no escape outside of quotes";
}

TEST(StatementSplitter, DoubledQuotesAreOneText) {
    EXPECT_THAT(texts("'it''s;';b"), ElementsAre("'it''s;'", "b"));
    EXPECT_THAT(texts("\"a\"\";\";b"), ElementsAre("\"a\"\";\"", "b"));
    EXPECT_THAT(texts("`a``;`;b"), ElementsAre("`a``;`", "b"));
}

TEST(StatementSplitter, CommentsHideSemicolons) {
    EXPECT_THAT(texts("a -- ;\n b;c"), ElementsAre("a -- ;\n b", "c"));
    EXPECT_THAT(texts("a # ;\n b;c"), ElementsAre("a # ;\n b", "c"));
    EXPECT_THAT(texts("a /* ; ' */ b;c"), ElementsAre("a /* ; ' */ b", "c"));
    EXPECT_THAT(texts("a/**/;c"), ElementsAre("a/**/", "c"));
    EXPECT_THAT(texts("a --"), ElementsAre("a --")) << "a comment at the end needs no blank";
    EXPECT_THAT(texts("--"), IsEmpty());
}

TEST(StatementSplitter, TwoDashesNeedABlankToBeAComment) {
    EXPECT_THAT(texts("1--1;2"), ElementsAre("1--1", "2"));
    EXPECT_THAT(texts("1--- ;\n;2"), ElementsAre("1--- ;\n", "2"));
    EXPECT_THAT(texts("1--\x01;\n;2"), ElementsAre("1--\x01;\n", "2")) << "or a control character";
}

TEST(StatementSplitter, LeadingCommentsAreDropped) {
    EXPECT_EQ(split("/* head */\n-- more\n  select 1;"), (std::vector<Found>{{"select 1", 3}}));
}

TEST(StatementSplitter, ConditionalCommentIsCode) {
    EXPECT_THAT(texts("/*!40101 SET a=';' */;b"), ElementsAre("/*!40101 SET a=';' */", "b"));
    EXPECT_THAT(texts("/*M!100100 a;b /* ; */ '*/' */;c"), ElementsAre("/*M!100100 a;b /* ; */ '*/' */", "c"));
    EXPECT_THAT(texts("/*Most; ordinary*/ a;b"), ElementsAre("a", "b"));
}

TEST(StatementSplitter, OpenEndIsRefusedWithItsLine) {
    for (std::string const open : {"'", "\"", "`", "/*", "/* *", "/*!", "/*!1 *", "'\\"}) {
        try {
            StatementSplitter splitter([](Statement const&) {});
            splitter.feed("a;\nb\n" + open);
            splitter.finish();
            ADD_FAILURE() << open;
        } catch (DatabaseException const& refused) {
            EXPECT_THAT(refused.asString(), HasSubstr("line 3")) << open;
        }
    }
}

TEST(StatementSplitter, StatementAtTheLimitPassesAndOneByteMoreDoesNot) {
    std::vector<std::string> found;
    StatementSplitter splitter([&](Statement const& statement) { found.emplace_back(statement.text); }, 8);
    splitter.feed("12345678;/* a long comment is not held */12345678;");
    EXPECT_THAT(found, ElementsAre("12345678", "12345678"));
    EXPECT_THROW(splitter.feed("123456789"), DatabaseException);
}

TEST(StatementSplitter, PiecesMayEndAnywhere) {
    std::string const text = "/*! a;*/ -- x\n;'\\';''';\"\\\"\";`a``b`;1--2---3 /* ** ; */ # x\n;/*M!1*/;/*Mx*/z";
    auto const whole = split(text);
    ASSERT_TRUE(whole.has_value());
    EXPECT_EQ(whole, splitSlowly(text));
    for (std::size_t cut = 0; cut <= text.size(); ++cut) {
        EXPECT_EQ(split(text, {cut}), whole) << cut;
    }
    std::vector<std::size_t> everywhere;
    for (std::size_t cut = 0; cut < text.size(); ++cut) {
        everywhere.push_back(cut);
    }
    EXPECT_EQ(split(text, everywhere), whole);
}

TEST(StatementSplitter, RandomTextsSplitAsTheSlowRulesSay) {
    std::uint64_t const seed = std::random_device{}();
    std::mt19937_64 random(seed);
    char const* const parts[] = {"'",   "\"", "`", "\\", ";", "-", "--", "-- ", "#", "/*",   "*/",  "/*!", "/*M!",
                                 "/*M", "*",  "/", "!",  "M", " ", "\n", "a",   "1", "\x01", ";\n", "''",  "\xff"};
    int whole = 0;
    for (int round = 0; round < 200000; ++round) {
        std::string text;
        for (std::uint64_t length = random() % 24; length > 0; --length) {
            text += random() % 200 == 0 ? std::string(1, '\0') : parts[random() % std::size(parts)];
        }
        std::vector<std::size_t> cuts;
        for (std::size_t cut = random() % 5; cut < text.size(); cut += 1 + random() % 5) {
            cuts.push_back(cut);
        }
        auto const expected = splitSlowly(text);
        ASSERT_EQ(split(text, cuts), expected) << "seed " << seed << ", text " << testing::PrintToString(text);
        whole += expected.has_value() && !expected->empty();
    }
    EXPECT_GT(whole, 20000) << "most texts end inside of something: nothing is tested";
}

TEST(ScriptStatement, IsToldByItsFirstWords) {
    struct {
        char const* text;
        ScriptStatement meaning;
    } const cases[] = {
        {"INSERT INTO t VALUES\n('COMMIT')", ScriptStatement::change},
        {"insert/**/into t values(1)", ScriptStatement::change},
        {"delete from grey_list", ScriptStatement::change},
        {"Lock Tables a WRITE", ScriptStatement::lockTables},
        {"lock /* x */ table a write", ScriptStatement::lockTables},
        {"unlock tables", ScriptStatement::unlockTables},
        {"UNLOCK TABLES x", ScriptStatement::unfit},
        {"UNLOCK", ScriptStatement::unfit},
        {"commit", ScriptStatement::commit},
        {"COMMIT\n WORK", ScriptStatement::commit},
        {"COMMIT -- done\n", ScriptStatement::commit},
        {"COMMIT AND CHAIN", ScriptStatement::unfit},
        {"COMMIT RELEASE", ScriptStatement::unfit},
        {"COMMITTED", ScriptStatement::unfit},
        {"begin", ScriptStatement::begin},
        {"BEGIN NOT ATOMIC", ScriptStatement::unfit},
        {"start transaction", ScriptStatement::begin},
        {"set autocommit=0", ScriptStatement::begin},
        {"set autocommit = 0", ScriptStatement::begin},
        {"set autocommit=0, sql_mode=''", ScriptStatement::unfit},
        {"set autocommit=1", ScriptStatement::unfit},
        {"set names utf8mb4", ScriptStatement::unfit},
        {"create table t (a int)", ScriptStatement::create},
        {"create or replace table t (a int)", ScriptStatement::unfit},
        {"create /*!999999 table */ or replace table t (a int)", ScriptStatement::unfit},
        {"create user x", ScriptStatement::unfit},
        {"drop table t", ScriptStatement::unfit},
        {"truncate t", ScriptStatement::unfit},
        {"/*!40101 insert */ drop table t", ScriptStatement::unfit},
        {"rollback", ScriptStatement::unfit},
        {"call p()", ScriptStatement::unfit},
        {"(select 1)", ScriptStatement::unfit},
        {"inserting", ScriptStatement::unfit},
        {"", ScriptStatement::unfit},
    };
    for (auto const& one : cases) {
        EXPECT_EQ(int(scriptStatement(one.text)), int(one.meaning)) << one.text;
    }
}

} // namespace
} // namespace Vellum::Database
