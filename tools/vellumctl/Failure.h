// How vellumctl ends.
#pragma once

#include <stdexcept>
#include <string>

namespace Vellum::Tools {

// Promised to scripts; --help lists them.
enum class ExitCode : int {
    done = 0,
    failed = 1,     // the daemon refused, the operation failed, or the output could not be written
    usage = 2,      // the command line is wrong
    noDaemon = 3,   // nothing listens on the port, or the daemon does not serve this user
    incomplete = 4, // the connection ended before the last unit: the result is not whole
};

// Ends the command; the text goes to standard error behind the command's name.
class Failure : public std::runtime_error {
  public:
    Failure(ExitCode exitCode, std::string const& text) : std::runtime_error(text), m_exitCode(exitCode) {}

    ExitCode exitCode() const { return m_exitCode; }

  private:
    ExitCode m_exitCode;
};

} // namespace Vellum::Tools
