#include "foundation/ipc/Endpoint.h"

#include "foundation/Locks.h"
#include "foundation/SocketAddress.h"

#include <map>

namespace Vellum::IPC {
namespace {

struct Mapped {
    Mutex lock;
    std::map<int, Endpoint> endpoints VELLUM_GUARDED_BY(lock);
};

// Never destroyed: clients may still connect while the process ends.
Mapped& mapped() {
    static auto& all = *new Mapped;
    return all;
}

} // namespace

void Endpoint::map(int registryNumber, std::string const& host, unsigned int port) {
    Mapped& all = mapped();
    Synchronized const holding(all.lock);
    all.endpoints.insert_or_assign(registryNumber, Endpoint{host, port});
}

void Endpoint::unmap(int registryNumber) {
    Mapped& all = mapped();
    Synchronized const holding(all.lock);
    all.endpoints.erase(registryNumber);
}

Endpoint Endpoint::of(int registryNumber) {
    Mapped& all = mapped();
    Synchronized const holding(all.lock);
    auto const found = all.endpoints.find(registryNumber);
    if (found == all.endpoints.end()) {
        return {"127.0.0.1", static_cast<unsigned int>(registryNumber)};
    }
    return found->second;
}

std::string Endpoint::asString() const {
    return SocketAddress(IPAddress(host), port).asString();
}

} // namespace Vellum::IPC
