#include "daemon/DatabaseWait.h"

#include "foundation/Logger.h"
#include "foundation/database/Connection.h"

#include <csignal>
#include <optional>
#include <string>

namespace Vellum::Daemon {
namespace {

// Why there is no session for now. Our database itself may not have been created yet.
std::optional<std::string> whyUnreachable() {
    try {
        Database::Connection const connection(Database::Connection::defaultAddress(), "");
    } catch (Database::DatabaseException const& failed) {
        if (!failed.serverIsAway()) {
            throw;
        }
        return failed.message();
    }
    return std::nullopt;
}

} // namespace

bool awaitDatabase(SignalInbox& signals, std::function<void()> const& readAgain, std::chrono::milliseconds interval) {
    bool waiting = false;
    bool hangUp = false;
    while (auto const problem = whyUnreachable()) {
        if (!waiting) {
            Logger::instance(false).note(Logger::Severity::error,
                                         "the database does not answer, the start waits for it: " + *problem);
            waiting = true;
        }
        auto const signal = signals.next(interval);
        if (signal == SIGHUP) {
            readAgain();
            hangUp = true;
        } else if (signal) {
            return false;
        }
    }
    if (waiting) {
        Logger::instance(false).note(Logger::Severity::warning, "the database answers, the start goes on");
    }
    if (hangUp) {
        signals.put(SIGHUP);
    }
    return true;
}

} // namespace Vellum::Daemon
