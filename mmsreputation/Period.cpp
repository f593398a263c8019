#include "mmsreputation/Period.h"

#include "foundation/Exception.h"
#include "mmsreputation/Configuration.h"
#include "mmsreputation/LogCodes.h"

#include <ctime>

namespace Vellum::MMSReputation {
namespace {

constexpr unsigned int badWindowLine = 26; // promised to log readers

} // namespace

std::atomic<std::uint32_t> Period::s_divisor{0};

Period::Period(long time, unsigned int windowSize, unsigned int numberRecords) {
    if (windowSize == 0) {
        windowSize = Configuration::instance()->windowSize();
    }
    std::uint32_t const divisor = numberRecords == 0 ? 0 : windowSize / numberRecords;
    if (divisor == 0) {
        throw Exception("EndpointReputation::Period", Exception::failure, Source::reputation, badWindowLine)
            .stringParameter("WindowSize or Number records is zero");
    }
    long const seconds = time == 0 ? std::time(nullptr) : time;
    index = static_cast<std::uint32_t>(seconds / 60 / static_cast<std::int64_t>(divisor));
    s_divisor = divisor;
}

} // namespace Vellum::MMSReputation
