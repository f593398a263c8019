#include "greylist/BackupScript.h"

#include "foundation/EmailAddress.h"
#include "greylist/LogCodes.h"
#include "tests/support/CapturingLogger.h"
#include "tests/support/GreylistConfiguration.h"
#include "tests/support/GreylistIdentities.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <sstream>
#include <vector>

namespace Vellum::GreyList {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr char const* head = "LOCK TABLES grey_list WRITE,autoexempt WRITE;\ndelete from grey_list;\n";
constexpr char const* between = "delete from autoexempt;\n";
constexpr char const* tail = ";\ncommit;\nUNLOCK TABLES;\n";

// The INSERT statements of these rows, as the script has them.
std::string inserts(std::string const& table, std::vector<std::string> const& rows) {
    std::string text;
    for (std::size_t n = 0; n < rows.size(); ++n) {
        if (n % 1000 == 0) {
            text += (n == 0 ? "" : ";\ncommit;\n") + ("INSERT INTO " + table + " VALUES");
        } else {
            text += ",";
        }
        text += "\n" + rows[n];
    }
    return rows.empty() ? text : text + ";\n";
}

std::string script(std::vector<std::string> const& tuples, std::vector<std::string> const& exemptions) {
    return head + inserts("grey_list", tuples) + between + inserts("autoexempt", exemptions) + tail;
}

class BackupScriptTest : public testing::Test {
  protected:
    std::string written() {
        std::ostringstream out;
        BackupSnapshot const snapshot(m_tuples, m_exemptions);
        m_rows = snapshot.write(out);
        return out.str();
    }
    void expectRows(std::uint64_t tuples, std::uint64_t exemptions, std::uint64_t leftOut) const {
        EXPECT_EQ(m_rows.tuples, tuples);
        EXPECT_EQ(m_rows.exemptions, exemptions);
        EXPECT_EQ(m_rows.leftOut, leftOut);
    }
    void add(TupleId const& id, long firstSeen = 1000, long expiry = 2000) {
        m_tuples.add(id, Status(firstSeen, expiry, 77));
    }
    void add(DynamicExemptId const& id, long firstSeen = 1000, long expiry = 2000) {
        m_exemptions.add(id, Status(firstSeen, expiry, 77));
    }
    std::vector<std::string> leftOutLog() const {
        std::vector<std::string> texts;
        for (auto const& record : m_log.records()) {
            if (record.code == LogCode::recordNotStored) {
                EXPECT_EQ(record.format, "%s");
                texts.push_back(record.text);
            }
        }
        return texts;
    }

    CapturingLogger m_log;
    InstalledConfiguration m_configuration{10000};
    _TupleCache m_tuples;
    _DynamicExemptCache m_exemptions;
    BackupSnapshot::Rows m_rows;
};

TEST_F(BackupScriptTest, TwoEmptyCachesEmptyBothTables) {
    EXPECT_EQ(written(), "LOCK TABLES grey_list WRITE,autoexempt WRITE;\ndelete from grey_list;\ndelete from "
                         "autoexempt;\n;\ncommit;\nUNLOCK TABLES;\n");
    expectRows(0, 0, 0);
}

TEST_F(BackupScriptTest, HoldsBothCachesInKeyOrder) {
    add(tuple("2001:db8::/64", "b@example.net", "c@example.org"), 1001, 2001);
    add(tuple("192.0.2.0/24", "a@example.net", "c@example.org"), 1000, 2000);
    add(exemption("192.0.2.0/24", "b.example"), 1003, 2003);
    add(exemption("2001:db8::/64", "a.example"), 1002, 2002);
    EXPECT_EQ(written(), "LOCK TABLES grey_list WRITE,autoexempt WRITE;\n"
                         "delete from grey_list;\n"
                         "INSERT INTO grey_list VALUES\n"
                         "('192.0.2.0/24', 'a@example.net', 'c@example.org', 1000,2000),\n"
                         "('2001:db8::/64', 'b@example.net', 'c@example.org', 1001,2001);\n"
                         "delete from autoexempt;\n"
                         "INSERT INTO autoexempt VALUES\n"
                         "('2001:db8::/64', 'a.example', 1002,2002),\n"
                         "('192.0.2.0/24', 'b.example', 1003,2003);\n"
                         ";\n"
                         "commit;\n"
                         "UNLOCK TABLES;\n");
    expectRows(2, 2, 0);
}

TEST_F(BackupScriptTest, NoMoreThanAThousandRowsStandInOneInsert) {
    unsigned int have = 0;
    std::vector<std::string> rows;
    for (unsigned int const count : {1U, 999U, 1000U, 1001U, 2000U, 2001U}) {
        for (; have < count; ++have) {
            add(tuple(have), have, 5000 + have);
            rows.push_back("('192.0.2.0/24', 'sender" + std::to_string(1000000 + have) +
                           "@example.net', 'recipient@example.org', " + std::to_string(have) + "," +
                           std::to_string(5000 + have) + ")");
        }
        ASSERT_EQ(written(), script(rows, {})) << count;
        expectRows(count, 0, 0);
    }
}

TEST_F(BackupScriptTest, NoMoreThanAThousandExemptionsStandInOneInsert) {
    add(tuple("192.0.2.0/24", "a@b", "c@d"));
    unsigned int have = 0;
    std::vector<std::string> rows;
    for (unsigned int const count : {1U, 999U, 1000U, 1001U, 2000U, 2001U}) {
        for (; have < count; ++have) {
            add(exemption(have), have, 5000 + have);
            rows.push_back("('192.0.2.0/24', 'd" + std::to_string(1000000 + have) + ".example', " +
                           std::to_string(have) + "," + std::to_string(5000 + have) + ")");
        }
        ASSERT_EQ(written(), script({"('192.0.2.0/24', 'a@b', 'c@d', 1000,2000)"}, rows)) << count;
        expectRows(1, count, 0);
    }
}

TEST_F(BackupScriptTest, NullMailboxesAreWrittenAsAPairOfBrackets) {
    add(tuple("192.0.2.0/24", "", "c@d"));
    add(tuple("192.0.2.0/24", "", ""));
    EXPECT_EQ(written(),
              script({"('192.0.2.0/24', '<>', '<>', 1000,2000)", "('192.0.2.0/24', '<>', 'c@d', 1000,2000)"}, {}));
}

TEST_F(BackupScriptTest, QuotesAndBackslashesOfAddressesAreEscapedAndOtherBytesAreNot) {
    std::string const sender = "\"o'neil\\ \"@example.net";
    std::string const recipient = "100%_\xc3\xa9\xff;--@example.org";
    add(tuple("192.0.2.0/24", sender, recipient));
    EXPECT_EQ(written(), script({"('192.0.2.0/24', '\\\"o\\'neil\\\\ \\\"@example.net', "
                                 "'100%_\xc3\xa9\xff;--@example.org', 1000,2000)"},
                                {}));
}

TEST_F(BackupScriptTest, EveryPlaceOfAnEscapedCharacterIsFound) {
    for (char const special : {'\'', '"', '\\'}) {
        for (std::size_t length = 1; length < 20; ++length) {
            for (std::size_t at = 0; at < length; ++at) {
                std::string address(length, 'x');
                address[at] = special;
                std::string expected = address;
                expected.insert(at, 1, '\\');
                EXPECT_EQ(emailAddressEscapedWrite(mailbox(address)), expected);
            }
        }
    }
}

TEST_F(BackupScriptTest, NetworksKeepTheirLengthAndHostBits) {
    add(tuple("0.0.0.0/0", "a@b", "c@d"));
    add(tuple("192.0.2.77/24", "a@b", "c@d"));
    add(tuple("192.0.2.77/32", "a@b", "c@d"));
    add(tuple("::ffff:192.0.2.0/120", "a@b", "c@d"));
    add(exemption("2001:db8::1/64", "d"));
    EXPECT_EQ(written(), script({"('0.0.0.0/0', 'a@b', 'c@d', 1000,2000)", "('192.0.2.77/24', 'a@b', 'c@d', 1000,2000)",
                                 "('192.0.2.77/32', 'a@b', 'c@d', 1000,2000)",
                                 "('::ffff:192.0.2.0/120', 'a@b', 'c@d', 1000,2000)"},
                                {"('2001:db8::1/64', 'd', 1000,2000)"}));
}

TEST_F(BackupScriptTest, NetworkOfUnknownClientsIsStored) {
    add(TupleId(Configuration::createMask(IPAddress()), mailbox("a@b"), mailbox("c@d")));
    add(DynamicExemptId(Configuration::createMask(IPAddress()), "d"));
    EXPECT_EQ(written(), script({"('/64', 'a@b', 'c@d', 1000,2000)"}, {"('/64', 'd', 1000,2000)"}));
    expectRows(1, 1, 0);
}

TEST_F(BackupScriptTest, TimesBeyondTheColumnsAreClamped) {
    constexpr long most = std::numeric_limits<std::int32_t>::max();
    constexpr long least = std::numeric_limits<std::int32_t>::min();
    add(tuple(0), most, most + 1);
    add(tuple(1), least, least - 1);
    add(tuple(2), std::numeric_limits<long>::min(), std::numeric_limits<long>::max());
    add(exemption("192.0.2.0/24", "d"), least - 1, most + 1);
    EXPECT_EQ(written(),
              script({"('192.0.2.0/24', 'sender1000000@example.net', 'recipient@example.org', 2147483647,2147483647)",
                      "('192.0.2.0/24', 'sender1000001@example.net', 'recipient@example.org', -2147483648,-2147483648)",
                      "('192.0.2.0/24', 'sender1000002@example.net', 'recipient@example.org', -2147483648,2147483647)"},
                     {"('192.0.2.0/24', 'd', -2147483648,2147483647)"}));
}

TEST_F(BackupScriptTest, AddressesOf128BytesAreStoredAndLongerOnesAreLeftOut) {
    std::string const fits(128, 'x');
    std::string const tooLong(129, 'x');
    add(tuple("192.0.2.0/24", fits, fits));
    add(tuple("192.0.2.0/24", tooLong, "c@d"));
    add(tuple("192.0.2.0/24", "a@b", tooLong));
    EXPECT_EQ(written(), script({"('192.0.2.0/24', '" + fits + "', '" + fits + "', 1000,2000)"}, {}));
    expectRows(1, 0, 2);
    EXPECT_THAT(leftOutLog(), ElementsAre("not stored: tuple 192.0.2.0/24 a@b " + tooLong +
                                              ": an address is longer than its column of 128 bytes",
                                          "not stored: tuple 192.0.2.0/24 " + tooLong +
                                              " c@d: an address is longer than its column of 128 bytes"));
}

TEST_F(BackupScriptTest, BytesThatEscapingAddsDoNotCount) {
    std::string const quotes(128, '\'');
    add(tuple("192.0.2.0/24", quotes, "c@d"));
    std::string escaped;
    for (int n = 0; n < 128; ++n) {
        escaped += "\\'";
    }
    EXPECT_EQ(written(), script({"('192.0.2.0/24', '" + escaped + "', 'c@d', 1000,2000)"}, {}));
}

TEST_F(BackupScriptTest, DomainsOf128BytesAreStoredAndLongerOnesAreLeftOut) {
    std::string const fits(128, 'd');
    add(exemption("192.0.2.0/24", fits));
    add(exemption("192.0.2.0/24", fits + 'd'));
    EXPECT_EQ(written(), script({}, {"('192.0.2.0/24', '" + fits + "', 1000,2000)"}));
    expectRows(0, 1, 1);
    EXPECT_THAT(leftOutLog(), ElementsAre("not stored: exemption 192.0.2.0/24 " + fits +
                                          "d: its domain is longer than its column of 128 bytes"));
}

TEST_F(BackupScriptTest, DomainsThatWouldNeedEscapingAreLeftOut) {
    std::vector<std::string> const unfit = {
        "it's.example", "a\"b", "a\\b", std::string("a\0b", 3), "a\x01", "a\nb", "a\x1f", "a\x7f", "'", "\\"};
    for (std::string const& domain : unfit) {
        add(exemption("192.0.2.0/24", domain));
    }
    add(exemption("192.0.2.0/24", ""));
    EXPECT_EQ(written(), script({}, {}));
    expectRows(0, 0, unfit.size() + 1);
    for (std::string const& text : leftOutLog()) {
        EXPECT_THAT(text, testing::AnyOf(HasSubstr("its domain has a quote, a backslash or a control character"),
                                         HasSubstr("its domain is empty")));
    }
    EXPECT_EQ(leftOutLog().size(), unfit.size() + 1);
}

TEST_F(BackupScriptTest, OtherBytesOfADomainAreStoredAsTheyAre) {
    add(exemption("192.0.2.0/24", "100% \xc3\xa9\xff\x80;--` "));
    EXPECT_EQ(written(), script({}, {"('192.0.2.0/24', '100% \xc3\xa9\xff\x80;--` ', 1000,2000)"}));
}

TEST_F(BackupScriptTest, RecordsWithoutANetworkAreLeftOut) {
    add(tuple("", "a@b", "c@d"));
    add(exemption("", "d"));
    EXPECT_EQ(written(), script({}, {}));
    expectRows(0, 0, 2);
    EXPECT_THAT(leftOutLog(), ElementsAre("not stored: tuple  a@b c@d: it has no network",
                                          "not stored: exemption  d: it has no network"));
}

TEST_F(BackupScriptTest, RecordsLeftOutDoNotDisturbTheBatches) {
    std::vector<std::string> rows;
    for (unsigned int n = 0; n < 2001; ++n) {
        add(tuple(n));
        rows.push_back("('192.0.2.0/24', 'sender" + std::to_string(1000000 + n) +
                       "@example.net', 'recipient@example.org', 1000,2000)");
        if (n % 100 == 0) {
            add(tuple("192.0.2.0/24", "sender" + std::to_string(1000000 + n) + std::string(129, 'x'), "c@d"));
        }
    }
    ASSERT_EQ(written(), script(rows, {}));
    expectRows(2001, 0, 21);
}

TEST_F(BackupScriptTest, TwentyAreNamedAndTheOthersCounted) {
    for (unsigned int n = 0; n < 20; ++n) {
        add(tuple("192.0.2.0/24", std::string(129, 'x') + std::to_string(n), "c@d"));
    }
    written();
    EXPECT_EQ(leftOutLog().size(), 20U) << "no more, no summary";
    m_log.clear();
    add(tuple("192.0.2.0/24", std::string(129, 'x') + "20", "c@d"));
    add(exemption("192.0.2.0/24", "it's"));
    written();
    ASSERT_EQ(leftOutLog().size(), 21U);
    EXPECT_THAT(leftOutLog().back(), "2 more records were not stored");
    expectRows(0, 0, 22);
}

TEST_F(BackupScriptTest, ForeignBytesDoNotForgeALogField) {
    add(exemption("192.0.2.0/24", "a\x01"
                                  "b\n"));
    written();
    ASSERT_EQ(leftOutLog().size(), 1U);
    EXPECT_THAT(leftOutLog().front(), AllOf(Not(HasSubstr("\x01")), Not(HasSubstr("\n")), HasSubstr("a\\x01b\\n")));
}

TEST_F(BackupScriptTest, IsTheMomentOfTheSnapshotWhateverHappensAfterwards) {
    add(tuple(0));
    add(tuple(1));
    add(exemption("192.0.2.0/24", "a"));
    std::string const before = written();
    BackupSnapshot const snapshot(m_tuples, m_exemptions);
    EXPECT_EQ(snapshot.tuples(), 2U);
    m_tuples.state(tuple(0), 1500);
    m_tuples.remove(tuple(1));
    add(tuple(2));
    m_tuples.clear();
    add(tuple(0), 5, 6);
    EXPECT_EQ(m_exemptions.exempt(IPAddressMask("192.0.2.0/24"), "a", 2000), 0) << "dead: removed";
    std::ostringstream out;
    snapshot.write(out);
    EXPECT_EQ(out.str(), before);
}

TEST_F(BackupScriptTest, CachesAreFreeWhileTheTextIsMade) {
    add(tuple(0));
    BackupSnapshot const snapshot(m_tuples, m_exemptions);
    EXPECT_EQ(m_tuples.state(tuple(1), 1000), 0) << "needs the lock alone";
    ExclusiveLock const alone(m_tuples.lock);
    ExclusiveLock const aloneToo(m_exemptions.lock);
    std::ostringstream out;
    EXPECT_EQ(snapshot.write(out).tuples, 1U);
}

TEST_F(BackupScriptTest, DoesNotCountAsAUse) {
    InstalledConfiguration const small(2);
    _TupleCache tuples;
    tuples.state(tuple(0), 1000);
    tuples.state(tuple(1), 1000);
    std::ostringstream out;
    BackupSnapshot(tuples, m_exemptions).write(out);
    tuples.state(tuple(2), 1000);
    SharedLock const hold(tuples.lock);
    EXPECT_TRUE(tuples.lookup(tuple(0)) == tuples.end());
    EXPECT_TRUE(tuples.lookup(tuple(1)) != tuples.end());
}

} // namespace
} // namespace Vellum::GreyList
