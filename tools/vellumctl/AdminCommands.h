// status, backup, restore, and of a family reload and accept-empty: one question to the daemon and its answer.
#pragma once

#include "tools/vellumctl/DaemonConnection.h"
#include "tools/vellumctl/Output.h"
#include "tools/vellumctl/ProgressBar.h"

#include <string>

namespace Vellum::Tools {

struct RestoreRequest {
    std::string path; // absolute
    bool yes = false; // do not ask
};

// Each writes its result, as a JSON object when `json`, and throws Failure: `failed` with the daemon's own words when
// it refused or could not. The JSON is written all the same then.
class AdminCommands {
  public:
    AdminCommands(DaemonPlace const& place, bool json, Output& output)
        : m_place(place), m_json(json), m_output(output) {}

    void status();
    void backup();
    // The request has no answer of its own, so the status before and after tells how it went.
    void reload(); // the greylist
    void reloadReputation();
    void reloadEndpoints();
    // Of "greylist", "reputation" or "endpoint".
    void acceptEmpty(std::string const& family);
    // Tells what would be lost and, unless told otherwise, asks on the terminal first.
    void restore(RestoreRequest const& request, ProgressBar& bar);

  private:
    // Writes the answer as JSON when that is wanted; throws Failure when it holds an error.
    void settle(Json const& answer);
    void writeJson(Json const& answer);
    void writeText(std::string const& text);
    struct Reload {
        IPC::PduType request;
        std::string family;
        std::string missed;                         // what has become of what could not be loaded
        std::string (*problem)(Json const& status); // of the load; empty when there was none
        std::string (*loaded)(Json const& status);  // what was loaded
    };
    void reload(Reload const& which);
    Json statusAfterReload(DaemonConnection& daemon);

    DaemonPlace m_place;
    bool m_json;
    Output& m_output;
};

} // namespace Vellum::Tools
