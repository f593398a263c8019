#include "foundation/radius/SubscriberQuery.h"

#include "foundation/database/Query.h"
#include "tests/radius/AccountingTables.h"

namespace Vellum {
namespace {

class SubscriberQuery : public AccountingTables {
  protected:
    static std::string holderOf(std::string const& address) {
        Database::Connection connection("msisdn", "root", "", Database::Connection::defaultAddress());
        return msisdn::database::getMSISDN(connection, IPAddress(address));
    }
};

TEST_F(SubscriberQuery, AddressWithoutASessionIsNobodys) {
    EXPECT_EQ(holderOf("192.0.2.1"), "");
    EXPECT_EQ(holderOf("2001:db8::1"), "");
    session("15550001", "framedipaddress='192.0.2.10'");
    EXPECT_EQ(holderOf("192.0.2.1"), "");
    EXPECT_EQ(holderOf("192.0.2.10"), "15550001");
}

TEST_F(SubscriberQuery, NullAddressIsNotAskedFor) {
    session("15550001", "framedipaddress=''");
    Database::Connection connection("msisdn", "root", "", Database::Connection::defaultAddress());
    m_server.run({"drop table radacct"}, "msisdn");
    EXPECT_EQ(msisdn::database::getMSISDN(connection, IPAddress()), "");
}

TEST_F(SubscriberQuery, NewestOpenSessionWins) {
    session("15550002", "framedipaddress='192.0.2.1', acctstarttime = now() - interval 2 minute");
    session("15550003", "framedipaddress='192.0.2.1', acctstarttime = now() - interval 1 minute");
    session("15550001", "framedipaddress='192.0.2.1', acctstarttime = now() - interval 3 minute");
    EXPECT_EQ(holderOf("192.0.2.1"), "15550003");
}

TEST_F(SubscriberQuery, OfTwoThatBeganTogetherTheLaterRecordedWins) {
    for (char const* number : {"15550001", "15550002"}) {
        session(number, "framedipaddress='192.0.2.1', acctstarttime = curdate(), acctupdatetime = now()");
    }
    EXPECT_EQ(holderOf("192.0.2.1"), "15550002");
}

TEST_F(SubscriberQuery, ALateUpdateOfAnOlderSessionDoesNotMakeItTheNewest) {
    session("15550001", "framedipaddress='192.0.2.1', acctstarttime = now() - interval 2 hour, acctupdatetime = now()");
    session("15550002", "framedipaddress='192.0.2.1', acctstarttime = now() - interval 1 hour, "
                        "acctupdatetime = now() - interval 1 hour");
    EXPECT_EQ(holderOf("192.0.2.1"), "15550002");
}

TEST_F(SubscriberQuery, StoppedSessionsHoldNothing) {
    session("15550001", "framedipaddress='192.0.2.1', acctstarttime = now() - interval 2 hour");
    session("15550002", "framedipaddress='192.0.2.1', acctstoptime = now()");
    EXPECT_EQ(holderOf("192.0.2.1"), "15550001");
    m_server.run({"update radacct set acctstoptime = now()"}, "msisdn");
    EXPECT_EQ(holderOf("192.0.2.1"), "");
}

// A minute on either side, so that a slow machine does not change the answer.
TEST_F(SubscriberQuery, SessionOfWhichNothingWasHeardForADayIsStale) {
    session("15550001", "framedipaddress='192.0.2.1', acctstarttime = now() - interval 9 day, "
                        "acctupdatetime = now() - interval 86340 second");
    session("15550002", "framedipaddress='192.0.2.2', acctstarttime = now() - interval 9 day, "
                        "acctupdatetime = now() - interval 86401 second");
    session("15550003", "framedipaddress='192.0.2.3', acctstarttime = now() - interval 86340 second, "
                        "acctupdatetime = null");
    session("15550004", "framedipaddress='192.0.2.4', acctstarttime = now() - interval 86401 second, "
                        "acctupdatetime = null");
    session("15550005", "framedipaddress='192.0.2.5', acctstarttime = null, acctupdatetime = now()");
    session("15550006", "framedipaddress='192.0.2.6', acctstarttime = null, acctupdatetime = null");
    EXPECT_EQ(holderOf("192.0.2.1"), "15550001") << "updates keep it alive";
    EXPECT_EQ(holderOf("192.0.2.2"), "");
    EXPECT_EQ(holderOf("192.0.2.3"), "15550003");
    EXPECT_EQ(holderOf("192.0.2.4"), "");
    EXPECT_EQ(holderOf("192.0.2.5"), "15550005");
    EXPECT_EQ(holderOf("192.0.2.6"), "");
}

TEST_F(SubscriberQuery, AStaleSessionHidesNoLivingOne) {
    session("15550001", "framedipaddress='192.0.2.1', acctstarttime = now() - interval 5 day, acctupdatetime = now()");
    session("15550002", "framedipaddress='192.0.2.1', acctstarttime = now() - interval 2 day, "
                        "acctupdatetime = now() - interval 2 day");
    EXPECT_EQ(holderOf("192.0.2.1"), "15550001");
}

TEST_F(SubscriberQuery, StationWithoutANumberIsNobody) {
    session("", "framedipaddress='192.0.2.1'");
    EXPECT_EQ(holderOf("192.0.2.1"), "");
    session("a name", "framedipaddress='192.0.2.1', acctstarttime = now()");
    EXPECT_EQ(holderOf("192.0.2.1"), "a name") << "as it was recorded; the caller knows what a number is";
}

TEST_F(SubscriberQuery, IPv6AddressIsFoundByItselfAndByItsPrefixes) {
    session("15550001", "framedipv6address='2001:db8::1'");
    session("15550002", "framedipv6prefix='2001:db8:1:2::/64'");
    session("15550003", "delegatedipv6prefix='2001:db8:2::/56'");
    session("15550004", "framedipv6prefix='2001:db8:3::5/128'");
    session("15550005", "delegatedipv6prefix='2001:db9::/32'");
    session("15550006", "delegatedipv6prefix='2001:dbc::/31'");
    EXPECT_EQ(holderOf("2001:db8::1"), "15550001");
    EXPECT_EQ(holderOf("2001:db8::2"), "");
    EXPECT_EQ(holderOf("2001:db8:1:2::"), "15550002");
    EXPECT_EQ(holderOf("2001:db8:1:2:ffff:ffff:ffff:ffff"), "15550002");
    EXPECT_EQ(holderOf("2001:db8:1:3::"), "");
    EXPECT_EQ(holderOf("2001:db8:2:ff::1"), "15550003");
    EXPECT_EQ(holderOf("2001:db8:2:100::1"), "");
    EXPECT_EQ(holderOf("2001:db8:3::5"), "15550004");
    EXPECT_EQ(holderOf("2001:db8:3::6"), "");
    EXPECT_EQ(holderOf("2001:db9:ffff::1"), "15550005");
    EXPECT_EQ(holderOf("2001:dbc::1"), "") << "nobody is given more than a /32";
}

TEST_F(SubscriberQuery, NewestOfAllThatHoldAnIPv6AddressWins) {
    session("15550001", "framedipv6address='2001:db8::1', acctstarttime = now() - interval 3 hour");
    session("15550002", "framedipv6prefix='2001:db8::/64', acctstarttime = now() - interval 2 hour");
    session("15550003", "delegatedipv6prefix='2001:db8::/48', acctstarttime = now() - interval 1 hour");
    EXPECT_EQ(holderOf("2001:db8::1"), "15550003");
    m_server.run({"update radacct set acctstoptime = now() where callingstationid = '15550003'"}, "msisdn");
    EXPECT_EQ(holderOf("2001:db8::1"), "15550002");
    m_server.run({"update radacct set acctstarttime = now() where callingstationid = '15550001'"}, "msisdn");
    EXPECT_EQ(holderOf("2001:db8::1"), "15550001");
}

TEST_F(SubscriberQuery, IPv4AddressInsideAnIPv6OneIsThatAddress) {
    session("15550001", "framedipaddress='192.0.2.1'");
    EXPECT_EQ(holderOf("::ffff:192.0.2.1"), "15550001");
}

TEST_F(SubscriberQuery, ItReadsTheSessionsOfTheAddressAndNoOthers) {
    std::string rows;
    for (unsigned int n = 0; n < 5000; ++n) {
        std::string const text = std::to_string(n);
        rows += (n == 0 ? "('" : ",('") + text + "','" + text + "','10.0." + std::to_string(n / 250) + "." +
                std::to_string(n % 250) + "','2001:db8::" + text + "',now(),now())";
    }
    m_server.run({"insert into radacct (acctuniqueid, callingstationid, framedipaddress, framedipv6address, "
                  "acctstarttime, acctupdatetime) values " +
                      rows,
                  "analyze table radacct"},
                 "msisdn");
    Database::Connection connection("msisdn", "root", "", Database::Connection::defaultAddress());
    auto const rowsReadSoFar = [&] {
        struct Sum : Database::RowParser {
            void parse(void* handle, void* result) override {
                for (long n = 0; n < db_result_row_num(handle, result); ++n) {
                    total += std::stol(db_result_get_value(handle, result, db_result_fetch_row(result, n), 1));
                }
            }
            long total = 0;
        } sum;
        Database::Query query(connection, &sum, true);
        query << "show session status like 'Handler_read%'";
        query.execute();
        return sum.total;
    };
    auto const rowsRead = [&](std::string const& address) {
        long const before = rowsReadSoFar();
        EXPECT_NE(msisdn::database::getMSISDN(connection, IPAddress(address)), "");
        return rowsReadSoFar() - before;
    };
    EXPECT_LT(rowsRead("10.0.7.9"), 20);
    EXPECT_LT(rowsRead("2001:db8::1234"), 200);
}

TEST_F(SubscriberQuery, FailureIsAnException) {
    m_server.run({"drop table radacct"}, "msisdn");
    EXPECT_THROW(holderOf("192.0.2.1"), Database::DatabaseException);
}

} // namespace
} // namespace Vellum
