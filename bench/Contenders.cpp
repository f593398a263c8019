#include "bench/Contenders.h"

#include "bench/NoopPolicyServer.h"
#include "bench/Peers.h"
#include "bench/VellumPolicyServer.h"
#include "foundation/Exception.h"

#include <algorithm>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace Vellum::Bench {
namespace {

using Daemon::ListenAddress;
using Daemon::ListeningSocket;
using Daemon::PolicyServerOptions;

[[noreturn]] void fail(std::string const& what) {
    throw Exception("startContender", Exception::failure, "Contenders").stringParameter(what);
}

Contender inOneProcess(std::string const& name, std::uint64_t tuples,
                       std::function<void(ServerProcess::Ready const&)> const& body) {
    auto const process = std::make_shared<ServerProcess>(name, body);
    return {name, process, process, tuples, Protocol::policy, false};
}

Contender startNoop(std::string const& name, PolicyServerOptions const& options, std::uint64_t tuples) {
    return inOneProcess(name, tuples, [options](ServerProcess::Ready const& ready) {
        ListeningSocket const unixSocket(options.listen[0], options.socketMode);
        ListeningSocket const tcpSocket(options.listen[1], options.socketMode);
        ready({unixSocket.address(), tcpSocket.address()});
        runNoopPolicyServer(unixSocket.descriptor(), tcpSocket.descriptor());
    });
}

// Enough for keys to be known ones, few enough for the slowest to learn within seconds.
constexpr std::uint64_t tuplesOfAPeer = 200;

std::shared_ptr<ServerProcess> startPeer(std::string const& name, std::string const& transport,
                                         TemporaryDirectory const& directory) {
    auto const program = peerProgram(name, transport, directory.path());
    if (!program) {
        return nullptr;
    }
    return std::make_shared<ServerProcess>(name,
                                           [&program](ServerProcess::Ready const& ready) { runPeer(*program, ready); });
}

Contender startPeer(std::string const& name, TemporaryDirectory const& directory) {
    auto const protocol = name == "greylistd" ? Protocol::greylistd : Protocol::policy;
    return {name, startPeer(name, "unix", directory), startPeer(name, "tcp", directory), tuplesOfAPeer, protocol, true};
}

} // namespace

TemporaryDirectory::TemporaryDirectory() {
    m_path = std::filesystem::temp_directory_path() / "policybench.XXXXXX";
    if (mkdtemp(m_path.data()) == nullptr || chmod(m_path.c_str(), 0711) != 0) {
        fail("no directory " + m_path);
    }
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored; // it is in the place for temporary files
    std::filesystem::remove_all(m_path, ignored);
}

Contender startContender(std::string const& name, std::uint64_t tuples, unsigned int workers,
                         TemporaryDirectory const& directory) {
    PolicyServerOptions const options{
        .listen = {ListenAddress::parse("unix:" + directory.file(name)), ListenAddress::parse("inet:127.0.0.1:0")},
        .workers = workers};
    if (name == "noop") {
        return startNoop(name, options, tuples);
    }
    if (name == "vellum-noop") {
        return inOneProcess(name, tuples, [&](ServerProcess::Ready const& ready) { runNoopAnswerer(options, ready); });
    }
    if (name == "vellumd") {
        std::string const log = directory.file("decisions.log");
        return inOneProcess(name, tuples,
                            [&](ServerProcess::Ready const& ready) { runDecisions(options, tuples, log, ready); });
    }
    auto const& peers = peerNames();
    if (std::find(peers.begin(), peers.end(), name) != peers.end()) {
        return startPeer(name, directory);
    }
    fail('"' + name + "\" is none of noop, vellum-noop, vellumd and the packages");
}

} // namespace Vellum::Bench
