// The table "autoexempt" on its own.
#pragma once

#include "foundation/SocketAddress.h"
#include "foundation/database/Connection.h"

#include <string>

namespace Vellum::GreyList {

class DynamicExemptDatabase {
  public:
    static std::string const dbname; // "fe_sender_history"

    // Connects. Throws DatabaseException.
    explicit DynamicExemptDatabase(SocketAddress const& address);
    virtual ~DynamicExemptDatabase() = default;

    // Makes sure that the database exists, over a connection of its own; with `recreate` an existing one is dropped
    // with everything in it. Throws DatabaseException.
    static void initialize(SocketAddress const& address, bool recreate);

    // Drops the table with its rows and makes an empty one; brings an old one up to date. Throw Exception named after
    // the operation, with the database's own as its cause.
    void createTable() const;
    void upgradeTable() const;

    // Adds every row of the table to the cache, without clearing it first. Throws Exception, with the database's or
    // the row's own as its cause; the cache is then unchanged.
    void read() const;

    Database::Connection& connection() { return m_connection; }

  private:
    mutable Database::Connection m_connection; // a query changes the session, not what this object means
};

} // namespace Vellum::GreyList
