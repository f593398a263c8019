#include "foundation/ipc/Doorkeeper.h"

#include <unistd.h>
#include <utility>

namespace Vellum::IPC {
namespace {

constexpr std::size_t mostStrangersLogged = 1000;
constexpr unsigned int notesAtOnce = 10;
constexpr std::chrono::seconds noteInterval{60};

} // namespace

Doorkeeper::Doorkeeper(std::set<uid_t> allowedUsers, unsigned int port)
    : m_allowedUsers(std::move(allowedUsers)), m_port(port), m_notes(notesAtOnce, noteInterval) {}

bool Doorkeeper::isAllowed(uid_t user) const {
    return user == 0 || user == ::geteuid() || m_allowedUsers.count(user) != 0;
}

std::optional<std::string> Doorkeeper::admit(int socket) {
    SystemAddress const peer = SystemAddress::peer(socket);
    std::string name = peer.value().asString();
    std::optional<uid_t> const user = m_owners.of(peer, SystemAddress::local(socket));
    if (!user) {
        m_notes.note(Logger::Severity::warning, "port " + std::to_string(m_port) + ": refused " + name +
                                                    ": the kernel does not tell whose connection it is; a client " +
                                                    "keeps its end open until it was served");
        return std::nullopt;
    }
    if (!isAllowed(*user)) {
        logStranger(*user, name);
        return std::nullopt;
    }
    return name + " (user " + std::to_string(*user) + ")";
}

void Doorkeeper::logStranger(uid_t user, std::string const& peer) {
    if (m_strangers.size() < mostStrangersLogged && m_strangers.insert(user).second) {
        Logger::instance(false).note(Logger::Severity::warning, "port " + std::to_string(m_port) + ": refused " + peer +
                                                                    ": user " + std::to_string(user) +
                                                                    " may not speak here (said once for each user)");
    }
}

} // namespace Vellum::IPC
