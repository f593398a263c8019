// What the command line says of reputation list, reputation show and reputation set-state.
#pragma once

#include "tools/vellumctl/RateArguments.h"
#include "tools/vellumctl/ReputationCommands.h"

#include <string>

namespace Vellum::Tools {

// As text; checked once the command line is whole.
struct ReputationWords {
    std::string address; // of show and set-state
    std::string state;
    std::string network;
    std::string minScore;
};

// All throw Failure (usage).
ReputationListRequest reputationListRequest(ReputationWords const& words, ListingWords const& listing,
                                            ReputationStyle const& style);
ReputationShowRequest reputationShowRequest(ReputationWords const& words, ReputationStyle const& style);
ReputationSetRequest reputationSetRequest(ReputationWords const& words, bool json);

} // namespace Vellum::Tools
