#include "reputation/ReputationHandlers.h"

#include "foundation/IPAddress.h"
#include "foundation/Logger.h"
#include "foundation/ipc/Dispatcher.h"
#include "reputation/LogCodes.h"
#include "reputation/ReputationDatabase.h"
#include "reputation/ReputationEntry.h"

namespace Vellum::Reputation {
namespace {

// Lines are promised to log readers.
constexpr IPC::HandlerRecords setStateRecords{LogCode::setStateWrongType, LogCode::setStateFailed, Source::handlers,
                                              34};
constexpr int lengthLine = 46;
constexpr int rangeLine = 53;
constexpr IPC::HandlerRecords reloadRecords{LogCode::reloadWrongType, LogCode::reloadFailed, Source::handlers, 105};

} // namespace

UpdatedHandler::UpdatedHandler() : HandlerImpl(IPC::PduType::reloadReputations, true) {}

int UpdatedHandler::task(IPC::SocketIPC&, IPC::Pdu const& request) const {
    return guarded(request, reloadRecords, [] {
        Database database(Vellum::Database::Connection::defaultAddress());
        database.read();
        Logger::instance(false).log(LogCode::reloadDone, 0, formatText, " ");
    });
}

SetStateHandler::SetStateHandler() : HandlerImpl(IPC::PduType::setReputationState, false) {}

int SetStateHandler::task(IPC::SocketIPC&, IPC::Pdu const& request) const {
    return guarded(request, setStateRecords, [&] {
        auto const wanted = IPC::payloadAs<SetStateRequest>(request);
        if (!wanted || request.data().length() != sizeof *wanted) {
            logRefusal(LogCode::setStateLength, Source::handlers, lengthLine);
            return -1;
        }
        if (wanted->state > highestState) { // negative ones pass
            logRefusal(LogCode::setStateRange, Source::handlers, rangeLine);
            return -1;
        }
        std::string const address = IPAddress(wanted->address, true).asString(true);
        Logger::instance(false).log(LogCode::setStateDone, 0, formatText, address.c_str());
        return 0;
    });
}

void addUpdatedHandler() {
    IPC::addHandler<UpdatedHandler>();
}

void addSetStateHandler() {
    IPC::addHandler<SetStateHandler>();
}

} // namespace Vellum::Reputation
