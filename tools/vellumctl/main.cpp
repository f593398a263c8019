// The administrator's hand on the state daemon. It knows of it what port 29001 and the exported C functions tell, and
// reads one list of the database for which there is no such function.
#include "foundation/Exception.h"
#include "foundation/Privileges.h"
#include "tools/vellumctl/AdminCommands.h"
#include "tools/vellumctl/Arguments.h"
#include "tools/vellumctl/Failure.h"

#include <csignal>
#include <iostream>
#include <unistd.h>

namespace Vellum::Tools {
namespace {

// The endpoint commands that speak to the daemon alone.
void runEndpoint(DaemonConnection& daemon, Arguments const& arguments, Output& output, ProgressBar& bar) {
    switch (arguments.command) {
    case Command::endpointList:
        listEndpoints(daemon, arguments.endpointList, output, bar);
        break;
    case Command::endpointShow:
        showEndpoint(daemon, arguments.endpoints.front(), arguments.endpointStyle, output);
        break;
    default:
        removeEndpoint(daemon, arguments.endpoints.front(), output);
    }
}

void runEndpoint(Arguments const& arguments, Output& output, ProgressBar& bar) {
    EndpointPlaces const places{arguments.place, arguments.settings};
    switch (arguments.command) {
    case Command::endpointScores:
        showEndpointScores(places, arguments.endpointScores, output);
        break;
    case Command::endpointListAdd:
        addToEndpointList(places, arguments.namedList, arguments.endpoints, output);
        break;
    case Command::endpointListRemove:
        removeFromEndpointList(places, arguments.namedList, arguments.endpoints, output);
        break;
    case Command::endpointListShow:
        showEndpointList(places, arguments.namedList, arguments.endpointStyle, output);
        break;
    default: {
        DaemonConnection daemon(arguments.place);
        runEndpoint(daemon, arguments, output, bar);
    }
    }
}

void run(Arguments const& arguments) {
    Output output(STDOUT_FILENO);
    bool const lists = arguments.command == Command::list || arguments.command == Command::rateList ||
                       arguments.command == Command::endpointList || arguments.command == Command::reputationList;
    ProgressBar bar(standardErrorTerminal(), lists ? "records" : "bytes");
    if (::isatty(STDOUT_FILENO) != 0) {
        output.beforeWriting([&bar] { bar.erase(); });
    }
    AdminCommands commands(arguments.place, arguments.json, output);
    switch (arguments.command) {
    case Command::list: {
        DaemonConnection daemon(arguments.place);
        list(daemon, arguments.list, output, bar);
        break;
    }
    case Command::rateList: {
        DaemonConnection daemon(arguments.place);
        listRates(daemon, arguments.rateList, output, bar);
        break;
    }
    case Command::rateShow: {
        DaemonConnection daemon(arguments.place);
        showRate(daemon, arguments.rateShow, output);
        break;
    }
    case Command::reputationList: {
        DaemonConnection daemon(arguments.place);
        listReputations(daemon, arguments.reputationList, output, bar);
        break;
    }
    case Command::reputationShow: {
        DaemonConnection daemon(arguments.place);
        showReputation(daemon, arguments.reputationShow, output);
        break;
    }
    case Command::reputationSetState: {
        DaemonConnection daemon(arguments.place);
        setReputationState(daemon, arguments.reputationSet, output);
        break;
    }
    case Command::explain: {
        DaemonConnection daemon(arguments.place);
        explain(daemon, arguments.message, output);
        break;
    }
    case Command::release: {
        DaemonConnection daemon(arguments.place);
        release(daemon, arguments.message, output);
        break;
    }
    case Command::rateReset: {
        DaemonConnection daemon(arguments.place);
        resetRate(daemon, arguments.message, output);
        break;
    }
    case Command::reputationReload:
        commands.reloadReputation();
        break;
    case Command::reputationAcceptEmpty:
        commands.acceptEmpty("reputation");
        break;
    case Command::endpointReload:
        commands.reloadEndpoints();
        break;
    case Command::endpointAcceptEmpty:
        commands.acceptEmpty("endpoint");
        break;
    case Command::top:
        showTop(arguments.place, arguments.top, output);
        break;
    case Command::status:
        commands.status();
        break;
    case Command::reload:
        commands.reload();
        break;
    case Command::acceptEmpty:
        commands.acceptEmpty("greylist");
        break;
    case Command::backup:
        commands.backup();
        break;
    case Command::restore:
        commands.restore({arguments.path, arguments.yes}, bar);
        break;
    default:
        runEndpoint(arguments, output, bar);
    }
}

ExitCode report(std::string const& line, ExitCode exitCode) {
    std::cerr << line << "\n";
    return exitCode;
}

ExitCode runGuarded(Arguments const& arguments) {
    std::string const name = "vellumctl " + arguments.name + ": ";
    try {
        run(arguments);
        return ExitCode::done;
    } catch (Failure const& failed) {
        return report(name + failed.what(), failed.exitCode());
    } catch (Json::exception const& failed) {
        return report(name + "the daemon's answer is not what was expected: " + failed.what(), ExitCode::incomplete);
    } catch (std::exception const& failed) {
        return report(name + failed.what(), ExitCode::failed);
    }
}

ExitCode main(int count, char const* const* values) {
    try {
        closeMemory(); // the daemon's settings, which some commands read, hold the database's password
        std::optional<Arguments> const arguments = parseArguments(count, values, std::cout);
        return arguments ? runGuarded(*arguments) : ExitCode::done;
    } catch (Failure const& wrong) {
        return report(wrong.what(), wrong.exitCode());
    } catch (Exception const& wrong) {
        return report(wrong.asString(), ExitCode::failed);
    }
}

} // namespace
} // namespace Vellum::Tools

int main(int count, char** values) {
    std::signal(SIGPIPE, SIG_IGN); // a reader that goes away is seen at the write
    return static_cast<int>(Vellum::Tools::main(count, values));
}
