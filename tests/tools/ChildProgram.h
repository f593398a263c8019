// A program run as a child, with what it wrote and how it ended.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Vellum {

struct ChildResult {
    int exitCode = -1; // -1: it did not exit by itself
    std::string out;
    std::string err;
};

struct ChildOptions {
    // The reader of standard output goes away once so many lines have come (`| head`); 0: it was never there.
    std::optional<std::size_t> readLines;
    // It also goes away once standard error holds this.
    std::string readUntil;
    // Called before the first byte of it is read.
    std::function<void()> beforeReading;
    std::string standardOutput; // a file to write to instead of being read here
    std::string input;          // what standard input holds
    bool terminal = false;      // standard input and standard error are a terminal; what it showed is `err`
};

// Waits for its end. The child gets the environment, with TZ=UTC.
ChildResult runChild(std::string const& program, std::vector<std::string> const& arguments,
                     ChildOptions const& options = {});

} // namespace Vellum
