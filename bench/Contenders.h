// The policy servers that PolicyBench compares, each in processes of its own.
#pragma once

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

    std::string file(std::string const& name) const { return m_path + '/' + name; }

  private:
    std::string m_path;
};

// One server: in one process, or in one for each transport where the program can listen on one address only.
struct Contender {
    std::string name;
    std::shared_ptr<ServerProcess> onUnix;
    std::shared_ptr<ServerProcess> onTcp;
    std::uint64_t tuples = 0; // that it knows, or soon will

    ServerProcess const& on(std::string const& transport) const { return transport == "unix" ? *onUnix : *onTcp; }
};

// Starts one by its name:
//   noop         the least a server can do (NoopPolicyServer.h)
//   vellum-noop  our server, with an answerer that does nothing
//   vellumd      our server, with vellumd's decisions
//   postgrey     the Debian package of that name, as root only: it changes to its own user
// `tuples` are known to vellumd when it starts; postgrey learns a thousandth of that while it is warming up.
// `workers` is for our servers; 0: their default. Throws Exception.
Contender startContender(std::string const& name, std::uint64_t tuples, unsigned int workers,
                         TemporaryDirectory const& directory);

} // namespace Vellum::Bench
