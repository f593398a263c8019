#include "foundation/ipc/Dispatcher.h"

#include "foundation/Locks.h"
#include "foundation/ipc/Server.h"

#include <map>
#include <system_error>

namespace Vellum::IPC {
namespace {

struct Dispatchers {
    Mutex lock;
    std::map<int, Dispatcher*> byNumber VELLUM_GUARDED_BY(lock);
};

// Never destroyed, nor are the dispatchers: other threads may still add to them while the process ends.
Dispatchers& dispatchers() {
    static auto& all = *new Dispatchers;
    return all;
}

} // namespace

struct Dispatcher::Registry {
    Mutex lock;
    std::map<unsigned int, Handler> handlers VELLUM_GUARDED_BY(lock); // by request type
};

Dispatcher& Dispatcher::instance(int port) {
    Dispatchers& all = dispatchers();
    Synchronized const holding(all.lock);
    Dispatcher*& dispatcher = all.byNumber[port];
    if (dispatcher == nullptr) {
        dispatcher = new Dispatcher(port);
    }
    return *dispatcher;
}

Dispatcher::Dispatcher(int port) : m_registry(std::make_unique<Registry>()), m_number(port) {}

Dispatcher::~Dispatcher() = default;

void Dispatcher::add(Handler const& handler) {
    unsigned int const type = handler->type();
    Synchronized const holding(m_registry->lock);
    m_registry->handlers.insert_or_assign(type, handler);
}

Handler Dispatcher::handler(unsigned int type) const {
    Synchronized const holding(m_registry->lock);
    auto const found = m_registry->handlers.find(type);
    return found == m_registry->handlers.end() ? Handler(nullptr) : found->second;
}

void Dispatcher::start(DispatcherOptions const& options) {
    if (m_server != nullptr) {
        throw Exception("Dispatcher::start", Exception::failure, "Dispatcher")
            .stringParameter("dispatcher " + std::to_string(m_number) + " is running already");
    }
    int const port = options.port == DispatcherOptions::registryNumber ? m_number : options.port;
    if (port < 0) {
        throw Exception("Dispatcher::start", Exception::failure, "Dispatcher")
            .stringParameter("port " + std::to_string(port) + " is negative");
    }
    try {
        m_server = std::make_unique<Server>(*this, options, static_cast<unsigned int>(port));
    } catch (std::system_error const& failed) {
        throw Exception("Dispatcher::start", Exception::failure, "Dispatcher")
            .stringParameter("dispatcher " + std::to_string(m_number) + ": " + failed.what());
    }
}

unsigned int Dispatcher::boundPort() const {
    return m_server == nullptr ? 0 : m_server->port();
}

void Dispatcher::stop() {
    m_server.reset();
}

} // namespace Vellum::IPC
