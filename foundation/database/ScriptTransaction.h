// The one transaction that a script runs in.
#pragma once

#include "foundation/database/Connection.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace Vellum::Database {

// Where every error of a script says it comes from.
inline constexpr char const* scriptOperation = "QueryFile::execute";

// What runs the statements of a script. Both throw DatabaseException.
class ScriptSession {
  public:
    // Runs a statement, drops its result and answers how many rows it changed.
    virtual std::uint64_t run(std::string_view statement) = 0;
    // Makes the changes last.
    virtual void commit() = 0;

  protected:
    ScriptSession() = default;
    ~ScriptSession() = default;
};

// Switches autocommit off for its life. Without commit() everything is rolled back at the end of its life; in any case
// no lock is left then and autocommit is on again, or the session is ended when the server will not do even that.
class ScriptTransaction final : public ScriptSession {
  public:
    explicit ScriptTransaction(Connection& connection);
    ~ScriptTransaction();
    ScriptTransaction(ScriptTransaction const&) = delete;
    ScriptTransaction& operator=(ScriptTransaction const&) = delete;

    std::uint64_t run(std::string_view statement) override;
    void commit() override;
    // Ends a transaction that has failed, and answers what became of the changes, for an error text: they are rolled
    // back, or a table without transactions keeps its part, or the connection broke in the middle of commit().
    std::string abandon() noexcept;

  private:
    enum class State : std::uint8_t { open, committing, ended };

    void leave() noexcept;

    Connection& m_connection; // borrowed
    State m_state = State::open;
};

} // namespace Vellum::Database
