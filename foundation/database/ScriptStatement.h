// What a statement of a script means for the transaction that the script runs in.
#pragma once

#include <cstdint>
#include <string_view>

namespace Vellum::Database {

enum class ScriptStatement : std::uint8_t {
    change,     // may change rows, inside the transaction
    look,       // changes nothing
    lockTables, // commits by itself
    create,     // a table or database; commits by itself
    begin,      // begins a transaction or switches autocommit off
    commit,
    unlockTables, // commits by itself
    unfit,        // everything else: may commit, roll back, destroy or alter the session
};

// Only statements known to be harmless are told apart; what is not known is unfit. See QueryFile for the whole list.
ScriptStatement scriptStatement(std::string_view statement);

} // namespace Vellum::Database
