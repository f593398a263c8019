// The command line of vellumctl.
#pragma once

#include "tools/vellumctl/DaemonConnection.h"
#include "tools/vellumctl/EndpointCommands.h"
#include "tools/vellumctl/EndpointLists.h"
#include "tools/vellumctl/ListCommand.h"
#include "tools/vellumctl/MessageCommands.h"
#include "tools/vellumctl/RateCommands.h"
#include "tools/vellumctl/ReputationCommands.h"
#include "tools/vellumctl/TopCommand.h"

#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace Vellum::Tools {

enum class Command {
    status,
    top,
    list,
    reload,
    acceptEmpty,
    backup,
    restore,
    rateList,
    rateShow,
    endpointList,
    endpointShow,
    endpointRemove,
    endpointReload,
    endpointAcceptEmpty,
    endpointScores,
    endpointListAdd,
    endpointListRemove,
    endpointListShow,
    reputationList,
    reputationShow,
    reputationSetState,
    reputationReload,
    reputationAcceptEmpty,
    explain,
    release,
    rateReset
};

struct Arguments {
    Command command = Command::status;
    std::string name; // of the command, as typed: "greylist list"
    DaemonPlace place;
    bool json = false;
    TopRequest top;                       // of Command::top
    ListRequest list;                     // of Command::list
    std::string path;                     // of Command::restore; absolute
    bool yes = false;                     // of Command::restore
    RateListRequest rateList;             // of Command::rateList
    RateShowRequest rateShow;             // of Command::rateShow
    ReputationListRequest reputationList; // of Command::reputationList
    ReputationShowRequest reputationShow; // of Command::reputationShow
    ReputationSetRequest reputationSet;   // of Command::reputationSetState

    EndpointListRequest endpointList;                 // of Command::endpointList
    EndpointScoresRequest endpointScores;             // of Command::endpointScores
    EndpointStyle endpointStyle;                      // of the other endpoint commands
    std::vector<std::string> endpoints;               // subscriber numbers, of those that take any
    EndpointList namedList = EndpointList::blacklist; // of Command::endpointListAdd, ...Remove, ...Show
    MessageRequest message;                           // of Command::explain, release, rateReset
    std::string settings;                             // path, of the endpoint commands that need the database
};

// Nothing when the command line asked for help or the version, which is then written to `out`.
// Throws Failure (usage) with what is wrong with it; its text is the whole line, the command's name included.
std::optional<Arguments> parseArguments(int count, char const* const* values, std::ostream& out);

} // namespace Vellum::Tools
