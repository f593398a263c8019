#include "foundation/ServiceThread.h"

#include <pthread.h>
#include <utility>

namespace Vellum {
SignalsBlocked::SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &m_before);
}

SignalsBlocked::~SignalsBlocked() {
    pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
}

std::thread startServiceThread(std::string const& name, std::function<void()> body) {
    SignalsBlocked const blocked;
    std::thread thread(std::move(body));
    pthread_setname_np(thread.native_handle(), name.c_str());
    return thread;
}

} // namespace Vellum
