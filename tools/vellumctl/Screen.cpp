#include "tools/vellumctl/Screen.h"

#include "tools/vellumctl/Failure.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>

namespace Vellum::Tools {
namespace {

constexpr std::string_view enter = "\x1b[?1049h\x1b[?25l"; // the other screen, no cursor
constexpr std::string_view leave = "\x1b[?25h\x1b[?1049l";
constexpr std::array<int, 4> endings{SIGINT, SIGTERM, SIGHUP, SIGQUIT};
constexpr int statusOfSignals = 128;

termios before; // as the terminal was found; set before any handler is

void restore() {
    [[maybe_unused]] ssize_t const written = ::write(STDOUT_FILENO, leave.data(), leave.size());
    ::tcsetattr(STDIN_FILENO, TCSANOW, &before);
}

// Nothing here but what a signal handler may call.
void endProcess(int signal) {
    restore();
    ::_exit(signal == SIGINT ? 0 : statusOfSignals + signal);
}

void wakeUp(int) {}

void handle(int signal, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    ::sigaction(signal, &action, nullptr);
}

void writeAll(std::string_view text) {
    while (!text.empty()) {
        ssize_t const written = ::write(STDOUT_FILENO, text.data(), text.size());
        if (written < 0 && errno != EINTR) {
            throw Failure(ExitCode::failed, std::string("the terminal cannot be written to: ") + std::strerror(errno));
        }
        text.remove_prefix(written < 0 ? 0 : static_cast<std::size_t>(written));
    }
}

// The terminal and its signals, as they were found.
void giveBack() {
    restore();
    for (int const signal : endings) {
        handle(signal, SIG_DFL);
    }
    handle(SIGWINCH, SIG_DFL);
}

bool continuesCharacter(char c) {
    return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U;
}

} // namespace

std::string pageFor(std::string const& text, std::size_t lines, std::size_t columns) {
    std::string page = "\x1b[H";
    std::string_view rest = text;
    for (std::size_t line = 0; line < lines && !rest.empty(); ++line) {
        std::string_view const whole = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(whole.size() + 1, rest.size()));
        std::size_t end = 0;
        for (std::size_t shown = 0; end < whole.size() && (continuesCharacter(whole[end]) || shown < columns); ++end) {
            shown += continuesCharacter(whole[end]) ? 0 : 1;
        }
        page += line == 0 ? "" : "\r\n";
        page += whole.substr(0, end);
        page += "\x1b[K";
    }
    return page + "\x1b[J";
}

Screen::Screen() {
    if (::isatty(STDIN_FILENO) == 0 || ::isatty(STDOUT_FILENO) == 0 || ::tcgetattr(STDIN_FILENO, &before) != 0) {
        throw Failure(ExitCode::usage, "there is no terminal: --once prints one page without");
    }
    for (int const signal : endings) {
        handle(signal, endProcess);
    }
    handle(SIGWINCH, wakeUp);
    termios raw = before;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    raw.c_cc[VMIN] = 0;
    raw.c_cc[VTIME] = 0;
    raw.c_cc[VSUSP] = _POSIX_VDISABLE; // stopped, it would leave the terminal like this
    ::tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    try {
        writeAll(enter);
    } catch (...) { // there is no Screen whose end would restore it
        giveBack();
        throw;
    }
}

Screen::~Screen() {
    giveBack();
}

void Screen::show(std::string const& text) {
    winsize size{};
    bool const known = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0;
    writeAll(known ? pageFor(text, size.ws_row, size.ws_col) : pageFor(text, 24, 80));
}

int Screen::awaitKey(std::chrono::milliseconds limit) {
    pollfd waiting{STDIN_FILENO, POLLIN, 0};
    if (::poll(&waiting, 1, static_cast<int>(limit.count())) <= 0) {
        return 0;
    }
    char key = 0;
    ssize_t const got = ::read(STDIN_FILENO, &key, 1);
    if (got == 0 && (waiting.revents & POLLHUP) != 0) {
        throw Failure(ExitCode::failed, "the terminal is gone");
    }
    return got == 1 ? static_cast<unsigned char>(key) : 0;
}

} // namespace Vellum::Tools
