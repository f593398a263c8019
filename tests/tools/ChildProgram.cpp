#include "tests/tools/ChildProgram.h"

#include "foundation/FileDescriptor.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace Vellum {
namespace {

struct Pipe {
    FileDescriptor reading;
    FileDescriptor writing;
};

Pipe makePipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

// Both ends of a terminal; the child's end is `writing`.
Pipe makeTerminal() {
    FileDescriptor master(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!master || ::grantpt(master.get()) != 0 || ::unlockpt(master.get()) != 0) {
        throw std::runtime_error("no terminal");
    }
    FileDescriptor slave(::open(::ptsname(master.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
    return {std::move(master), std::move(slave)};
}

[[noreturn]] void become(std::string const& program, std::vector<std::string> const& arguments, int in, int out,
                         int err) {
    ::dup2(in, STDIN_FILENO);
    ::dup2(out, STDOUT_FILENO);
    ::dup2(err, STDERR_FILENO);
    std::vector<char*> words{const_cast<char*>(program.c_str())};
    for (std::string const& argument : arguments) {
        words.push_back(const_cast<char*>(argument.c_str()));
    }
    words.push_back(nullptr);
    ::setenv("TZ", "UTC", 1);
    ::execv(program.c_str(), words.data());
    ::_exit(127);
}

// Appends what is there; closes the descriptor at its end.
void take(FileDescriptor& from, std::string& into) {
    std::array<char, 65536> bytes{};
    ssize_t const length = ::read(from.get(), bytes.data(), bytes.size());
    if (length > 0) {
        into.append(bytes.data(), static_cast<std::size_t>(length));
    } else {
        from.reset(); // a terminal whose other side is closed answers an error
    }
}

void readBoth(FileDescriptor& out, FileDescriptor& err, ChildOptions const& options, ChildResult& result) {
    if (options.readLines == std::size_t{0}) {
        out.reset();
    }
    while (out || err) {
        std::array<pollfd, 2> watched{pollfd{out.get(), POLLIN, 0}, pollfd{err.get(), POLLIN, 0}};
        ::poll(watched.data(), watched.size(), -1);
        if (watched[0].revents != 0) {
            take(out, result.out);
            auto const lines = static_cast<std::size_t>(std::count(result.out.begin(), result.out.end(), '\n'));
            if (options.readLines && lines >= *options.readLines) {
                out.reset();
            }
        }
        if (watched[1].revents != 0) {
            take(err, result.err);
            if (!options.readUntil.empty() && result.err.find(options.readUntil) != std::string::npos) {
                out.reset();
            }
        }
    }
}

} // namespace

ChildResult runChild(std::string const& program, std::vector<std::string> const& arguments,
                     ChildOptions const& options) {
    Pipe in = makePipe();
    Pipe out = makePipe();
    Pipe err = options.terminal ? makeTerminal() : makePipe();
    if (!options.standardOutput.empty()) {
        out.writing = FileDescriptor(::open(options.standardOutput.c_str(), O_WRONLY | O_CLOEXEC));
        out.reading.reset();
    }
    pid_t const child = ::fork();
    if (child == 0) {
        become(program, arguments, options.terminal ? err.writing.get() : in.reading.get(), out.writing.get(),
               err.writing.get());
    }
    in.reading.reset();
    out.writing.reset();
    if (options.terminal) { // typed ahead
        [[maybe_unused]] auto const typed = ::write(err.reading.get(), options.input.data(), options.input.size());
    } else {
        [[maybe_unused]] auto const given = ::write(in.writing.get(), options.input.data(), options.input.size());
    }
    err.writing.reset();
    in.writing.reset();
    if (options.beforeReading) {
        options.beforeReading();
    }
    ChildResult result;
    readBoth(out.reading, err.reading, options, result);
    int status = 0;
    ::waitpid(child, &status, 0);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

} // namespace Vellum
