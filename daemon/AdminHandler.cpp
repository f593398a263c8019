#include "daemon/AdminHandler.h"

#include "foundation/ipc/Pdu.h"
#include "foundation/ipc/SocketIPC.h"

namespace Vellum::Daemon {

void noteAdministration(Logger::Severity severity, std::string const& text) {
    Logger::instance(false).note(severity, "administration: " + text);
}

void sendJson(IPC::SocketIPC& client, IPC::PduType type, Json const& json) {
    std::string const payload = payloadOf(json);
    client.send(type, payload.data(), payload.size());
}

int AdminHandler::task(IPC::SocketIPC& client, IPC::Pdu const& request) const {
    if (request.type() != type()) {
        noteAdministration(Logger::Severity::warning, "a request of type " + std::to_string(request.type()) +
                                                          " came to the handler of " + std::to_string(type()));
        return -1;
    }
    sendJson(client, IPC::PduType::adminReply, answerOrError(client, request));
    return 0;
}

Json AdminHandler::answerOrError(IPC::SocketIPC& client, IPC::Pdu const& request) const {
    std::string problem;
    try {
        return answer(parseRequest(request.data().view()), client);
    } catch (Exception const& failed) {
        problem = failed.asString();
    } catch (std::exception const& failed) {
        problem = failed.what();
    }
    noteAdministration(Logger::Severity::warning, std::string(m_name) + " refused or failed: " + problem);
    return errorJson(problem);
}

} // namespace Vellum::Daemon
