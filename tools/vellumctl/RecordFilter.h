// Which records of a listing are shown.
#pragma once

#include "foundation/StringPattern.h"
#include "tools/vellumctl/Record.h"

#include <optional>
#include <string>

namespace Vellum::Tools {

// Every condition that is set must hold. A null sender is matched as the text "<>".
struct RecordFilter {
    std::optional<IPAddressMask> network; // records whose network and this one overlap
    StringPattern sender;                 // of a tuple, or the domain of an exemption
    StringPattern recipient;
    bool waiting = false; // with none of these four set, every state is shown
    bool passed = false;
    bool active = false;
    bool expired = false;

    bool matches(Record const& record, State state) const;

  private:
    bool wants(State state) const;
};

// Whether one of the networks holds the other.
bool overlap(IPAddressMask const& one, IPAddressMask const& other);

// What --network takes: "192.0.2.7", "192.0.2.0/24", "2001:db8::/32". Throws Exception naming the text.
IPAddressMask parseNetwork(std::string const& text);

} // namespace Vellum::Tools
