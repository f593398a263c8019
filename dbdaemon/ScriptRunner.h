// Runs what the journal holds.
#pragma once

#include "dbdaemon/Journal.h"
#include "foundation/database/Connection.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

namespace Vellum::DatabaseDaemon {

// A thread that runs waiting scripts, oldest first, each all or nothing (Database::QueryFile).
//
//   done       removed from the journal
//   refused    the server, or the rules of scripts, will never take it: moved to failed/, logged with the reason
//   trouble    no server, a lock, a full disk: it stays and is tried again after a pause that grows from try to try.
//              Logged once when trouble begins and once when it is over, not at every try.
//
// A script that meets a lock does not hold up those of other request codes; a lost server holds up all.
class ScriptRunner {
  public:
    struct Pauses {
        std::chrono::milliseconds first{1000};
        std::chrono::milliseconds longest{60000};
    };

    // Starts the thread. The journal is borrowed and outlives the runner.
    ScriptRunner(Journal& journal, Pauses pauses);
    // As stop() without patience.
    ~ScriptRunner();
    ScriptRunner(ScriptRunner const&) = delete;
    ScriptRunner& operator=(ScriptRunner const&) = delete;

    // There may be something new to run. From any thread.
    void wake();
    // Ends the thread and waits for that. A script in the works is given `patience` to come to the end of its current
    // statement; then its connection is broken. Either way it is rolled back and stays in the journal.
    void stop(std::chrono::milliseconds patience);

    // What a test may wait for: nothing waits and nothing runs, or the limit is over (false).
    bool waitUntilIdle(std::chrono::milliseconds limit);

  private:
    enum class Outcome { done, passingTrouble, lostServer };
    class InterruptibleConnection;
    class GivenBack;

    void loop();
    bool isAllRun();
    bool runWaiting();
    Outcome run(Journal::Entry const& entry);
    Outcome runOver(Database::Connection& connection, Journal::Entry const& entry);
    void refuse(Journal::Entry const& entry, std::string const& reason);
    Outcome trouble(Journal::Entry const& entry, Database::DatabaseException const& reason);
    void troubleIsOver();
    bool isStopping();

    Journal& m_journal;
    Pauses const m_pauses;
    std::optional<std::chrono::steady_clock::time_point> m_troubleSince; // of the thread alone

    std::mutex m_mutex;
    std::condition_variable m_changed;
    // Under m_mutex:
    bool m_work = true; // look into the journal
    bool m_idle = false;
    bool m_stopping = false;
    bool m_ended = false;
    Database::Connection* m_connection = nullptr; // borrowed while a script runs, for stop()

    std::thread m_thread;
};

} // namespace Vellum::DatabaseDaemon
