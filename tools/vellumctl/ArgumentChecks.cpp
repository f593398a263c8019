#include "tools/vellumctl/ArgumentChecks.h"

#include "foundation/Exception.h"
#include "tools/vellumctl/Failure.h"

#include <charconv>

namespace Vellum::Tools {

void wrongArgument(std::string const& text) {
    throw Failure(ExitCode::usage, text);
}

std::uint64_t wholeNumber(char const* option, std::string const& text, std::uint64_t lowest, std::uint64_t highest) {
    std::uint64_t number = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error == std::errc::invalid_argument || end != text.data() + text.size()) {
        wrongArgument(std::string(option) + " \"" + text + "\" is not a whole number");
    }
    if (error != std::errc() || number < lowest || number > highest) {
        std::string const bound = highest == std::numeric_limits<std::uint64_t>::max()
                                      ? std::to_string(lowest) + " or more"
                                      : std::to_string(lowest) + " to " + std::to_string(highest);
        wrongArgument(std::string(option) + " " + text + " is out of range: expected " + bound);
    }
    return number;
}

StringPattern patternArgument(char const* option, std::string const& text) {
    try {
        return StringPattern(text);
    } catch (Exception const& failed) {
        std::string const why = failed.stringParameters().empty() ? "" : ": " + failed.stringParameters().back();
        wrongArgument(std::string(option) + " \"" + text + "\" is no pattern" + why);
    }
}

} // namespace Vellum::Tools
