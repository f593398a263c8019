// What every thread of a front is made with.
#pragma once

#include <functional>
#include <string>
#include <thread>

namespace Vellum::Daemon {

// A descriptor that is closed at the end of its owner's life.
class Descriptor {
  public:
    explicit Descriptor(int descriptor = -1) : m_descriptor(descriptor) {}
    ~Descriptor();
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;

    int get() const { return m_descriptor; }

  private:
    int m_descriptor;
};

// An epoll set that watches `wake` for input already, with a null pointer as its event's data. Throws Exception.
int makeEpoll(int wake);
// An event descriptor, and its signal. Throws Exception.
int makeEvent();
void signalEvent(int event);

// Starts a thread under that name (at most 15 characters, as tools show it) to which no signal is delivered: those are
// the main thread's business. Throws Exception.
std::thread startServiceThread(std::string const& name, std::function<void()> body);

} // namespace Vellum::Daemon
