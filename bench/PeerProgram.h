// A policy server of another package, run privately for as long as a benchmark wants it.
#pragma once

#include "bench/ServerProcess.h"

#include <string>
#include <vector>

namespace Vellum::Bench {

struct PeerProgram {
    std::vector<std::string> command; // the first word is the path of the program
    std::string directory;            // where it runs; its output goes to the file "output" there
    Daemon::ListenAddress address;    // it is ready once this accepts connections
    // Where the program reads its configuration from a fixed directory only: that directory, and what it is to find
    // there instead. Nobody but the program sees the exchange.
    std::string fixedDirectory;
    std::string ownDirectory;

    // Why it cannot be run here, or empty: it is not installed, or this process is not root's.
    std::string missing() const;
};

// Starts the program in a process namespace of its own, so that it ends with this process however many children it
// makes, whose user it becomes and whether it goes to the background or not. For the body of a ServerProcess: tells
// `ready` once it accepts connections, and returns when the process is asked to end (SIGTERM); by then nothing of the
// program is left. Throws Exception with the end of its output when it does not come up within twenty seconds.
void runPeer(PeerProgram const& program, ServerProcess::Ready const& ready);

} // namespace Vellum::Bench
