// Connections to one database that many threads share.
//
//   ConnectionPool::Lock lock(pool, false);
//   if (lock.hold(pool.getConnection(false))) {
//       work with *lock.connection();
//   }                                        // the lock's end gives the connection back
//
// A connection that failed goes to reset() instead. It is not opened again at once but by the next caller. Where its
// session is lost (Connection::isLost()), all others that were open by then are opened again too: what ended one
// session has most likely ended them all. An error of a statement alone costs the others nothing. A connection of which
// this end knows already that the server has left it is opened anew before it is handed out.
//
// Thread-safe. The pool's own lock is held for moments; no connection is opened or closed, and nobody asks the server
// anything, while it is. The pool outlives its locks and connections.
#pragma once

#include "foundation/Locks.h"
#include "foundation/database/Connection.h"

#include <condition_variable>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Vellum::Database {

class ConnectionPool {
  public:
    // Opens `initialSize` connections; throws DatabaseException when one cannot be opened.
    ConnectionPool(std::string database, std::string user, std::string password, SocketAddress const& address,
                   unsigned int initialSize);
    ~ConnectionPool();
    ConnectionPool(ConnectionPool const&) = delete;
    ConnectionPool& operator=(ConnectionPool const&) = delete;

    // Places of the pool, taken ones and those that are to be opened again included.
    unsigned int size() const;
    // A connection for the caller alone. When all are taken: waits for one, or answers an empty handle at once.
    // Throws DatabaseException when it had to be opened again and could not be; its place is free again then.
    RefConnection getConnection(bool wait);
    // Opens one more connection, for the caller; the pool is larger by one from then on.
    // Throws DatabaseException when it cannot be opened; the pool is as it was then.
    RefConnection growPool();
    // Gives a connection back that is in order.
    void giveBack(RefConnection& connection);
    // Gives one back that failed: it is closed, and its place opened again by the next caller.
    // Both leave `connection` empty.
    void reset(RefConnection& connection);

    // Holds a connection for its life, or none.
    class Lock {
      public:
        // Takes one at once, and waits for it, when `take` is true.
        Lock(ConnectionPool& pool, bool take) : m_pool(pool) {
            if (take) {
                hold(pool.getConnection(true));
            }
        }
        ~Lock() { release(); }
        Lock(Lock const&) = delete;
        Lock& operator=(Lock const&) = delete;

        // Takes over a connection of the pool's, instead of the one before. True when it is one.
        bool hold(RefConnection connection) {
            release();
            m_connection = std::move(connection);
            return !m_connection.isNull();
        }
        RefConnection& connection() { return m_connection; } // empty: none
        void release() {
            if (!m_connection.isNull()) {
                m_pool.giveBack(m_connection);
            }
        }

      private:
        ConnectionPool& m_pool;
        RefConnection m_connection;
    };

  private:
    class Pooled;

    RefConnection open(std::uint64_t generation) const;
    // Takes a place; its connection is empty when it is to be opened. False when all are taken and `wait` is false.
    bool takePlace(bool wait, RefConnection& connection, std::uint64_t& generation) VELLUM_EXCLUDES(m_lock);
    // Puts a place back; an empty connection is opened again by whoever takes it.
    void freePlace(RefConnection connection) VELLUM_REQUIRES(m_lock);

    std::string const m_database;
    std::string const m_user;
    std::string const m_password;
    SocketAddress const m_address;

    mutable Mutex m_lock;
    std::condition_variable_any m_freed;
    // Places that nobody has taken. The one at the end is the next to be taken: the one freed last. One that could not
    // be opened goes to the front, behind all that are open.
    std::vector<RefConnection> m_free VELLUM_GUARDED_BY(m_lock);
    unsigned int m_size VELLUM_GUARDED_BY(m_lock)
    = 0;
    // Of connections that are opened now. One that is given back with an older number is not kept.
    std::uint64_t m_generation VELLUM_GUARDED_BY(m_lock)
    = 0;
};

} // namespace Vellum::Database
