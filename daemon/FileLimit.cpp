#include "daemon/FileLimit.h"

#include "foundation/Logger.h"

#include <string>
#include <sys/resource.h>

namespace Vellum::Daemon {

void raiseFileLimit(std::size_t wanted) {
    rlimit files{};
    if (getrlimit(RLIMIT_NOFILE, &files) != 0) {
        return;
    }
    rlimit const most{files.rlim_max, files.rlim_max};
    if (files.rlim_cur < files.rlim_max && setrlimit(RLIMIT_NOFILE, &most) == 0) {
        files = most;
    }
    if (files.rlim_cur < wanted) {
        Logger::instance(false).note(Logger::Severity::warning,
                                     "this process may have " + std::to_string(files.rlim_cur) +
                                         " files open, max_connections of [policy], [milter] and [ipc] want " +
                                         std::to_string(wanted) +
                                         "; when none is left, new clients wait or are turned away");
    }
}

} // namespace Vellum::Daemon
