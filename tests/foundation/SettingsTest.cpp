#include "foundation/Settings.h"
#include "foundation/Escape.h"

#include "../support/TemporaryDirectory.h"
#include "foundation/Escape.h"
#include "foundation/database/DatabaseSettings.h"

#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Vellum {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

SettingsTable parsed(std::string const& text) {
    return SettingsTable::parse(text, "v.toml");
}

// The message that reading ends with; "accepted" when there is none.
template <class Reading>
std::string refusal(Reading reading) {
    try {
        reading();
    } catch (SettingsError const& error) {
        EXPECT_EQ(error.code(), Exception::failure);
        return error.message();
    }
    return "accepted";
}

TEST(Settings, ValuesOfEveryKind) {
    SettingsTable const file = parsed("name = \"x\"\nwhole = -3\npart = 0.5\nyes = true\nlist = [\"a\", \"b\"]\n"
                                      "[sub]\nkey = 'raw \\'\n[[rule]]\nid = 1\n[[rule]]\nid = 2\n");
    EXPECT_EQ(file.text("name", ""), "x");
    EXPECT_EQ(file.integer("whole", 0, -10, 10), -3);
    EXPECT_EQ(file.number("part", 0, 0, 1), 0.5);
    EXPECT_EQ(file.number("whole", 0, -3, 1), -3.0);
    EXPECT_TRUE(file.boolean("yes", false));
    EXPECT_THAT(file.texts("list", {}), ElementsAre("a", "b"));
    EXPECT_EQ(file.table("sub").text("key", ""), "raw \\");
    EXPECT_EQ(file.table("sub").name(), "sub");
    EXPECT_EQ(file.table("sub").line(), 6U);
    std::vector<SettingsTable> const rules = file.tables("rule");
    ASSERT_EQ(rules.size(), 2U);
    EXPECT_EQ(rules[1].integer("id", 0, 0, 9), 2);
    EXPECT_TRUE(rules[0].has("id"));
    EXPECT_FALSE(rules[0].has("absent"));
    EXPECT_EQ(refusal([&] { file.refuseUnknownKeys(); }), "accepted") << "every key was asked for";
}

TEST(Settings, AbsentKeysAnswerTheirDefaults) {
    SettingsTable const file = parsed("");
    EXPECT_EQ(file.text("a", "x"), "x");
    EXPECT_EQ(file.secret("a", "x"), "x");
    EXPECT_EQ(file.integer("b", 99, 0, 10), 99) << "a default is not checked";
    EXPECT_EQ(file.number("c", 2.5, 0, 1), 2.5);
    EXPECT_TRUE(file.boolean("d", true));
    EXPECT_THAT(file.texts("e", {"z"}), ElementsAre("z"));
    EXPECT_EQ(file.choice("f", "one", {"one", "two"}), "one");
    EXPECT_EQ(file.table("g").table("h").text("i", "deep"), "deep");
    EXPECT_EQ(file.table("g").line(), 0U);
    EXPECT_TRUE(file.tables("j").empty());
}

TEST(Settings, ValueOutOfRangeNamesFileLineKeyAndRange) {
    SettingsTable const file = parsed("# comment\n[greylist]\ndelay_minutes = -5\nshare = 1.5\nodd = nan\n");
    SettingsTable const greylist = file.table("greylist");
    EXPECT_EQ(refusal([&] { greylist.integer("delay_minutes", 5, 0, 10080); }),
              "v.toml:3: [greylist] delay_minutes = -5: expected 0 to 10080");
    EXPECT_EQ(greylist.integer("delay_minutes", 5, -5, 0), -5) << "the bounds themselves are allowed";
    EXPECT_EQ(refusal([&] { greylist.number("share", 0, 0, 1); }), "v.toml:4: [greylist] share = 1.5: expected 0 to 1");
    EXPECT_THAT(refusal([&] { greylist.number("odd", 0, 0, 1); }), HasSubstr("expected 0 to 1"));
}

TEST(Settings, ValueOfTheWrongKindIsRefused) {
    SettingsTable const file = parsed("a = \"ten\"\nb = 1\nc = [1, 2]\nd = \"true\"\ne = {x = 1}\n");
    EXPECT_EQ(refusal([&] { file.integer("a", 0, 0, 5); }), "v.toml:1: a = \"ten\": expected a whole number, 0 to 5");
    EXPECT_EQ(refusal([&] { file.number("a", 0, 0, 5); }), "v.toml:1: a = \"ten\": expected a number, 0 to 5");
    EXPECT_EQ(refusal([&] { file.text("b", ""); }), "v.toml:2: b = 1: expected a text in quotes");
    EXPECT_EQ(refusal([&] { file.texts("b", {}); }), "v.toml:2: b = 1: expected a list of texts, [\"...\", ...]");
    EXPECT_THAT(refusal([&] { file.texts("c", {}); }), StartsWith("v.toml:3: c = "));
    EXPECT_EQ(refusal([&] { file.boolean("d", false); }), "v.toml:4: d = \"true\": expected true or false");
    EXPECT_EQ(refusal([&] { file.text("e", ""); }), "v.toml:5: e = a table: expected a text in quotes");
    EXPECT_EQ(refusal([&] { file.table("b"); }), "v.toml:2: b = 1: expected a table, [b]");
    EXPECT_EQ(refusal([&] { file.tables("b"); }), "v.toml:2: b = 1: expected tables, each [[b]]");
    EXPECT_THAT(refusal([&] { file.tables("c"); }), HasSubstr("expected tables, each [[c]]"));
}

TEST(Settings, ChoiceNamesWhatIsAllowed) {
    SettingsTable const file = parsed("fold = \"sometimes\"\n");
    EXPECT_EQ(refusal([&] {
                  file.choice("fold", "never", {"never", "always"});
              }),
              "v.toml:1: fold = \"sometimes\": expected one of \"never\", \"always\"");
    EXPECT_EQ(file.choice("fold", "never", {"never", "sometimes"}), "sometimes");
}

TEST(Settings, SecretIsNeverRepeated) {
    SettingsTable const file = parsed("[database]\npassword = 4711\n");
    EXPECT_EQ(refusal([&] { file.table("database").secret("password", ""); }),
              "v.toml:2: [database] password: expected a text in quotes");
}

TEST(Settings, UnknownKeyIsRefusedWithWhatIsKnown) {
    SettingsTable const file = parsed("a = 1\n[sub]\nb = 2\ndelay = 3\nz = 4\n");
    file.integer("a", 0, 0, 9);
    SettingsTable const sub = file.table("sub");
    sub.integer("b", 0, 0, 9);
    sub.integer("c", 0, 0, 9);
    EXPECT_EQ(refusal([&] { file.refuseUnknownKeys(); }), "v.toml:4: [sub] unknown key \"delay\": expected b, c");
    file.table("sub").integer("delay", 0, 0, 9);
    sub.integer("z", 0, 0, 9);
    EXPECT_EQ(refusal([&] { file.refuseUnknownKeys(); }), "accepted") << "two handles on one table know alike";
}

TEST(Settings, UnknownSectionIsRefused) {
    SettingsTable const file = parsed("[greylits]\na = 1\n");
    file.table("greylist");
    EXPECT_EQ(refusal([&] { file.refuseUnknownKeys(); }), "v.toml:1: unknown key \"greylits\": expected greylist");
}

TEST(Settings, ReadersRefuseWithTheirOwnWords) {
    SettingsTable const file = parsed("\n[[rule]]\nsender = \"/(/\"\n[[rule]]\n");
    std::vector<SettingsTable> const rules = file.tables("rule");
    EXPECT_EQ(refusal([&] { rules[0].refuse("sender", "expected a pattern"); }),
              "v.toml:3: [rule] sender = \"/(/\": expected a pattern");
    EXPECT_EQ(refusal([&] { rules[1].refuse("expected at least one condition"); }),
              "v.toml:4: [rule] expected at least one condition");
    EXPECT_EQ(refusal([&] { rules[1].refuse("sender", "expected a pattern"); }),
              "v.toml:4: [rule] sender: expected a pattern");
}

TEST(Settings, BrokenFileNamesTheLine) {
    EXPECT_THAT(refusal([] { parsed("a = 1\nb = \n"); }), StartsWith("v.toml:2: "));
    EXPECT_THAT(refusal([] { parsed("a = 1\na = 2\n"); }), StartsWith("v.toml:2: "));
    EXPECT_THAT(refusal([] { parsed("a = \"open\n"); }), StartsWith("v.toml:1: "));
    EXPECT_THAT(refusal([] { parsed("[unclosed\n"); }), StartsWith("v.toml:1: "));
    EXPECT_THAT(refusal([] { parsed(std::string("a = \"\0\"\n", 8)); }), StartsWith("v.toml:1: "));
}

// The TOML parser reads beyond a text in single quotes that is none.
TEST(Settings, BytesThatAreNotUtf8AreRefusedWithTheirLine) {
    for (char const* const bytes : {"\xa4\xa4", "\xff", "\xc1\xbf", "\xe2\x82", "\xed\xa0\x80", "\xf4\x90\x80\x80"}) {
        for (char const* const quote : {"'", "'''", "\"", "\"\"\"", ""}) {
            std::string const quoted = quote + std::string(bytes) + quote;
            EXPECT_EQ(refusal([&] { parsed("b = 1\n" + quoted + " = 1\n"); }), "v.toml:2: expected UTF-8") << quoted;
            EXPECT_EQ(refusal([&] { parsed("b = 1\na = " + quoted + "\n"); }), "v.toml:2: expected UTF-8") << quoted;
        }
        EXPECT_EQ(refusal([&] { parsed("a = '''\n\nx" + std::string(bytes) + "'''\n"); }), "v.toml:3: expected UTF-8");
        EXPECT_EQ(refusal([&] { parsed("# " + std::string(bytes) + "\n"); }), "v.toml:1: expected UTF-8");
    }
}

TEST(Settings, EveryLengthOfUtf8IsTaken) {
    // Both ends of what two to four bytes hold, and of the surrogates that are left out.
    std::string const text =
        "\xc2\x80\xdf\xbf\xe0\xa0\x80\xed\x9f\xbf\xee\x80\x80\xef\xbf\xbf\xf0\x90\x80\x80\xf4\x8f\xbf\xbf";
    for (std::string const quote : {"'", "'''", "\"", "\"\"\""}) {
        EXPECT_EQ(parsed("a = " + quote + text + quote + "\n").text("a", ""), text) << quote;
    }
    EXPECT_EQ(parsed("\xef\xbb\xbf"
                     "a = 1\n")
                  .integer("a", 0, 0, 9),
              1)
        << "behind a byte order mark";
}

TEST(Settings, UnreadableFileIsNamed) {
    TemporaryDirectory const directory;
    std::string const path = directory.path() + "/absent.toml";
    EXPECT_EQ(refusal([&] { SettingsTable::parseFile(path); }), path + ": cannot be read: No such file or directory");
    EXPECT_THAT(refusal([&] { SettingsTable::parseFile(directory.path()); }), HasSubstr("cannot be read"));
    std::ofstream(directory.path() + "/empty.toml").close();
    EXPECT_EQ(refusal([&] { SettingsTable::parseFile(directory.path() + "/empty.toml").refuseUnknownKeys(); }),
              "accepted");
}

Database::Server server(std::string const& text) {
    SettingsTable const file = parsed("[database]\n" + text);
    Database::Server read = Database::readServer(file.table("database"), 600);
    file.refuseUnknownKeys();
    return read;
}

TEST(DatabaseSettings, EverythingHasADefault) {
    Database::Server const read = server("");
    EXPECT_EQ(read.asString(), "vellum@127.0.0.1:3306");
    EXPECT_EQ(read.connectTimeoutSeconds, 5U);
    EXPECT_EQ(read.readTimeoutSeconds, 600U);
    EXPECT_EQ(read.writeTimeoutSeconds, 600U);
    EXPECT_FALSE(read.tls);
}

TEST(DatabaseSettings, EveryKeyIsTaken) {
    Database::Server const tcp =
        server("host = \"db.example\"\nport = 3307\nuser = \"mail\"\npassword = \"p\"\ntls = true\ntls_ca = \"/ca\"\n"
               "connect_timeout_seconds = 7\nread_timeout_seconds = 8\n");
    EXPECT_EQ(tcp.asString(), "mail@db.example:3307");
    EXPECT_EQ(tcp.password, "p");
    EXPECT_TRUE(tcp.tls);
    EXPECT_EQ(tcp.tlsCa, "/ca");
    EXPECT_EQ(tcp.connectTimeoutSeconds, 7U);
    EXPECT_EQ(tcp.readTimeoutSeconds, 8U);
    EXPECT_EQ(server("socket = \"/run/mysqld/mysqld.sock\"").asString(), "vellum@/run/mysqld/mysqld.sock");
}

TEST(Settings, MistakeIsOneLineWhateverTheKeyHolds) {
    SettingsTable const file = SettingsTable::parse("\"a\\nb\\u001b\" = 1\n", "v.toml");
    EXPECT_EQ(refusal([&] { file.refuseUnknownKeys(); }), "v.toml:1: unknown key \"a\\nb\\x1b\": expected no key");
    for (char const* const text : {"a\x01 = 1\n", "a = \x1b\n", "\xff = 1\n", "a = \"\x01\"\n"}) {
        std::string const said = refusal([&] { SettingsTable::parse(text, "v.toml"); });
        EXPECT_EQ(escapeControls(said), said);
        EXPECT_THAT(said, HasSubstr("v.toml:1: "));
    }
}

TEST(DatabaseSettings, PasswordFileGivesItsFirstLine) {
    TemporaryDirectory const directory;
    std::string const path = directory.path() + "/password";
    std::ofstream(path) << "first line\nsecond\n";
    EXPECT_EQ(server("password_file = \"" + path + "\"").password, "first line");
    std::ofstream(path) << "no break";
    EXPECT_EQ(server("password_file = \"" + path + "\"").password, "no break");
    std::ofstream(path).close();
    EXPECT_THAT(refusal([&] { server("password_file = \"" + path + "\""); }), HasSubstr("in its first line"));
    EXPECT_THAT(refusal([&] { server("password_file = \"/nonexistent\""); }),
                HasSubstr("cannot be read: No such file"));
}

TEST(DatabaseSettings, ContradictionsAreRefused) {
    EXPECT_EQ(refusal([] { server("socket = \"/s\"\nport = 1\n"); }),
              "v.toml:2: [database] socket = \"/s\": expected either a socket, or host and port");
    EXPECT_THAT(refusal([] { server("tls_ca = \"/ca\"\n"); }), HasSubstr("expected tls = true"));
    EXPECT_THAT(refusal([] { server("host = \"\"\n"); }), HasSubstr("expected a name"));
    EXPECT_THAT(refusal([] { server("user = \"\"\n"); }), HasSubstr("expected the name of an account"));
    EXPECT_THAT(refusal([] { server("port = 65536\n"); }), HasSubstr("expected 1 to 65535"));
    std::string const both = refusal([] { server("password = \"hush\"\npassword_file = \"/f\"\n"); });
    EXPECT_THAT(both, HasSubstr("expected either this or password"));
    EXPECT_THAT(both, Not(HasSubstr("hush")));
    EXPECT_EQ(refusal([] { server("passwd = \"hush\"\n"); }),
              "v.toml:2: [database] unknown key \"passwd\": expected connect_timeout_seconds, host, password, "
              "password_file, port, read_timeout_seconds, socket, tls, tls_ca, user");
}

} // namespace
} // namespace Vellum
