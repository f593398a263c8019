// Listing the tuple cache through the dispatcher beside a plain copy of the same bytes over a socket of loopback.
//
//   ListingBench [--tuples N]... [--turns N] [--json]
//
// The same reader takes both in pieces of 256 KiB, from before the connection is made until the last byte. Once more
// with the library's own client, which takes the listing apart into units.
#include "bench/BenchSupport.h"
#include "foundation/FileDescriptor.h"
#include "foundation/ipc/Address.h"
#include "foundation/ipc/Dispatcher.h"
#include "foundation/ipc/Endpoint.h"
#include "greylist/GlDisplay.h"
#include "greylist/TupleCache.h"

#include <cstring>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace Vellum;
using namespace Vellum::Bench;
using namespace Vellum::GreyList;

namespace {

constexpr std::size_t recordSize = IPC::Pdu::headerSize + sizeof(Packet);

std::size_t listingSize(std::size_t tuples) {
    return IPC::Pdu::headerSize + sizeof(std::int32_t) + tuples * recordSize + IPC::Pdu::headerSize;
}

FileDescriptor newSocket() {
    FileDescriptor made(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (made.get() < 0) {
        throw std::runtime_error("no socket");
    }
    return made;
}

FileDescriptor connectTo(unsigned int port) {
    FileDescriptor client = newSocket();
    IPC::SystemAddress const address = IPC::SystemAddress::of("127.0.0.1", port);
    if (::connect(client.get(), address.get(), address.length) != 0) {
        throw std::runtime_error("nobody on port " + std::to_string(port));
    }
    return client;
}

// Reads that many bytes; with `keep`, into it.
void readAll(int socket, std::size_t bytes, std::string* keep = nullptr) {
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

class ListingBench {
  public:
    ListingBench(std::size_t tuples, Options const& options) : m_tuples(tuples), m_options(options) {
        fill<_TupleCache, TupleId>(**TupleCache::instance(), tuples);
        m_dispatcher.add(IPC::MyHandler<RecordHandler>());
        IPC::DispatcherOptions dispatcherOptions;
        dispatcherOptions.port = 0;
        m_dispatcher.start(dispatcherOptions);
        IPC::Endpoint::map(IPC::stateDaemonPort, "127.0.0.1", m_dispatcher.boundPort());
        m_bytes.reserve(listingSize(tuples));
        list(&m_bytes);
    }
    ~ListingBench() {
        m_dispatcher.stop();
        (**TupleCache::instance()).clear();
    }
    ListingBench(ListingBench const&) = delete;
    ListingBench& operator=(ListingBench const&) = delete;

    void run() {
        Comparison raw;
        Comparison library;
        for (unsigned int turn = 0; turn < m_options.turns; ++turn) {
            raw.turn([&] { return list(); }, [&] { return copy(); });
            library.turn([&] { return listWithLibrary(); }, [&] { return copy(); });
        }
        raw.print("listing", m_tuples, m_options.json);
        library.print("listing, with the library's client", m_tuples, m_options.json);
    }

  private:
    double list(std::string* keep = nullptr) const {
        return milliseconds([&] {
            FileDescriptor const client = connectTo(m_dispatcher.boundPort());
            char request[IPC::Pdu::headerSize];
            IPC::Pdu::writeHeader(request, IPC::number(IPC::PduType::listTuples), 0);
            sendAll(client.get(), {request, sizeof request});
            readAll(client.get(), listingSize(m_tuples), keep);
        });
    }
    double listWithLibrary() const {
        std::size_t records = 0;
        double const taken = milliseconds([&] {
            IPC::SocketIPC client;
            client.connect(IPC::stateDaemonPort);
            client << IPC::Pdu(IPC::PduType::listTuples, 0);
            IPC::Pdu reply(IPC::PduType::receiveBuffer, 1024);
            do {
                client >> reply;
                records += reply.is(IPC::PduType::tupleRecord) ? 1 : 0;
            } while (!reply.is(IPC::PduType::endOfListing));
        });
        if (records != m_tuples) {
            throw std::runtime_error("the listing has other records");
        }
        return taken;
    }
    double copy() const {
        FileDescriptor const listener = newSocket();
        IPC::SystemAddress const any = IPC::SystemAddress::of("127.0.0.1", 0);
        if (::bind(listener.get(), any.get(), any.length) != 0 || ::listen(listener.get(), 1) != 0) {
            throw std::runtime_error("cannot listen");
        }
        unsigned int const port = IPC::SystemAddress::local(listener.get()).value().port();
        return milliseconds([&] {
            std::thread server([&] {
                FileDescriptor const peer(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
                sendAll(peer.get(), m_bytes);
            });
            readAll(connectTo(port).get(), m_bytes.size());
            server.join();
        });
    }

    std::size_t m_tuples;
    Options const& m_options;
    IPC::Dispatcher m_dispatcher{IPC::stateDaemonPort};
    std::string m_bytes;
};

} // namespace

int main(int argc, char** argv) {
    SilentLogger const silent;
    Options const options = Options::parse(argc, argv, {1000000}, 7);
    installConfiguration(*std::max_element(options.sizes.begin(), options.sizes.end()));
    for (std::size_t const tuples : options.sizes) {
        ListingBench(tuples, options).run();
    }
}
