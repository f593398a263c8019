#include "foundation/ipc/Handler.h"

#include "foundation/Logger.h"
#include "foundation/RecordFormats.h"

namespace Vellum::IPC {

void HandlerImpl::logRefusal(std::uint32_t code, char const* source, int line) {
    Logger::instance(false).log(code, 0, formatSourceLine, source, line);
}

void HandlerImpl::logWrongType(HandlerRecords const& records) {
    if (records.signature == nullptr) {
        logRefusal(records.wrongType, records.source, records.line);
    } else {
        Logger::instance(false).log(records.wrongType, 0, formatSignatureSourceLine, records.signature, records.source,
                                    records.line);
    }
}

void HandlerImpl::logFailure(HandlerRecords const& records, Exception const& failed) {
    std::string const text = failed.asString();
    if (records.signature == nullptr) {
        Logger::instance(false).log(records.failure, 0, formatText, text.c_str());
    } else {
        Logger::instance(false).log(records.failure, 0, formatSignatureText, records.signature, text.c_str());
    }
}

} // namespace Vellum::IPC
