// The types of the units that travel on the state daemon's port. This is their only home.
//
// A request without an answer in its line is not answered: the connection just takes the next request.
#pragma once

#include <cstdint>

namespace Vellum::IPC {

// The number under which the state daemon's dispatcher is registered, and the TCP port where it listens unless the
// settings say otherwise.
inline constexpr int stateDaemonPort = 29001;

enum class PduType : std::uint32_t {
    receiveBuffer = 0, // never sent; what an empty unit carries until something was received into it
    count = 3,         // reply, one int32: how many records of a listing follow
    endOfListing = 4,  // both ways, empty; from a client during a listing: "stop sending"

    // Greylisting
    listTuples = 5,      // request, empty; answered by a count, tupleRecord units, endOfListing
    tupleRecord = 6,     // reply, one GreyList::Packet (560 bytes)
    listExemptions = 7,  // request, empty; answered by a count, exemptionRecord units, endOfListing
    exemptionRecord = 8, // reply, one GreyList::Packet (560 bytes)
    reloadGreylist = 9,  // request, empty

    // Sender reputation
    listReputations = 10,       // request, empty; answered by a count, reputationEntry units, endOfListing
    reputationEntry = 11,       // reply, 40 bytes
    reloadReputations = 12,     // request, empty
    setReputationState = 13,    // request, 8 bytes: IPv4 address in network order, int32 state
    listReputationRecords = 26, // request, one ip_addr_t; answered by reputationRecord units, endOfListing
    reputationRecord = 27,      // reply, 40 bytes

    // Endpoint reputation
    reloadEndpoints = 19,       // request, empty or one uint32: what to load
    listEndpoints = 20,         // request, empty; answered by a count, endpointEntry units, endOfListing
    rebuildEndpointScores = 21, // request, empty; answered by endOfListing when done
    endpointEntry = 22,         // reply, 48 bytes
    removeEndpoint = 23,        // request, the subscriber number as text

    // Sender rate control
    listSenderRates = 28,       // request, empty; answered by a count, senderRateEntry units, endOfListing
    senderRateEntry = 29,       // reply, 304 bytes
    listSenderRateRecords = 30, // request, the sender as text; answered by senderRateRecord units, endOfListing
    senderRateRecord = 31,      // reply, 28 bytes

    // The daemon itself: numbers far away from those that families share. Payloads are JSON, UTF-8; an empty request
    // is {}. Each is answered by adminReply, a long one by any number of adminProgress before it. AdminHandlers.h of
    // the daemon says what they hold.
    adminStatus = 0x564C0000,
    adminBackup = 0x564C0001,
    adminRestore = 0x564C0002,
    adminAcceptEmpty = 0x564C0003,
    adminExplain = 0x564C0004,
    adminRelease = 0x564C0005,
    adminResetRate = 0x564C0006,
    adminMetrics = 0x564C0007,
    adminReply = 0x564C0100,    // reply
    adminProgress = 0x564C0101, // reply
};

constexpr std::uint32_t number(PduType type) {
    return static_cast<std::uint32_t>(type);
}

} // namespace Vellum::IPC
