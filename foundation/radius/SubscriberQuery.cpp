#include "foundation/radius/SubscriberQuery.h"

#include "foundation/IPAddressMask.h"
#include "foundation/database/Query.h"

#include <algorithm>

namespace Vellum::msisdn::database {
namespace {

constexpr unsigned int shortestPrefix = 32; // bits; no network gives a subscriber more
constexpr unsigned int longestPrefix = 64;
constexpr unsigned int wholeAddress = 128;

// Keeps the first value of the first row.
class FirstValue : public Database::RowParser {
  public:
    void parse(void* handle, void* result) override {
        if (result != nullptr && db_result_row_num(handle, result) > 0) {
            void* const row = db_result_fetch_row(result, 0);
            value.assign(db_result_get_value(handle, result, row, 0),
                         static_cast<std::size_t>(db_result_field_length(result, 0)));
        }
    }
    std::string value;
};

// An expression, so that the server does not walk all sessions by their start time instead of those of the address.
constexpr char const* begunLast = " ORDER BY COALESCE(acctstarttime, acctupdatetime) DESC, radacctid DESC LIMIT 1";

std::string sessionsWhere(std::string const& holdsAddress) {
    return "FROM radacct WHERE " + holdsAddress +
           " AND acctstoptime IS NULL AND COALESCE(acctupdatetime, acctstarttime) > NOW() - INTERVAL " +
           std::to_string(staleAfterSeconds) + " SECOND" + begunLast;
}

IPAddress withoutMapping(IPAddress const& address) {
    if (!IPAddress::isV4Mapped(address)) {
        return address;
    }
    ip_addr_t raw{4, {}};
    std::copy_n(address.bytes().begin() + 12, 4, raw.bytes);
    return raw;
}

// 'prefix/length' of every prefix that may hold the address, as the accounting server writes them.
std::string prefixesOf(IPAddress const& address) {
    std::string list = "('" + address.asString(true) + "/" + std::to_string(wholeAddress) + "'";
    for (unsigned int length = longestPrefix; length >= shortestPrefix; --length) {
        IPAddress prefix = address;
        IPAddressMask::applyMask(prefix, length);
        list += ",'" + prefix.asString(true) + "/" + std::to_string(length) + "'";
    }
    return list + ")";
}

std::string queryOf(IPAddress const& address) {
    if (address.isV4()) {
        return "SELECT callingstationid " + sessionsWhere("framedipaddress='" + address.asString(true) + "'");
    }
    // One select for each column, so that each can use its index.
    std::string const columns = "(SELECT callingstationid, acctstarttime, acctupdatetime, radacctid ";
    std::string const prefixes = prefixesOf(address);
    return "SELECT callingstationid FROM (" + columns +
           sessionsWhere("framedipv6address='" + address.asString(true) + "'") + ") UNION ALL " + columns +
           sessionsWhere("framedipv6prefix IN " + prefixes) + ") UNION ALL " + columns +
           sessionsWhere("delegatedipv6prefix IN " + prefixes) + ")) AS sessions" + begunLast;
}

} // namespace

std::string getMSISDN(Database::Connection& connection, IPAddress const& address) {
    if (address.isNull()) {
        return {};
    }
    FirstValue station;
    Database::Query query(connection, &station, true);
    query << queryOf(withoutMapping(address));
    query.execute();
    return station.value;
}

} // namespace Vellum::msisdn::database
