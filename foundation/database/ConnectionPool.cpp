#include "foundation/database/ConnectionPool.h"

#include <algorithm>
#include <iterator>

namespace Vellum::Database {

// A connection that knows when it was opened.
class ConnectionPool::Pooled : public Connection {
  public:
    Pooled(ConnectionPool const& pool, std::uint64_t openedIn)
        : Connection(pool.m_database, pool.m_user, pool.m_password, pool.m_address), generation(openedIn) {}

    std::uint64_t const generation;
};

ConnectionPool::ConnectionPool(std::string database, std::string user, std::string password,
                               SocketAddress const& address, unsigned int initialSize)
    : m_database(std::move(database)), m_user(std::move(user)), m_password(std::move(password)), m_address(address) {
    for (unsigned int n = 0; n < initialSize; ++n) {
        RefConnection connection = growPool();
        giveBack(connection);
    }
}

ConnectionPool::~ConnectionPool() = default;

RefConnection ConnectionPool::open(std::uint64_t generation) const {
    return RefConnection(new Pooled(*this, generation));
}

unsigned int ConnectionPool::size() const {
    Synchronized const hold(m_lock);
    return m_size;
}

bool ConnectionPool::takePlace(bool wait, RefConnection& connection, std::uint64_t& generation) {
    Synchronized const hold(m_lock);
    while (m_free.empty()) {
        if (!wait) {
            return false;
        }
        m_freed.wait(m_lock);
    }
    connection = std::move(m_free.back());
    m_free.pop_back();
    generation = m_generation;
    return true;
}

void ConnectionPool::freePlace(RefConnection connection) {
    // There is room for every place since growPool(), so nothing here throws.
    m_free.insert(connection.isNull() ? m_free.begin() : m_free.end(), std::move(connection));
    m_freed.notify_one();
}

RefConnection ConnectionPool::getConnection(bool wait) {
    RefConnection connection;
    std::uint64_t generation = 0;
    if (!takePlace(wait, connection, generation)) {
        return {};
    }
    if (!connection.isNull() && !connection->isAbandoned()) {
        return connection;
    }
    try {
        return open(generation);
    } catch (...) {
        Synchronized const hold(m_lock);
        freePlace({});
        throw;
    }
}

RefConnection ConnectionPool::growPool() {
    std::uint64_t generation = 0;
    {
        Synchronized const hold(m_lock);
        generation = m_generation;
    }
    RefConnection connection = open(generation);
    Synchronized const hold(m_lock);
    m_free.reserve(m_size + 1);
    ++m_size;
    return connection;
}

void ConnectionPool::giveBack(RefConnection& connection) {
    RefConnection given;
    std::swap(given, connection);
    RefConnection closed; // when the lock is free again
    Synchronized const hold(m_lock);
    if (static_cast<Pooled const&>(*given).generation != m_generation) {
        std::swap(given, closed);
    }
    freePlace(std::move(given));
}

void ConnectionPool::reset(RefConnection& connection) {
    RefConnection broken;
    std::swap(broken, connection);
    bool const allAreLost = broken->isLost();
    std::vector<RefConnection> closed; // when the lock is free again
    Synchronized const hold(m_lock);
    m_free.emplace_back(); // there is room; the next caller shall have a fresh one
    m_freed.notify_one();
    if (allAreLost && static_cast<Pooled const&>(*broken).generation == m_generation) {
        closed.reserve(m_free.size());
        ++m_generation;
        std::move(m_free.begin(), m_free.end(), std::back_inserter(closed)); // leaves empty handles behind
    }
}

} // namespace Vellum::Database
