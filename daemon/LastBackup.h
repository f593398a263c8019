// The backup at the daemon's end, of one family of state.
#pragma once

#include <functional>
#include <string>

namespace Vellum::Daemon {

struct LastBackup {
    std::string of;      // for messages: "" or " of sender reputation"
    bool enabled = true; // by the settings
    std::string problem; // why it must not be made; empty: it may

    // Makes it; throws std::exception when the server is away. The other one then leaves the script with the database
    // daemon, which runs it when the server is back.
    std::function<void()> take;
    std::function<void()> takeWithoutServer;
    // What came of it: what the script holds, or why the database daemon has none.
    struct Outcome {
        bool accepted = false;
        std::string text;
    };
    std::function<Outcome()> outcome;
};

// Says in the log what came of it, or why none was made. Waits for the database daemon.
void takeLastBackup(LastBackup const& backup);

// All of the process's caches; the scripts of both reputations are written to `path`.
LastBackup lastGreylistBackup();
LastBackup lastReputationBackup(std::string const& path);
LastBackup lastEndpointBackup(std::string const& path);

} // namespace Vellum::Daemon
