// A running dispatcher of its own, with handlers written where they are tested.
#pragma once

#include "foundation/ipc/Dispatcher.h"
#include "tests/support/CapturingLogger.h"
#include "tests/support/RawClient.h"

#include <condition_variable>
#include <functional>
#include <mutex>
#include <utility>

namespace Vellum {

// A handler whose task is a function.
class FunctionHandler : public IPC::HandlerImpl {
  public:
    using Task = std::function<int(IPC::SocketIPC&, IPC::Pdu const&)>;

    FunctionHandler(unsigned int type, bool mayTakeLong, Task task)
        : HandlerImpl(type, mayTakeLong), m_task(std::move(task)) {}
    int task(IPC::SocketIPC& client, IPC::Pdu const& request) const override { return m_task(client, request); }

  private:
    Task m_task;
};

// Something that happens once, and can be waited for.
class Event {
  public:
    void happen() {
        std::lock_guard const holding(m_lock);
        m_happened = true;
        m_changed.notify_all();
    }
    void wait() {
        std::unique_lock holding(m_lock);
        m_changed.wait(holding, [this] { return m_happened; });
    }

  private:
    std::mutex m_lock;
    std::condition_variable m_changed;
    bool m_happened = false;
};

struct TestDispatcher {
    static constexpr unsigned int echoType = 1000;     // short: answers type + 1 and the same payload
    static constexpr unsigned int slowEchoType = 1002; // the same as a task that may take long

    CapturingLogger log; // outlives the dispatcher's threads
    IPC::Dispatcher dispatcher{29001};
    IPC::DispatcherOptions options;

    TestDispatcher() {
        options.port = 0;
        auto const echo = [](IPC::SocketIPC& client, IPC::Pdu const& request) {
            client << IPC::Pdu(request.type() + 1, request.data());
            return 0;
        };
        on(echoType, false, echo);
        on(slowEchoType, true, echo);
    }

    void on(unsigned int type, bool mayTakeLong, FunctionHandler::Task task) {
        dispatcher.add(IPC::MyHandler<FunctionHandler>(new FunctionHandler(type, mayTakeLong, std::move(task))));
    }
    void start() { dispatcher.start(options); }
    unsigned int port() const { return dispatcher.boundPort(); }

    // A new connection is served.
    bool answers(std::string const& host = "127.0.0.1") const {
        RawClient client(port(), host);
        client.send(rawUnit(echoType, "hello"));
        return client.read(13) == rawUnit(echoType + 1, "hello");
    }
};

} // namespace Vellum
