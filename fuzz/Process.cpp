#include "fuzz/Process.h"

#include "foundation/database/ServerMap.h"

namespace Vellum::Fuzz {
namespace {

struct EmptySource : MMSReputation::EntrySource {
    void read(MMSReputation::RefCache&, unsigned int) override {}
};

} // namespace

Process& Process::instance() {
    static Process& process = *new Process; // as the caches, never destroyed
    process.startAfresh();
    return process;
}

Process::Process() {
    Database::Server nobody;
    nobody.socket = "/nonexistent/server.sock";
    Database::ServerMap::instance().install(nobody);
}

void Process::startAfresh() {
    (**GreyList::TupleCache::instance()).clear();
    (**GreyList::DynamicExemptCache::instance()).clear();
    (**Reputation::RefCache::instance()).clear();
    (**SenderRateControl::RefCache::instance()).clear();
    EmptySource nothing;
    MMSReputation::RefCache::instance(&nothing, MMSReputation::Select::everything);
}

} // namespace Vellum::Fuzz
