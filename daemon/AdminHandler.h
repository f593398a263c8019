// What every administration request has in common: JSON in, JSON out, and a failure is an answer, too.
#pragma once

#include "daemon/AdminJson.h"
#include "foundation/Logger.h"
#include "foundation/ipc/Handler.h"

#include <string>

namespace Vellum::Daemon {

// A line of the log that tells what an administrator did.
void noteAdministration(Logger::Severity severity, std::string const& text);

void sendJson(IPC::SocketIPC& client, IPC::PduType type, Json const& json);

// Runs on a worker. Answers one adminReply: what answer() made, or {"error": text} when it threw, which is logged too.
class AdminHandler : public IPC::HandlerImpl {
  public:
    int task(IPC::SocketIPC& client, IPC::Pdu const& request) const final;

  protected:
    // `name` is for the log; a literal.
    AdminHandler(IPC::PduType type, char const* name) : HandlerImpl(type, true), m_name(name) {}

    virtual Json answer(Json const& request, IPC::SocketIPC& client) const = 0;

  private:
    Json answerOrError(IPC::SocketIPC& client, IPC::Pdu const& request) const;

    char const* m_name;
};

} // namespace Vellum::Daemon
