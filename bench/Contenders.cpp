#include "bench/Contenders.h"

#include "bench/NoopPolicyServer.h"
#include "bench/VellumPolicyServer.h"
#include "foundation/Exception.h"

#include <algorithm>
#include <filesystem>
#include <pwd.h>
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
    return {name, process, process, tuples};
}

Contender startNoop(std::string const& name, PolicyServerOptions const& options, std::uint64_t tuples) {
    return inOneProcess(name, tuples, [options](ServerProcess::Ready const& ready) {
        ListeningSocket const unixSocket(options.listen[0], options.socketMode);
        ListeningSocket const tcpSocket(options.listen[1], options.socketMode);
        ready({unixSocket.address(), tcpSocket.address()});
        runNoopPolicyServer(unixSocket.descriptor(), tcpSocket.descriptor());
    });
}

// ---- postgrey

// A port that nobody listens on at this moment.
ListenAddress freePort() {
    return ListeningSocket(ListenAddress::parse("inet:127.0.0.1:0"), 0).address();
}

std::shared_ptr<ServerProcess> startPostgrey(TemporaryDirectory const& directory, ListenAddress const& address) {
    passwd const* const user = getpwnam("postgrey");
    if (user == nullptr || geteuid() != 0) {
        fail("postgrey is not installed, or this is not root");
    }
    std::string const home = directory.file(address.isUnix() ? "postgrey-unix" : "postgrey-tcp");
    std::filesystem::create_directory(home);
    if (chown(home.c_str(), user->pw_uid, user->pw_gid) != 0) {
        fail("chown " + home);
    }
    std::string const where = address.isUnix() ? "--unix=" + address.path : "--inet=" + address.inet.asString();
    return std::make_shared<ServerProcess>("postgrey",
                                           std::vector<std::string>{"/usr/sbin/postgrey", where, "--dbdir=" + home,
                                                                    "--pidfile=" + home + "/pid", "--delay=1"},
                                           address, home + "/log");
}

Contender startBothPostgreys(TemporaryDirectory const& directory, std::uint64_t tuples) {
    auto const onUnix = startPostgrey(directory, ListenAddress::parse("unix:" + directory.file("postgrey")));
    auto const onTcp = startPostgrey(directory, freePort());
    return {"postgrey", onUnix, onTcp, std::max<std::uint64_t>(tuples / 1000, 1)};
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
    if (name == "postgrey") {
        return startBothPostgreys(directory, tuples);
    }
    fail('"' + name + "\" is none of noop, vellum-noop, vellumd, postgrey");
}

} // namespace Vellum::Bench
