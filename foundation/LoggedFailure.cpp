#include "foundation/LoggedFailure.h"

#include "foundation/Logger.h"
#include "foundation/RecordFormats.h"
#include "foundation/RepeatedFailures.h"

#include <string>

namespace Vellum {

void logFailure(std::uint32_t code, Exception const& failed) {
    std::string const text = failed.asString();
    if (!RepeatedFailures::isRepeated(code, text)) {
        Logger::instance(false).log(code, 0, formatText, text.c_str());
    }
}

void logFailure(std::uint32_t code, char const* source, int line, Exception const& failed) {
    std::string const text = failed.asString();
    if (!RepeatedFailures::isRepeated(code, text)) {
        Logger::instance(false).log(code, 0, formatSourceLineText, source, line, text.c_str());
    }
}

} // namespace Vellum
