// What arrives at the socket of a client of port 29001: a byte that says how it is cut, and the stream.
#include "foundation/Escape.h"
#include "foundation/Exception.h"
#include "foundation/ipc/ClientSocket.h"
#include "fuzz/FuzzTarget.h"
#include "fuzz/Input.h"

#include <sys/socket.h>
#include <utility>

namespace Vellum::Fuzz {
namespace {

using Unit = std::pair<std::uint32_t, std::string>;

constexpr std::size_t longestStream = 64U << 10; // what the kernel keeps of it without a reader
constexpr std::size_t mostPieces = 100;          // as each of them costs the kernel's memory

struct Connection {
    FileDescriptor here;
    FileDescriptor there;

    // Keeps the pieces that are sent apart, as a stream does when its reader is fast.
    Connection() {
        int ends[2];
        require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0, "there are sockets");
        here = FileDescriptor(ends[0]);
        there = FileDescriptor(ends[1]);
    }
    void arrive(std::string_view bytes) const {
        require(send(there.get(), bytes.data(), bytes.size(), MSG_DONTWAIT) == static_cast<ssize_t>(bytes.size()),
                "the kernel keeps what was sent");
    }
};

void arrive(Connection const& connection, std::string_view stream, std::uint8_t cuts) {
    std::size_t count = 0;
    for (std::string const& piece : inPieces(stream, cuts)) {
        if (++count == mostPieces) {
            break;
        }
        connection.arrive(piece);
        stream.remove_prefix(piece.size());
    }
    if (!stream.empty()) {
        connection.arrive(stream);
    }
}

// The stream, read by hand up to what is no unit.
std::vector<Unit> reference(std::string_view stream) {
    std::vector<Unit> units;
    while (stream.size() >= IPC::Pdu::headerSize) {
        std::size_t const length = IPC::Pdu::lengthInHeader(stream.data());
        if (length > IPC::Pdu::maxPayload || length > stream.size() - IPC::Pdu::headerSize) {
            break;
        }
        units.emplace_back(IPC::Pdu::typeInHeader(stream.data()), stream.substr(IPC::Pdu::headerSize, length));
        stream.remove_prefix(IPC::Pdu::headerSize + length);
    }
    return units;
}

void run(std::string_view input) {
    Input parts(input);
    std::uint8_t const cuts = parts.byte();
    std::string_view const stream = parts.bytes(longestStream);
    Connection connection;
    arrive(connection, stream, cuts);
    connection.there.reset();

    IPC::ClientSocket client({.host = "127.0.0.1", .port = 1}, std::move(connection.here), {});
    IPC::Pdu unit(IPC::PduType::receiveBuffer, 0);
    for (Unit const& expected : reference(stream)) {
        require(client.dataWaiting(), "a unit that has arrived is there");
        client.receive(unit);
        require(unit.type() == expected.first && unit.data().view() == expected.second, "a unit is its own bytes");
    }
    require(client.dataWaiting(), "an end is told as well");
    try {
        client.receive(unit);
        require(false, "there is nothing behind the last unit");
    } catch (Exception const& ended) {
        require(escapeControls(ended.asString()) == ended.asString(), "why it ended is a line of text");
    }
}

Target const target("client", run);

} // namespace
} // namespace Vellum::Fuzz
