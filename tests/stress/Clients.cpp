#include "tests/stress/Clients.h"

#include "foundation/FileDescriptor.h"
#include "foundation/ipc/PduType.h"

#include <arpa/inet.h>
#include <cstring>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

namespace Vellum::Stress {
namespace {

constexpr unsigned int requestsTogether = 20;
constexpr unsigned int messagesOfAConnection = 5;

// Version 6, everything that a mail server can do and leave out.
constexpr std::uint32_t offeredActions = 0x1FF;
constexpr std::uint32_t offeredSteps = 0x1FFFFF;

void require(bool holds, std::string const& what) {
    if (!holds) {
        throw std::runtime_error(what);
    }
}

std::string withLength(char command, std::string_view data) {
    auto const length = htonl(static_cast<std::uint32_t>(data.size() + 1));
    std::string packet(4, '\0');
    std::memcpy(packet.data(), &length, 4);
    return packet.append(1, command).append(data);
}

// Each text with its NUL.
std::string texts(std::initializer_list<std::string_view> all) {
    std::string joined;
    for (std::string_view const text : all) {
        joined.append(text).push_back('\0');
    }
    return joined;
}

void sendAll(int socket, std::string_view bytes) {
    require(::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size()),
            "the milter takes nothing");
}

std::string readExactly(int socket, std::size_t bytes) {
    std::string all(bytes, '\0');
    require(::recv(socket, all.data(), bytes, MSG_WAITALL) == static_cast<ssize_t>(bytes), "the milter has gone");
    return all;
}

// The next reply: its letter, and what is behind it.
std::string reply(int socket) {
    std::uint32_t length = 0;
    std::memcpy(&length, readExactly(socket, 4).data(), 4);
    return readExactly(socket, ntohl(length));
}

FileDescriptor connectTo(std::string const& path) {
    FileDescriptor made(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    timeval const patience{60, 0};
    setsockopt(made.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(static_cast<char*>(address.sun_path), sizeof address.sun_path - 1);
    require(::connect(made.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0, "no milter socket");
    return made;
}

} // namespace

std::string Correspondents::client() {
    return any(2) == 0 ? "192.0.2." + std::to_string(any(40)) : "2001:db8:" + std::to_string(any(200)) + "::1";
}

std::string Correspondents::sender() {
    switch (any(20)) {
    case 0:
        return "";
    case 1:
        return "list@exempt" + std::to_string(any(4)) + ".example";
    default:
        return "s" + std::to_string(any(500)) + "+tag@d" + std::to_string(any(9)) + ".example";
    }
}

PolicyAsker::PolicyAsker(std::string const& socket, std::uint64_t seed)
    : m_people(seed), m_client(Daemon::PolicyClient::connected(Daemon::ListenAddress::parse("unix:" + socket))) {}

void PolicyAsker::askMany() {
    std::string requests;
    for (unsigned int n = 0; n < requestsTogether; ++n) {
        requests += "request=smtpd_access_policy\nprotocol_state=RCPT\nclient_address=" + m_people.client() +
                    "\nsender=" + m_people.sender() + "\nrecipient=" + m_people.recipient() + "\n\n";
    }
    m_client.send(requests);
    for (unsigned int n = 0; n < requestsTogether; ++n) {
        std::string const answer = m_client.answer();
        bool const isAnswer = answer.starts_with("DUNNO") || answer.starts_with("DEFER") ||
                              answer.starts_with("REJECT") || answer.starts_with("PREPEND") ||
                              answer.starts_with("5") || answer.starts_with("4");
        require(isAnswer, "a policy request was answered \"" + answer + '"');
    }
}

void MilterSender::sendSome() {
    FileDescriptor const connection = connectTo(m_socket);
    std::uint32_t const offer[] = {htonl(6), htonl(offeredActions), htonl(offeredSteps)};
    sendAll(connection.get(), withLength('O', {reinterpret_cast<char const*>(offer), sizeof offer}));
    require(reply(connection.get()).starts_with('O'), "the milter does not agree on steps");
    std::string const client = m_people.client();
    bool const isV6 = client.find(':') != std::string::npos;
    sendAll(connection.get(), withLength('C', texts({"client.example"}) + (isV6 ? '6' : '4') + "\x12\x34" +
                                                  texts({isV6 ? "IPv6:" + client : client})));
    for (unsigned int n = 0; n < messagesOfAConnection; ++n) {
        sendOne(connection.get());
    }
    if (m_people.any(2) == 0) { // the others just go, in the middle of a message
        sendAll(connection.get(), withLength('Q', ""));
    } else {
        sendAll(connection.get(), withLength('M', texts({"<" + m_people.sender() + ">"})));
    }
}

void MilterSender::sendOne(int connection) {
    sendAll(connection, withLength('M', texts({"<" + m_people.sender() + ">"})));
    sendAll(connection, withLength('D', "R" + texts({"i", "4Q1", "{rcpt_mailer}", "smtp"})));
    unsigned int accepted = 0;
    for (unsigned int n = 0; n < 2; ++n) {
        sendAll(connection, withLength('R', texts({"<" + m_people.recipient() + ">"})));
        std::string const answer = reply(connection);
        require(answer.find_first_of("cyrt") == 0, "a recipient was answered " + answer);
        accepted += answer.front() == 'c' ? 1 : 0;
    }
    if (accepted == 0) {
        sendAll(connection, withLength('A', ""));
        return;
    }
    if (m_people.any(3) == 0) {
        sendAll(connection, withLength('L', texts({"X-Spam-Flag", "YES"})));
    }
    if (m_people.any(7) == 0) {
        sendAll(connection, withLength('L', texts({"X-Virus-Status", "Infected (Eicar)"})));
    }
    sendAll(connection, withLength('E', ""));
    std::string answer = reply(connection);
    while (answer.front() == 'i') { // a header
        answer = reply(connection);
    }
    require(answer.find_first_of("cyrt") == 0, "the end of a message was answered " + answer);
}

Tool::Unit Tool::next() {
    std::string const header = m_client.read(8);
    Unit unit{};
    std::uint32_t length = 0;
    std::memcpy(&unit.type, header.data(), 4);
    std::memcpy(&length, header.data() + 4, 4);
    unit.payload = m_client.read(length);
    return unit;
}

std::vector<std::string> Tool::list(std::uint32_t type, std::string_view payload) {
    m_client.send(rawUnit(type, payload));
    std::vector<std::string> records;
    std::int32_t announced = -1;
    for (Unit unit = next(); unit.type != IPC::number(IPC::PduType::endOfListing); unit = next()) {
        if (unit.type == IPC::number(IPC::PduType::count)) {
            std::memcpy(&announced, unit.payload.data(), sizeof announced);
        } else {
            records.push_back(std::move(unit.payload));
        }
    }
    require(announced == -1 || static_cast<std::size_t>(announced) == records.size(),
            "listing " + std::to_string(type) + " has not as many records as it says");
    return records;
}

void Tool::listSome(std::uint32_t type) {
    m_client.send(rawUnit(type));
    if (next().type == IPC::number(IPC::PduType::count) && next().type != IPC::number(IPC::PduType::endOfListing)) {
        m_client.send(rawUnit(IPC::number(IPC::PduType::endOfListing)));
        while (next().type != IPC::number(IPC::PduType::endOfListing)) {
        }
    }
}

void Tool::tell(std::uint32_t type, std::string_view payload) {
    m_client.send(rawUnit(type, payload));
    ask(IPC::number(IPC::PduType::adminStatus));
}

nlohmann::json Tool::ask(std::uint32_t type, nlohmann::json const& request) {
    m_client.send(rawUnit(type, request.dump()));
    Unit unit = next();
    while (unit.type == IPC::number(IPC::PduType::adminProgress)) {
        unit = next();
    }
    require(unit.type == IPC::number(IPC::PduType::adminReply), "request " + std::to_string(type) + " has no answer");
    return nlohmann::json::parse(unit.payload);
}

std::string metricsOf(unsigned int port) {
    RawClient client(port);
    client.send("GET /metrics HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n");
    return client.readUntilEnd();
}

} // namespace Vellum::Stress
