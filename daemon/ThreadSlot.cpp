#include "daemon/ThreadSlot.h"

#include "foundation/Locks.h"

#include <bitset>

namespace Vellum::Daemon {
namespace {

class Slots {
  public:
    unsigned int take() {
        Synchronized const hold(m_lock);
        unsigned int number = 0;
        while (number < ThreadSlot::own && m_taken[number]) {
            ++number;
        }
        m_taken[number] = true;
        return number;
    }
    void giveBack(unsigned int number) {
        Synchronized const hold(m_lock);
        m_taken[number] = false;
    }

  private:
    Mutex m_lock;
    std::bitset<ThreadSlot::count> m_taken VELLUM_GUARDED_BY(m_lock);
};

Slots& slots() {
    static Slots& all = *new Slots; // the milter library's threads may outlive main()
    return all;
}

struct Lease {
    Lease() : number(slots().take()) {}
    ~Lease() { slots().giveBack(number); }
    Lease(Lease const&) = delete;
    Lease& operator=(Lease const&) = delete;

    unsigned int const number;
};

} // namespace

unsigned int ThreadSlot::current() {
    thread_local Lease const lease;
    return lease.number;
}

} // namespace Vellum::Daemon
