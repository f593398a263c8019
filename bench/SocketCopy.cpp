#include "bench/SocketCopy.h"

#include "bench/BenchSupport.h"
#include "foundation/ipc/Address.h"
#include "foundation/ipc/Pdu.h"

#include <algorithm>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace Vellum::Bench {
namespace {

FileDescriptor newSocket() {
    FileDescriptor made(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (made.get() < 0) {
        throw std::runtime_error("no socket");
    }
    return made;
}

} // namespace

FileDescriptor connectTo(unsigned int port) {
    FileDescriptor client = newSocket();
    IPC::SystemAddress const address = IPC::SystemAddress::of("127.0.0.1", port);
    if (::connect(client.get(), address.get(), address.length) != 0) {
        throw std::runtime_error("nobody on port " + std::to_string(port));
    }
    return client;
}

void readAll(int socket, std::size_t bytes, std::string* keep) {
    std::vector<char> piece(256U << 10);
    while (bytes > 0) {
        ssize_t const got = ::recv(socket, piece.data(), std::min(piece.size(), bytes), 0);
        if (got <= 0) {
            throw std::runtime_error("the connection ended early");
        }
        if (keep != nullptr) {
            keep->append(piece.data(), static_cast<std::size_t>(got));
        }
        bytes -= static_cast<std::size_t>(got);
    }
}

void sendAll(int socket, std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t const sent = ::send(socket, bytes.data(), std::min<std::size_t>(bytes.size(), 64U << 10), MSG_NOSIGNAL);
        if (sent <= 0) {
            throw std::runtime_error("the reader is gone");
        }
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
}

double askFor(unsigned int port, std::uint32_t requestType, std::size_t bytes, std::string* keep) {
    return milliseconds([&] {
        FileDescriptor const client = connectTo(port);
        char request[IPC::Pdu::headerSize];
        IPC::Pdu::writeHeader(request, requestType, 0);
        sendAll(client.get(), {request, sizeof request});
        readAll(client.get(), bytes, keep);
    });
}

double copyOf(std::string const& bytes) {
    FileDescriptor const listener = newSocket();
    IPC::SystemAddress const any = IPC::SystemAddress::of("127.0.0.1", 0);
    if (::bind(listener.get(), any.get(), any.length) != 0 || ::listen(listener.get(), 1) != 0) {
        throw std::runtime_error("cannot listen");
    }
    unsigned int const port = IPC::SystemAddress::local(listener.get()).value().port();
    return milliseconds([&] {
        std::thread server([&] {
            FileDescriptor const peer(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
            sendAll(peer.get(), bytes);
        });
        readAll(connectTo(port).get(), bytes.size());
        server.join();
    });
}

} // namespace Vellum::Bench
