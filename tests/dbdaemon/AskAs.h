// A request to the database daemon in another user's name. Only root can do that.
#pragma once

#include "foundation/database/DatabaseDaemon.h"

#include <string>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Vellum::DatabaseDaemon {

// Asks from a process of its own, over the socket that setSocketPath() has named; answers what came, or 100 when the
// process could not become that user.
inline int askAs(uid_t user, std::string const& script) {
    pid_t const child = fork();
    if (child == 0) {
        if (setresuid(user, user, user) != 0) {
            _exit(100);
        }
        _exit(requestScript(RequestCode::greylistScript, script));
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 101;
}

} // namespace Vellum::DatabaseDaemon
