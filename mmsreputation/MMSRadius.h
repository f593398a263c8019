// Which subscriber holds an address, asked many times a second from many threads.
//
// Lookups share a pool of connections that begins with three and is grown by one whenever all are taken, up to fifteen.
// Beyond that each lookup opens a connection of its own, forty at a time; the next one waits. So a burst costs the
// server 55 sessions at most.
#pragma once

#include "foundation/IPAddress.h"
#include "foundation/Locks.h"
#include "foundation/MSISDN.h"
#include "foundation/database/ConnectionPool.h"
#include "foundation/radius/SubscriberQuery.h"

#include <functional>
#include <string>

namespace Vellum::MMSReputation {

class RadiusDatabase {
  public:
    static constexpr unsigned int initialConnections = 3;
    static constexpr unsigned int mostPooled = 15;
    static constexpr unsigned int mostPrivate = 40;

    // The number that is recorded of an address, "" when there is none.
    using Query = std::function<std::string(Database::Connection&, IPAddress const&)>;

    // Opens the first connections. Throws DatabaseException when the server cannot be reached. Most use instance().
    explicit RadiusDatabase(Query query = msisdn::database::getMSISDN);
    virtual ~RadiusDatabase() = default;
    RadiusDatabase(RadiusDatabase const&) = delete;
    RadiusDatabase& operator=(RadiusDatabase const&) = delete;

    // The process's object, made by the first call and never destroyed. Throws what the constructor throws; the next
    // call then tries again. Thread-safe.
    static RadiusDatabase* instance();

    // The subscriber that holds the address now (foundation/radius/SubscriberQuery.h says how that is known). Null when
    // the address is null (nothing is asked then) or nobody's, when what is recorded of it is no number, and when the
    // database failed: that is logged, and the connection is opened anew before its next use.
    // Waits for the server, up to its read timeout; for another lookup while that grows the pool; and for one of the
    // private connections when all are open. Throws Exception when something else than the database fails.
    // Thread-safe.
    MSISDN find(IPAddress const& address);

    // The same for a caller that tells trouble in its own way: what fails is thrown (a DatabaseException when it was
    // the database, the connection then being opened anew before its next use), and nothing is logged.
    MSISDN findOrThrow(IPAddress const& address);

    // Connections in the pool now, taken or not.
    unsigned int pooled() const { return m_pool.size(); }

  private:
    MSISDN ask(Database::Connection& connection, IPAddress const& address) const {
        return MSISDN(m_query(connection, address));
    }
    MSISDN lookup(Database::ConnectionPool::Lock& lock, IPAddress const& address);
    bool growInto(Database::ConnectionPool::Lock& lock, IPAddress const& address, MSISDN& found);
    MSISDN findPrivately(IPAddress const& address);

    // Exclusively held by the one lookup that grows the pool, its query included: those that find all connections
    // taken meanwhile wait, and do not each add one. Taken before the pool's own lock.
    SharedMutex m_growing;
    Semaphore m_private{mostPrivate}; // one for each private connection that is open
    Database::ConnectionPool m_pool;
    Query const m_query;
};

} // namespace Vellum::MMSReputation
