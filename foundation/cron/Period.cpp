#include "foundation/cron/Period.h"

#include "foundation/Exception.h"

namespace Vellum::Cron {
namespace {

unsigned int positive(unsigned int interval) {
    if (interval == 0) {
        throw Exception("Period::Period", Exception::failure, "Period")
            .stringParameter("an interval of 0 seconds never comes to an end");
    }
    return interval;
}

} // namespace

Period::Period(unsigned int interval, unsigned int offset)
    : m_interval(positive(interval)), m_offset(offset % m_interval) {}

long Period::latestUntil(long now) const {
    long const interval = m_interval;
    long const since = (now - static_cast<long>(m_offset)) % interval;
    return now - (since < 0 ? since + interval : since);
}

} // namespace Vellum::Cron
