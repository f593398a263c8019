// The command line of vellumctl.
#pragma once

#include "tools/vellumctl/DaemonConnection.h"
#include "tools/vellumctl/ListCommand.h"
#include "tools/vellumctl/RateCommands.h"

#include <optional>
#include <ostream>
#include <string>

namespace Vellum::Tools {

enum class Command { status, list, reload, acceptEmpty, backup, restore, rateList, rateShow };

struct Arguments {
    Command command = Command::status;
    std::string name; // of the command, as typed: "greylist list"
    DaemonPlace place;
    bool json = false;
    ListRequest list;         // of Command::list
    std::string path;         // of Command::restore; absolute
    bool yes = false;         // of Command::restore
    RateListRequest rateList; // of Command::rateList
    RateShowRequest rateShow; // of Command::rateShow
};

// Nothing when the command line asked for help or the version, which is then written to `out`.
// Throws Failure (usage) with what is wrong with it; its text is the whole line, the command's name included.
std::optional<Arguments> parseArguments(int count, char const* const* values, std::ostream& out);

} // namespace Vellum::Tools
