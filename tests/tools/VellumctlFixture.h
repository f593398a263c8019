// The built vellumctl beside a dispatcher of the test's own, on a port that the kernel chose.
#pragma once

#include "foundation/ipc/Dispatcher.h"
#include "greylist/DynamicExemptCache.h"
#include "greylist/TupleCache.h"
#include "tests/support/CapturingLogger.h"
#include "tests/support/GreylistConfiguration.h"
#include "tests/tools/ChildProgram.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <functional>
#include <string>
#include <vector>

namespace Vellum::Tools {

// Answers requests of one type with a function of the test.
class FunctionHandler : public IPC::HandlerImpl {
  public:
    using Task = std::function<int(IPC::SocketIPC&, IPC::Pdu const&)>;

    FunctionHandler(IPC::PduType type, Task task) : HandlerImpl(type, true), m_task(std::move(task)) {}
    int task(IPC::SocketIPC& client, IPC::Pdu const& request) const override { return m_task(client, request); }

  private:
    Task m_task;
};

class VellumctlFixture : public testing::Test {
  protected:
    VellumctlFixture();

    void answer(IPC::PduType type, FunctionHandler::Task task) {
        m_dispatcher.add(IPC::MyHandler<FunctionHandler>(new FunctionHandler(type, std::move(task))));
    }
    // Answers an administration request with a JSON value.
    void answerJson(IPC::PduType type, nlohmann::json const& reply);

    unsigned int port() const { return m_dispatcher.boundPort(); }
    // Runs vellumctl with these words and the port behind them.
    ChildResult run(std::vector<std::string> words, ChildOptions const& options = {}) const;

    // The process's caches, empty at the start of a test.
    GreyList::_TupleCache& tuples() const { return **GreyList::TupleCache::instance(); }
    GreyList::_DynamicExemptCache& exemptions() const { return **GreyList::DynamicExemptCache::instance(); }

    CapturingLogger m_log;
    GreyList::InstalledConfiguration m_configuration{100000};
    IPC::Dispatcher m_dispatcher{IPC::stateDaemonPort};
};

void sendJson(IPC::SocketIPC& client, IPC::PduType type, nlohmann::json const& json);

} // namespace Vellum::Tools
