#include "foundation/ServiceSignals.h"

#include <initializer_list>

namespace Vellum {

sigset_t setUpServiceSignals() {
    sigset_t taken;
    sigemptyset(&taken);
    for (int const signal : {SIGTERM, SIGINT, SIGHUP}) {
        sigaddset(&taken, signal);
    }
    pthread_sigmask(SIG_BLOCK, &taken, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    std::signal(SIGCHLD, SIG_DFL);
    return taken;
}

} // namespace Vellum
