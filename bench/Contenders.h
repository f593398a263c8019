// The policy servers that PolicyBench compares, each in processes of its own.
#pragma once

#include "bench/PolicyLoad.h"
#include "bench/ServerProcess.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Vellum::Bench {

// A directory that is gone afterwards; other users may pass through it.
class TemporaryDirectory {
  public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(TemporaryDirectory const&) = delete;
    TemporaryDirectory& operator=(TemporaryDirectory const&) = delete;

    std::string const& path() const { return m_path; }
    std::string file(std::string const& name) const { return m_path + '/' + name; }

  private:
    std::string m_path;
};

// One server: in one process, or in one for each transport where the program can listen on one address only.
struct Contender {
    std::string name;
    std::shared_ptr<ServerProcess> onUnix;
    std::shared_ptr<ServerProcess> onTcp; // null where the program knows Unix sockets only
    std::uint64_t tuples = 0;             // that it knows, or soon will
    Protocol protocol = Protocol::policy;
    bool learns = false; // its tuples it has to be asked about first

    ServerProcess const* on(std::string const& transport) const {
        return transport == "unix" ? onUnix.get() : onTcp.get();
    }
};

// Starts one by its name:
//   noop         the least a server can do (NoopPolicyServer.h)
//   vellum-noop  our server, with an answerer that does nothing
//   vellumd      our server, with vellumd's decisions
//   postgrey, sqlgrey, greylistd, postfwd, policyd-rate-limit
//                the Debian packages of these names, as root only, since they change to users of their own (Peers.h)
// `tuples` are known to vellumd when it starts; a peer gets to know two hundred. `workers` is for our servers; 0: their
// default. Throws Exception.
Contender startContender(std::string const& name, std::uint64_t tuples, unsigned int workers,
                         TemporaryDirectory const& directory);

} // namespace Vellum::Bench
