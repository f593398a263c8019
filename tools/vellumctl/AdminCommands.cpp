#include "tools/vellumctl/AdminCommands.h"

#include "tools/vellumctl/Failure.h"
#include "tools/vellumctl/StatusText.h"

#include <ctime>
#include <iostream>
#include <unistd.h>

namespace Vellum::Tools {
namespace {

// A number of a progress unit; 0 for whatever else stands there.
std::uint64_t countIn(Json const& progress, char const* key) {
    auto const found = progress.find(key);
    return found != progress.end() && found->is_number_unsigned() ? found->get<std::uint64_t>() : 0;
}

constexpr char const* untouched = "What could not be loaded is as it was before, and backups stay off.";

// Asks on standard error, so that standard output holds nothing but the result.
bool confirmed() {
    std::cerr << "Restore it? [y/N] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "y" || answer == "Y" || answer == "yes";
}

} // namespace

void AdminCommands::writeJson(Json const& answer) {
    m_output.write(prettyJson(answer));
    m_output.flush();
}

void AdminCommands::writeText(std::string const& text) {
    m_output.write(text);
    m_output.flush();
}

void AdminCommands::settle(Json const& answer) {
    if (m_json) {
        writeJson(answer);
    }
    failOnError(answer);
}

void AdminCommands::status() {
    DaemonConnection daemon(m_place);
    Json const answer = daemon.ask(IPC::PduType::adminStatus);
    settle(answer);
    if (!m_json) {
        writeText(statusText(answer, std::time(nullptr)));
    }
}

void AdminCommands::backup() {
    DaemonConnection daemon(m_place);
    Json const answer = daemon.ask(IPC::PduType::adminBackup);
    settle(answer);
    if (!m_json) {
        writeText(acceptedBackupText(answer));
    }
}

void AdminCommands::acceptEmpty(std::string const& family) {
    DaemonConnection daemon(m_place);
    Json const answer = daemon.ask(IPC::PduType::adminAcceptEmpty, {{"family", family}});
    settle(answer);
    if (!m_json) {
        writeText(acceptedText(answer));
    }
}

Json AdminCommands::statusAfterReload(DaemonConnection& daemon) {
    try {
        return daemon.ask(IPC::PduType::adminStatus);
    } catch (Failure const&) {
        // The daemon ends the connection of a request that failed altogether.
    }
    DaemonConnection again(m_place);
    Json const status = again.ask(IPC::PduType::adminStatus);
    if (m_json) {
        writeJson(status);
    }
    throw Failure(ExitCode::failed, "the daemon could not reload, its log says why; most likely the database cannot be "
                                    "reached");
}

void AdminCommands::reload() {
    reload({IPC::PduType::reloadGreylist, "greylist", untouched, loadProblem, loadedText});
}

void AdminCommands::reloadReputation() {
    reload({IPC::PduType::reloadReputations, "reputation", untouched, reputationLoadProblem, reputationLoadedText});
}

void AdminCommands::reloadEndpoints() {
    reload({IPC::PduType::reloadEndpoints, "endpoint",
            "What comes behind it is not in memory, and loading is tried again every minute; while entries are missed, "
            "backups of endpoints stay off.",
            endpointLoadProblem, endpointLoadedText});
}

void AdminCommands::reload(Reload const& which) {
    DaemonConnection daemon(m_place);
    daemon.ask(IPC::PduType::adminStatus); // a daemon that does not serve us says so now, not after the reload
    daemon.send(which.request);
    Json const status = statusAfterReload(daemon);
    settle(status);
    std::string const problem = which.problem(status);
    if (!problem.empty()) {
        throw Failure(ExitCode::failed, problem + "\n" + which.missed +
                                            " Correct the row and reload, or give the table's rows up with "
                                            "\"vellumctl " +
                                            which.family + " accept-empty\".");
    }
    if (!m_json) {
        writeText(which.loaded(status) + "\n");
    }
}

void AdminCommands::restore(RestoreRequest const& request, ProgressBar& bar) {
    if (!request.yes && (::isatty(STDIN_FILENO) == 0 || ::isatty(STDERR_FILENO) == 0)) {
        throw Failure(ExitCode::usage, "there is no terminal to ask on: say --yes to restore without being asked");
    }
    DaemonConnection daemon(m_place);
    Json const preview = daemon.ask(IPC::PduType::adminRestore, {{"path", request.path}, {"dry_run", true}});
    if (!errorIn(preview).empty()) {
        settle(preview);
    }
    std::string const text = previewText(preview, std::time(nullptr));
    if (m_json) {
        std::cerr << text << std::flush;
    } else {
        writeText(text);
    }
    if (!request.yes && !confirmed()) {
        throw Failure(ExitCode::failed, "not restored");
    }
    Json const outcome = daemon.ask(IPC::PduType::adminRestore, {{"path", request.path}}, [&](Json const& progress) {
        bar.update(countIn(progress, "done"), countIn(progress, "total"));
    });
    bar.erase();
    settle(outcome);
    if (!m_json) {
        writeText(restoredText(outcome));
    }
}

} // namespace Vellum::Tools
