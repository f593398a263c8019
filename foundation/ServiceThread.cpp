#include "foundation/ServiceThread.h"

#include <csignal>
#include <pthread.h>
#include <utility>

namespace Vellum {
namespace {

// A new thread inherits the mask of the thread that makes it.
class SignalsBlocked {
  public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_before);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    SignalsBlocked(SignalsBlocked const&) = delete;
    SignalsBlocked& operator=(SignalsBlocked const&) = delete;

  private:
    sigset_t m_before;
};

} // namespace

std::thread startServiceThread(std::string const& name, std::function<void()> body) {
    SignalsBlocked const blocked;
    std::thread thread(std::move(body));
    pthread_setname_np(thread.native_handle(), name.c_str());
    return thread;
}

} // namespace Vellum
