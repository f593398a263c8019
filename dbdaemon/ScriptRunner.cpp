#include "dbdaemon/ScriptRunner.h"

#include "foundation/Logger.h"
#include "foundation/database/QueryFile.h"

#include <algorithm>
#include <string>

namespace Vellum::DatabaseDaemon {

namespace {

using Clock = std::chrono::steady_clock;

constexpr char const* database = Database::senderHistoryDatabase;

void note(Logger::Severity severity, std::string const& text) {
    Logger::instance(false).note(severity, text);
}

std::string nameOf(Journal::Entry const& entry) {
    return "script " + std::to_string(entry.number) + " of request code " + std::to_string(entry.code);
}

std::string secondsSince(Clock::time_point begin) {
    auto const milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count();
    std::string const fraction = std::to_string(milliseconds % 1000);
    return std::to_string(milliseconds / 1000) + '.' + std::string(3 - fraction.size(), '0') + fraction + " s";
}

} // namespace

// Lets stop() break a connection for as long as there is one.
class ScriptRunner::InterruptibleConnection {
  public:
    InterruptibleConnection(ScriptRunner& runner, Database::Connection& connection) : m_runner(runner) {
        set(&connection);
    }
    ~InterruptibleConnection() { set(nullptr); }
    InterruptibleConnection(InterruptibleConnection const&) = delete;
    InterruptibleConnection& operator=(InterruptibleConnection const&) = delete;

  private:
    void set(Database::Connection* connection) {
        std::lock_guard<std::mutex> const held(m_runner.m_mutex);
        m_runner.m_connection = connection;
    }

    ScriptRunner& m_runner;
};

// Whatever ends the run of a script, it waits again unless it is done or put aside.
class ScriptRunner::GivenBack {
  public:
    GivenBack(Journal& journal, Journal::Entry const& entry) : m_journal(journal), m_entry(entry) {}
    ~GivenBack() { m_journal.giveBack(m_entry); }
    GivenBack(GivenBack const&) = delete;
    GivenBack& operator=(GivenBack const&) = delete;

  private:
    Journal& m_journal;
    Journal::Entry const& m_entry;
};

ScriptRunner::ScriptRunner(Journal& journal, Pauses pauses)
    : m_journal(journal), m_pauses(pauses), m_thread([this] { loop(); }) {}

ScriptRunner::~ScriptRunner() {
    stop(std::chrono::milliseconds(0));
}

void ScriptRunner::wake() {
    std::lock_guard<std::mutex> const held(m_mutex);
    m_work = true;
    m_changed.notify_all();
}

void ScriptRunner::stop(std::chrono::milliseconds patience) {
    if (!m_thread.joinable()) {
        return;
    }
    {
        std::unique_lock<std::mutex> held(m_mutex);
        m_stopping = true;
        m_changed.notify_all();
        if (!m_changed.wait_for(held, patience, [this] { return m_ended; }) && m_connection != nullptr) {
            m_connection->interrupt();
        }
    }
    m_thread.join();
}

bool ScriptRunner::waitUntilIdle(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> held(m_mutex);
    return m_changed.wait_for(held, limit, [this] { return m_idle && !m_work; });
}

void ScriptRunner::loop() {
    std::chrono::milliseconds pause{0}; // until the next try; 0: nothing is waiting
    std::unique_lock<std::mutex> held(m_mutex);
    while (!m_stopping) {
        auto const called = [this] {
            return m_work || m_stopping;
        };
        if (pause.count() == 0) {
            m_changed.wait(held, called);
        } else {
            m_changed.wait_for(held, pause, called);
        }
        m_work = false;
        m_idle = false;
        held.unlock();
        bool const clear = isAllRun();
        held.lock();
        pause = clear ? std::chrono::milliseconds(0) : std::clamp(pause * 2, m_pauses.first, m_pauses.longest);
        m_idle = clear;
        m_changed.notify_all();
    }
    m_ended = true;
    m_changed.notify_all();
}

// The thread goes on whatever happens; without memory for a message, too.
bool ScriptRunner::isAllRun() {
    try {
        return runWaiting();
    } catch (std::exception const&) {
        return false;
    }
}

// Tries everything that waits once; false when something still waits because of trouble.
bool ScriptRunner::runWaiting() {
    bool clear = true;
    for (Journal::Entry const& entry : m_journal.waiting()) {
        Outcome const outcome = isStopping() ? Outcome::lostServer : run(entry);
        clear = clear && outcome == Outcome::done;
        if (outcome == Outcome::lostServer) {
            return false;
        }
    }
    if (clear) {
        troubleIsOver();
    }
    return clear;
}

ScriptRunner::Outcome ScriptRunner::run(Journal::Entry const& entry) {
    if (!m_journal.begin(entry)) {
        return Outcome::done; // superseded meanwhile
    }
    GivenBack const unlessDone(m_journal, entry);
    try {
        Database::Connection connection(database, "", "", Database::Connection::defaultAddress());
        InterruptibleConnection const interruptible(*this, connection);
        return runOver(connection, entry);
    } catch (Database::DatabaseException const& unreachable) {
        return trouble(entry, unreachable);
    } catch (std::exception const& failure) { // no memory
        return trouble(entry, Database::DatabaseException("ScriptRunner", 0, failure.what()));
    }
}

ScriptRunner::Outcome ScriptRunner::runOver(Database::Connection& connection, Journal::Entry const& entry) {
    Clock::time_point const begin = Clock::now();
    try {
        Database::QueryFile file(connection, entry.path);
        file.onProgress([this](std::uint64_t, std::uint64_t) { return !isStopping(); });
        file.execute();
        m_journal.finish(entry);
        note(Logger::Severity::info, nameOf(entry) + " is done: " + std::to_string(file.statements()) +
                                         " statements, " + std::to_string(file.affectedRows()) + " rows changed, " +
                                         secondsSince(begin));
    } catch (Database::DatabaseException const& failure) {
        if (isStopping() || failure.worthRetrying()) {
            return trouble(entry, failure);
        }
        refuse(entry, failure.message());
    } catch (Exception const& failure) {
        note(Logger::Severity::error, nameOf(entry) + " is done, but stays in the journal: " + failure.asString());
    }
    return Outcome::done;
}

void ScriptRunner::refuse(Journal::Entry const& entry, std::string const& reason) {
    note(Logger::Severity::error, nameOf(entry) + " is refused, see failed/ in the journal: " + reason);
    try {
        m_journal.fail(entry, reason);
    } catch (std::exception const& failure) {
        note(Logger::Severity::error, nameOf(entry) + " cannot be put aside: " + failure.what());
    }
}

ScriptRunner::Outcome ScriptRunner::trouble(Journal::Entry const& entry, Database::DatabaseException const& reason) {
    if (isStopping()) {
        note(Logger::Severity::info, nameOf(entry) + " is rolled back and will be run at the next start");
        return Outcome::lostServer;
    }
    if (!m_troubleSince) {
        m_troubleSince = Clock::now();
        note(Logger::Severity::warning,
             "trouble with the database, accepted scripts wait and are tried again: " + reason.message());
    }
    return reason.connectionLost() ? Outcome::lostServer : Outcome::passingTrouble;
}

void ScriptRunner::troubleIsOver() {
    if (m_troubleSince) {
        note(Logger::Severity::info, "the trouble with the database is over after " + secondsSince(*m_troubleSince));
        m_troubleSince.reset();
    }
}

bool ScriptRunner::isStopping() {
    std::lock_guard<std::mutex> const held(m_mutex);
    return m_stopping;
}

} // namespace Vellum::DatabaseDaemon
