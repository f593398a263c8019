// The database daemon as a whole: journal, runner and socket.
#pragma once

#include "dbdaemon/Journal.h"
#include "dbdaemon/RequestServer.h"
#include "dbdaemon/ScriptRunner.h"
#include "foundation/FileDescriptor.h"

#include <chrono>
#include <string>

namespace Vellum::DatabaseDaemon {

// Takes requests to run a script file and runs the scripts against the database that the server map names. A request is
// accepted when a copy of its script is in the journal on disk; from then on it is run, whatever happens: after trouble
// with the database, after a restart of this daemon or of the machine. Each script is all or nothing.
class Service {
  public:
    struct Options {
        RequestServer::Options requests;
        std::string journal; // directory
        ScriptRunner::Pauses pauses{};
        std::chrono::milliseconds patience{2000}; // for the statement that runs when the service ends
    };

    // Opens the journal and begins to work. Throws Exception when the journal or the socket cannot be had.
    explicit Service(Options const& options);
    // Takes no more requests, rolls a running script back and ends. What is in the journal is run at the next start.
    ~Service();
    Service(Service const&) = delete;
    Service& operator=(Service const&) = delete;

    // See ScriptRunner.
    bool waitUntilIdle(std::chrono::milliseconds limit) { return m_runner.waitUntilIdle(limit); }

  private:
    RequestServer::Reply answer(ScriptRequest const& request, uid_t user);
    RequestServer::Reply outcomes() const;
    Answer take(ScriptRequest const& request, uid_t user);
    FileDescriptor openScript(std::string const& path, uid_t asker) const;
    bool mayName(uid_t asker, uid_t owner) const;

    std::chrono::milliseconds const m_patience;
    Journal m_journal;
    ScriptRunner m_runner;
    RequestServer m_requests;
};

} // namespace Vellum::DatabaseDaemon
