// One record of a listing, and what it says of its mail.
#pragma once

#include "foundation/IPAddressMask.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace Vellum::Tools {

// Which listing a record belongs to.
enum class Listed { tuples, exemptions };

// Judged by the record's times and the clock. `expired` wins over the others: the daemon forgets such a record when it
// meets it next.
enum class State {
    waiting, // tuple: the delay is not over, mail is deferred
    passed,  // tuple: the delay is over, mail may pass; whether any came, the record does not tell
    active,  // exemption: mail need not wait
    expired,
};
std::string_view stateText(State state);

struct Record {
    IPAddressMask network;
    std::string sender;    // as the daemon has it, cut at 256 bytes, "" for the null sender; the domain of an exemption
    std::string recipient; // tuples only
    bool passed = false;   // tuples only: the delay was over when the listing began
    std::int64_t passTime = 0; // tuples only: from when on mail may pass, seconds since the epoch
    std::int64_t expiry = 0;   // seconds since the epoch

    // Takes over the payload of a tupleRecord or exemptionRecord unit (greylist/GlDisplay.h has its layout), keeping
    // the memory of the texts. Throws Exception when the payload is none.
    void decode(std::string_view payload);

    // `now` in seconds since the epoch. A tuple still lives at its expiry, an exemption does not.
    State stateAt(std::int64_t now, Listed listed) const;
};

// A mailbox as people write it: the null sender is "<>".
inline std::string_view mailboxText(std::string_view address) {
    return address.empty() ? "<>" : address;
}

} // namespace Vellum::Tools
