#include "dbdaemon/Service.h"

#include "foundation/Exception.h"
#include "foundation/Logger.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Vellum::DatabaseDaemon {

namespace {

void note(Logger::Severity severity, std::string const& text) {
    Logger::instance(false).note(severity, text);
}

bool isScript(std::int32_t code) {
    switch (static_cast<RequestCode>(code)) {
    case RequestCode::isSettled: // name no script
    case RequestCode::outcomes:
        return false;
    case RequestCode::greylistScript:
    case RequestCode::reputationScript:
    case RequestCode::endpointScript:
        return true;
    }
    return false;
}

Exception unreadable(std::string const& reason) {
    return Exception("Service", Exception::failure).stringParameter(reason);
}

Answer refuse(std::string const& what, Answer answer, std::exception const& reason) {
    note(Logger::Severity::error, what + " is refused: " + reason.what());
    return answer;
}

} // namespace

Service::Service(Options const& options)
    : m_patience(options.patience), m_journal(options.journal), m_runner(m_journal, options.pauses),
      m_requests(options.requests, [this](ScriptRequest const& request, uid_t user) { return answer(request, user); }) {
    note(Logger::Severity::info, "taking requests on " + options.requests.socketPath + ", journal " + options.journal);
}

Service::~Service() {
    m_runner.stop(m_patience);
}

RequestServer::Reply Service::answer(ScriptRequest const& request, uid_t user) {
    if (request.code == static_cast<std::int32_t>(RequestCode::isSettled)) {
        return m_runner.waitUntilIdle(std::chrono::milliseconds(0)) ? Answer::accepted : Answer::notSettled;
    }
    if (request.code == static_cast<std::int32_t>(RequestCode::outcomes)) {
        return outcomes();
    }
    return take(request, user);
}

RequestServer::Reply Service::outcomes() const {
    try {
        return {Answer::accepted, asText(m_journal.outcomes())};
    } catch (std::exception const&) { // no memory
        return Answer::journalFailed;
    }
}

Answer Service::take(ScriptRequest const& request, uid_t user) {
    std::string const what =
        "request code " + std::to_string(request.code) + " of user " + std::to_string(user) + " for " + request.path;
    if (!isScript(request.code)) {
        note(Logger::Severity::error, what + " is refused: " + text(Answer::unknownCode));
        return Answer::unknownCode;
    }
    FileDescriptor script;
    try {
        script = openScript(request.path, user);
    } catch (Exception const& failure) {
        return refuse(what, Answer::scriptUnreadable, failure);
    }
    Journal::Entry entry{};
    try {
        entry = m_journal.accept(request.code, script.get());
    } catch (std::exception const& failure) {
        return refuse(what, Answer::journalFailed, failure);
    }
    m_runner.wake(); // it is in the journal: whatever fails from here on, it is accepted and run
    try {
        note(Logger::Severity::info, what + " is accepted as script " + std::to_string(entry.number));
    } catch (std::bad_alloc const&) {
        // the line is missing then
    }
    return Answer::accepted;
}

// Whoever asks names a file of his own: the path could otherwise name one that this process may read and he may not.
// Root, and the user that this process runs as, can read it anyway and may name those of everybody who may ask.
bool Service::mayName(uid_t asker, uid_t owner) const {
    return owner == asker || ((asker == 0 || asker == geteuid()) && m_requests.mayAsk(owner));
}

// Opened without waiting, because a FIFO would hold everything up.
FileDescriptor Service::openScript(std::string const& path, uid_t asker) const {
    FileDescriptor script(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (!script || fstat(script.get(), &status) != 0) {
        throw unreadable(std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        throw unreadable("it is not a regular file");
    }
    if (!mayName(asker, status.st_uid)) {
        throw unreadable("it belongs to user " + std::to_string(status.st_uid) + ", not to the one who asks");
    }
    return script;
}

} // namespace Vellum::DatabaseDaemon
