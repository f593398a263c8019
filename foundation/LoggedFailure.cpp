#include "foundation/LoggedFailure.h"

#include "foundation/Logger.h"
#include "foundation/RecordFormats.h"

namespace Vellum {

void logFailure(std::uint32_t code, Exception const& failed) {
    Logger::instance(false).log(code, 0, formatText, failed.asString().c_str());
}

void logFailure(std::uint32_t code, char const* source, int line, Exception const& failed) {
    Logger::instance(false).log(code, 0, formatSourceLineText, source, line, failed.asString().c_str());
}

} // namespace Vellum
