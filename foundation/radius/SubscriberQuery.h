// Which subscriber holds an address, out of the accounting records that a RADIUS server keeps.
//
// The table is "radacct" of the database "msisdn", as FreeRADIUS' own schema for MariaDB has it. A session is open
// while it has no stop time; one of which nothing was heard for a day is stale, since its end was lost.
#pragma once

#include "foundation/IPAddress.h"
#include "foundation/database/Connection.h"

#include <string>

namespace Vellum::msisdn::database {

// A session without a stop lives so long from its last start or interim update on.
inline constexpr unsigned int staleAfterSeconds = 24 * 60 * 60;

// The calling station of the session that holds the address: of all that are open and not stale, the one that began
// last; "" when there is none, or it named no station. A session holds its IPv4 address, its IPv6 address, and whatever
// lies in its framed or delegated IPv6 prefixes of 32 to 64 or 128 bits. An IPv6 address that only carries an IPv4
// address (::ffff:192.0.2.1) is that one; the null address is nobody's, and nothing is asked.
// One query. Throws Database::DatabaseException.
std::string getMSISDN(Database::Connection& connection, IPAddress const& address);

} // namespace Vellum::msisdn::database
