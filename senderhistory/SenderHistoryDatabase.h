// Brings the database of all state up, and the state into the process that serves it.
//
// Both run on the caller's thread during start-up, before the handlers and jobs that they install can run.
#pragma once

namespace Vellum {

// Makes sure that the database "fe_sender_history" and all its tables exist in today's layout: on a server without it
// everything is created; otherwise each table in turn is upgraded when it is there and created when it is missing
// (names are compared byte by byte). Of the two tables of sender reputation one that is missing alone is made alone,
// and the other keeps its rows. Passes the first failure on; tables after it are then not touched.
void senderHistoryDatabaseCreate();

// Loads every cache, then registers its handlers, and last schedules the backups. Call once, with every family's
// configuration installed. Passes on what a step throws; the host must not go on then.
void senderHistoryDatabaseInitialize();

// Makes databases fit that were made before this code, or by hand: a "grey_list" without its ExpiryTime gets it, and
// texts of all tables are compared byte by byte from then on, so that two senders that differ in letter case or
// trailing blanks only are two rows. Says in the log what it changed; changes nothing in a database that fits. Call it
// between the two above. Throws DatabaseException.
void senderHistoryDatabaseRepair();

} // namespace Vellum
