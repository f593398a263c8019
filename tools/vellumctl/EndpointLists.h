// endpoint blacklist, exempt and scores: what needs the database, through the exported C functions.
//
// The account comes from the daemon's own settings file, so only those who may read it get in.
#pragma once

#include "tools/vellumctl/DaemonConnection.h"
#include "tools/vellumctl/EndpointCommands.h"

#include <string>
#include <vector>

namespace Vellum::Tools {

enum class EndpointList { blacklist, exempt };

// Where the database and the daemon are.
struct EndpointPlaces {
    DaemonPlace daemon;
    std::string settings; // path of the daemon's settings file; only [database] is read
};

// All throw Failure.

// `numbers` are subscriber numbers. A daemon that cannot be told to read the list again is said on standard error and
// is no failure: it reads it at its next start.
void addToEndpointList(EndpointPlaces const& places, EndpointList list, std::vector<std::string> const& numbers,
                       Output& output);
void removeFromEndpointList(EndpointPlaces const& places, EndpointList list, std::vector<std::string> const& numbers,
                            Output& output);
// Shows what stands in the list's own table, in ascending order. JSON: an array of numbers.
void showEndpointList(EndpointPlaces const& places, EndpointList list, EndpointStyle const& style, Output& output);

struct EndpointScoresRequest {
    EndpointStyle style;
    int sortBy = 0; // as the C interface has it
    int limit = 0;  // 0: all
};
// Has the daemon dump its scores into their table, and shows that. A row whose number is none is said on standard error
// and is no failure.
void showEndpointScores(EndpointPlaces const& places, EndpointScoresRequest const& request, Output& output);

} // namespace Vellum::Tools
