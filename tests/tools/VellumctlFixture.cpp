#include "tests/tools/VellumctlFixture.h"

#include "greylist/GlDisplay.h"

#include <cstdlib>
#include <ctime>

namespace Vellum::Tools {

VellumctlFixture::VellumctlFixture() {
    ::setenv("TZ", "UTC", 1); // as the child has it
    ::tzset();
    tuples().clear();
    exemptions().clear();
    m_dispatcher.add(IPC::MyHandler<GreyList::RecordHandler>());
    m_dispatcher.add(IPC::MyHandler<GreyList::AutoExemptHandler>());
    IPC::DispatcherOptions options;
    options.port = 0;
    m_dispatcher.start(options);
}

void VellumctlFixture::answerJson(IPC::PduType type, nlohmann::json const& reply) {
    answer(type, [reply](IPC::SocketIPC& client, IPC::Pdu const&) {
        sendJson(client, IPC::PduType::adminReply, reply);
        return 0;
    });
}

ChildResult VellumctlFixture::run(std::vector<std::string> words, ChildOptions const& options) const {
    words.insert(words.end(), {"--port", std::to_string(port())});
    return runChild(VELLUM_BINARY_DIR "/bin/vellumctl", words, options);
}

void sendJson(IPC::SocketIPC& client, IPC::PduType type, nlohmann::json const& json) {
    std::string const payload = json.dump();
    client.send(type, payload.data(), payload.size());
}

} // namespace Vellum::Tools
