// What the command line says of rate list and rate show.
#pragma once

#include "tools/vellumctl/RateCommands.h"

#include <string>

namespace Vellum::Tools {

// As text; checked once the command line is whole.
struct RateWords {
    std::string sender; // of list a pattern, of show a mailbox
    std::string reason;
    bool blocked = false;
    bool active = false;
};

// What both listings and this one share.
struct ListingWords {
    std::string limit;
    std::string sort;
    bool reverse = false;
};

// Both throw Failure (usage).
RateListRequest rateListRequest(RateWords const& words, ListingWords const& listing, RateStyle const& style);
RateShowRequest rateShowRequest(RateWords const& words, RateStyle const& style);

} // namespace Vellum::Tools
