// A terminal that shows one page after the other, and is left as it was found.
#pragma once

#include <chrono>
#include <string>
#include <termios.h>

namespace Vellum::Tools {

// Takes standard input and output, both terminals, for its life; one at a time. The page is on the terminal's other
// screen, so what stood there before is there again afterwards. SIGINT, SIGTERM, SIGHUP and SIGQUIT restore the
// terminal and end the process whatever it is doing, SIGINT with status 0 and the others with 128 and their number.
class Screen {
  public:
    // Throws Failure (usage) where one of them is no terminal.
    Screen();
    ~Screen();
    Screen(Screen const&) = delete;
    Screen& operator=(Screen const&) = delete;

    // Shows as much of the text as there is room for. Throws Failure when the terminal is gone.
    void show(std::string const& text);
    // Waits for a key; answers it, or 0 when none came in time or the size of the terminal has changed.
    int awaitKey(std::chrono::milliseconds limit);
};

// What show() writes: lines cut to the size of the terminal (characters of UTF-8 count as one column).
std::string pageFor(std::string const& text, std::size_t lines, std::size_t columns);

} // namespace Vellum::Tools
