#include "mmsreputation/Configuration.h"

#include "foundation/Exception.h"
#include "mmsreputation/LogCodes.h"

namespace Vellum::MMSReputation {
namespace {

constexpr unsigned int noConfigurationLine = 18; // promised to log readers

} // namespace

std::atomic<Configuration*> Configuration::s_instance{nullptr};

Configuration* Configuration::instance() {
    if (Configuration* const installed = s_instance) {
        return installed;
    }
    // The text names another family's class; log readers know it so.
    throw Exception("EndpointReputation::Configuration", Exception::failure, Source::database, noConfigurationLine)
        .stringParameter("Reputation::Configuration is null");
}

Configuration* StubConfiguration::instance() {
    if (Configuration* const installed = s_instance) {
        return installed;
    }
    static StubConfiguration& stub = *new StubConfiguration; // for the rest of the process, installed or not
    Configuration* installed = nullptr;
    if (s_instance.compare_exchange_strong(installed, &stub)) {
        installed = &stub;
    }
    return installed;
}

} // namespace Vellum::MMSReputation
