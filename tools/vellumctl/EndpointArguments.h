// What the command line says of the endpoint commands.
#pragma once

#include "tools/vellumctl/EndpointCommands.h"
#include "tools/vellumctl/EndpointLists.h"
#include "tools/vellumctl/RateArguments.h"

#include <string>
#include <vector>

namespace Vellum::Tools {

// As text; checked once the command line is whole.
struct EndpointWords {
    std::string pattern;
    std::string number;
    std::vector<std::string> numbers;
    std::string settings = "/etc/vellum/vellumd.toml";
    bool blacklisted = false;
    bool scored = false;
};

// All throw Failure (usage).
EndpointListRequest endpointListRequest(EndpointWords const& words, ListingWords const& listing,
                                        EndpointStyle const& style);
EndpointScoresRequest endpointScoresRequest(ListingWords const& listing, EndpointStyle const& style);
// Digits, a + may come first, 36 characters at most: numbers go into SQL as they are given, so nothing else may get
// there.
std::string subscriberNumber(std::string const& text);

} // namespace Vellum::Tools
