// Runs a program of the administrator's, without a shell and not for long.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace Vellum::Daemon {

struct CommandOutcome {
    enum class End {
        exited,     // number: its status
        signalled,  // number: of the signal that ended it
        tooLong,    // it was killed; number: 0
        notStarted, // number: the system's error
    };
    End end = End::notStarted;
    int number = 0;

    bool hasSucceeded() const { return end == End::exited && number == 0; }
    // "ended with status 3", "was ended by signal 9 (Killed)", "took longer than 10 s and was killed", "cannot be
    // started: No such file or directory"; `limit` as it was given.
    std::string asString(std::chrono::milliseconds limit) const;
};

// `words`: the program's path and its arguments. It gets `environment` ("NAME=VALUE") and this process's own but for
// the names that stand there, no descriptors, nothing as its input, no blocked signals, and a process group of its own,
// which is killed as a whole when the limit is over. What it writes is lost.
//
// Waits for its end. Several may run at once, from any thread. Never throws but std::bad_alloc.
CommandOutcome runCommand(std::vector<std::string> const& words, std::chrono::milliseconds limit,
                          std::vector<std::string> const& environment = {});

} // namespace Vellum::Daemon
