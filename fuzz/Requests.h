// All requests of port 29001, for those that try each of them. A test compares them with what a daemon handles.
#pragma once

#include "foundation/ipc/PduType.h"

namespace Vellum::Fuzz {

// In this order, which the seeds of the target "request" rely on: new ones come last.
inline constexpr IPC::PduType requests[] = {
    IPC::PduType::listTuples,
    IPC::PduType::listExemptions,
    IPC::PduType::reloadGreylist,
    IPC::PduType::listReputations,
    IPC::PduType::reloadReputations,
    IPC::PduType::setReputationState,
    IPC::PduType::listReputationRecords,
    IPC::PduType::reloadEndpoints,
    IPC::PduType::listEndpoints,
    IPC::PduType::rebuildEndpointScores,
    IPC::PduType::removeEndpoint,
    IPC::PduType::listSenderRates,
    IPC::PduType::listSenderRateRecords,
    IPC::PduType::adminStatus,
    IPC::PduType::adminBackup,
    IPC::PduType::adminRestore,
    IPC::PduType::adminAcceptEmpty,
    IPC::PduType::adminExplain,
    IPC::PduType::adminRelease,
    IPC::PduType::adminResetRate,
    IPC::PduType::adminMetrics,
};

} // namespace Vellum::Fuzz
