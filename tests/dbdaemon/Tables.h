// The tables that the database daemon's tests replace, and scripts for them.
#pragma once

#include "../support/PrivateMariaDb.h"

#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

namespace Vellum::DatabaseDaemon {

// grey_list and autoexempt, each with `rows` rows that carry the same state, "0".
inline void makeTables(int rows) {
    PrivateMariaDb& server = PrivateMariaDb::shared();
    server.freshDatabase();
    server.run(
        {"create table grey_list (id int not null, state varchar(128) not null, primary key (id)) engine=InnoDB",
         "create table autoexempt (id int not null, state varchar(128) not null, primary key (id)) engine=InnoDB",
         "create table sender_reputation (id int not null, state varchar(128) not null, primary key (id)) "
         "engine=InnoDB"},
        "fe_sender_history");
    std::string const values = " select seq, '0' from seq_1_to_" + std::to_string(rows);
    server.run({"insert into grey_list" + values, "insert into autoexempt" + values}, "fe_sender_history");
}

// A script as a greylist backup writes it, that gives both tables `rows` rows with the state `state`.
inline std::string replacingScript(std::string const& state, int rows) {
    std::string text = "LOCK TABLES grey_list WRITE,autoexempt WRITE;\n";
    for (char const* const table : {"grey_list", "autoexempt"}) {
        text += "delete from " + std::string(table) + ";\n";
        for (int row = 0; row < rows; ++row) {
            text += row % 1000 != 0
                        ? ","
                        : (row == 0 ? "" : ";\ncommit;\n") + ("INSERT INTO " + std::string(table)) + " VALUES";
            text += "\n(" + std::to_string(row) + ", '" + state + "')";
        }
        text += ";\n";
    }
    return text + ";\ncommit;\nUNLOCK TABLES;\n";
}

// A script for a table of another request code.
inline std::string reputationScript(std::string const& state) {
    return "LOCK TABLES sender_reputation WRITE;\ndelete from sender_reputation;\n\nINSERT INTO sender_reputation "
           "VALUES\n(1, '" +
           state + "');\ncommit;\n\nUNLOCK TABLES;\n";
}

// The state that all rows of both tables carry. Anything else than two whole tables of one state fails the test.
inline std::string stateOfTables(int rows) {
    // One statement sees one snapshot.
    std::vector<std::string> const found = PrivateMariaDb::shared().query(
        "select state, count(*) from (select state from grey_list union all select state "
        "from autoexempt) both_tables group by state");
    if (found.size() != 1 || !found[0].ends_with('|' + std::to_string(2 * rows))) {
        ADD_FAILURE() << "mixed tables: " << testing::PrintToString(found);
        return "mixed";
    }
    return found[0].substr(0, found[0].find('|'));
}

} // namespace Vellum::DatabaseDaemon
