#include "reputation/Configuration.h"

#include "foundation/Exception.h"
#include "reputation/LogCodes.h"

namespace Vellum::Reputation {
namespace {

// Promised to log readers.
constexpr unsigned int noConfigurationLine = 14;
constexpr char const* signature =
    "static Vellum::Reputation::Configuration* Vellum::Reputation::Configuration::instance()";

} // namespace

std::atomic<Configuration*> Configuration::s_instance{nullptr};

Configuration* Configuration::instance() {
    if (Configuration* const installed = s_instance) {
        return installed;
    }
    throw Exception(signature, Exception::failure, Source::entry, noConfigurationLine)
        .stringParameter("Reputation::Configuration is null");
}

} // namespace Vellum::Reputation
