#include "mmsreputation/MMSRadius.h"

#include "foundation/Exception.h"
#include "foundation/Logger.h"
#include "include2/CacheSingleton.h"
#include "mmsreputation/LogCodes.h"

#include <utility>

namespace Vellum::MMSReputation {
namespace {

// The appliance's names, which the server map turns into the real server and account.
constexpr char const* database = "msisdn";
constexpr char const* user = "root";
constexpr char const* password = "";

constexpr unsigned int findLine = 90; // promised to log readers

} // namespace

RadiusDatabase::RadiusDatabase(Query query)
    : m_pool(database, user, password, Database::Connection::defaultAddress(), initialConnections),
      m_query(std::move(query)) {}

RadiusDatabase* RadiusDatabase::instance() {
    return cacheSingleton<RadiusDatabase>();
}

MSISDN RadiusDatabase::find(IPAddress const& address) {
    try {
        return findOrThrow(address);
    } catch (Database::DatabaseException const& failed) {
        Logger::instance(false).log(LogCode::lookupFailed, 0, "%s", failed.asString().c_str());
        return {};
    } catch (Exception const& failed) {
        throw Exception("RadiusDatabase::find", Exception::failure, Source::radius, findLine).cause(failed);
    }
}

MSISDN RadiusDatabase::findOrThrow(IPAddress const& address) {
    if (address.isNull()) {
        return {};
    }
    Database::ConnectionPool::Lock lock(m_pool, false);
    try {
        return lookup(lock, address);
    } catch (Database::DatabaseException const&) {
        if (!lock.connection().isNull()) {
            m_pool.reset(lock.connection());
        }
        throw;
    }
}

MSISDN RadiusDatabase::lookup(Database::ConnectionPool::Lock& lock, IPAddress const& address) {
    bool const wait = m_pool.size() > mostPooled;
    if (lock.hold(m_pool.getConnection(wait))) {
        return ask(*lock.connection(), address);
    }
    MSISDN found;
    if (m_pool.size() < mostPooled && growInto(lock, address, found)) {
        return found;
    }
    return findPrivately(address);
}

bool RadiusDatabase::growInto(Database::ConnectionPool::Lock& lock, IPAddress const& address, MSISDN& found) {
    ExclusiveLock const growing(m_growing);
    if (m_pool.size() >= mostPooled || !lock.hold(m_pool.growPool())) {
        return false;
    }
    found = ask(*lock.connection(), address);
    return true;
}

MSISDN RadiusDatabase::findPrivately(IPAddress const& address) {
    AutoSemaphore const permit(m_private, 1);
    Database::Connection connection(database, user, password, Database::Connection::defaultAddress());
    return ask(connection, address);
}

} // namespace Vellum::MMSReputation
