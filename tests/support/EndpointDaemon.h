// The endpoint handlers on a dispatcher of their own, which is the state daemon for the clients of this process.
#pragma once

#include "foundation/ipc/Dispatcher.h"
#include "foundation/ipc/Endpoint.h"
#include "mmsreputation/MMSReputationDisplay.h"
#include "tests/support/TemporaryDirectory.h"

#include <string>

namespace Vellum::MMSReputation {

class EndpointDaemon {
  public:
    EndpointDaemon() {
        ScoreTable::nextRefresh = 0;
        m_dispatcher.add(IPC::MyHandler<UpdatedHandler>());
        m_dispatcher.add(IPC::MyHandler<EntryRetrievalHandler>());
        m_dispatcher.add(IPC::MyHandler<EntryBatchRetrievalHandler>(new EntryBatchRetrievalHandler(dumpPath())));
        m_dispatcher.add(IPC::MyHandler<EntryRemovalHandler>());
        IPC::DispatcherOptions options;
        options.port = 0;
        m_dispatcher.start(options);
        IPC::Endpoint::map(IPC::stateDaemonPort, "127.0.0.1", port());
    }
    ~EndpointDaemon() {
        m_dispatcher.stop();
        IPC::Endpoint::unmap(IPC::stateDaemonPort);
    }
    EndpointDaemon(EndpointDaemon const&) = delete;
    EndpointDaemon& operator=(EndpointDaemon const&) = delete;

    unsigned int port() const { return m_dispatcher.boundPort(); }
    std::string dumpPath() const { return m_directory.path() + "/scores.txt"; }
    IPC::Dispatcher& dispatcher() { return m_dispatcher; }

  private:
    TemporaryDirectory m_directory;
    IPC::Dispatcher m_dispatcher{IPC::stateDaemonPort};
};

// Nobody is the state daemon of this process, for its life.
class AbsentEndpointDaemon {
  public:
    AbsentEndpointDaemon() {
        unsigned int port = 0;
        {
            IPC::Dispatcher gone{IPC::stateDaemonPort};
            IPC::DispatcherOptions options;
            options.port = 0;
            gone.start(options);
            port = gone.boundPort();
        }
        IPC::Endpoint::map(IPC::stateDaemonPort, "127.0.0.1", port);
    }
    ~AbsentEndpointDaemon() { IPC::Endpoint::unmap(IPC::stateDaemonPort); }
    AbsentEndpointDaemon(AbsentEndpointDaemon const&) = delete;
    AbsentEndpointDaemon& operator=(AbsentEndpointDaemon const&) = delete;
};

} // namespace Vellum::MMSReputation
