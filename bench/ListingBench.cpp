// Listing the tuple cache through the dispatcher beside a plain copy of the same bytes over a socket of loopback.
//
//   ListingBench [--tuples N]... [--turns N] [--json]
//
// The same reader takes both in pieces of 256 KiB, from before the connection is made until the last byte. Once more
// with the library's own client, which takes the listing apart into units.
#include "bench/BenchSupport.h"
#include "bench/SocketCopy.h"
#include "foundation/ipc/Dispatcher.h"
#include "foundation/ipc/Endpoint.h"
#include "greylist/GlDisplay.h"
#include "greylist/TupleCache.h"

#include <stdexcept>

using namespace Vellum;
using namespace Vellum::Bench;
using namespace Vellum::GreyList;

namespace {

constexpr std::size_t recordSize = IPC::Pdu::headerSize + sizeof(Packet);

std::size_t listingSize(std::size_t tuples) {
    return IPC::Pdu::headerSize + sizeof(std::int32_t) + tuples * recordSize + IPC::Pdu::headerSize;
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
            raw.turn([&] { return list(); }, [&] { return copyOf(m_bytes); });
            library.turn([&] { return listWithLibrary(); }, [&] { return copyOf(m_bytes); });
        }
        raw.print("listing", m_tuples, m_options.json);
        library.print("listing, with the library's client", m_tuples, m_options.json);
    }

  private:
    double list(std::string* keep = nullptr) const {
        return askFor(m_dispatcher.boundPort(), IPC::number(IPC::PduType::listTuples), listingSize(m_tuples), keep);
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
