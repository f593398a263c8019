// What fuzz targets are made of.
//
// A target takes any bytes, hands them to a parser of foreign bytes, and checks what must hold whatever they are:
//
//   void run(std::string_view input) {
//       auto const mask = parsed<IPAddressMask>(input);
//       require(!mask || IPAddressMask(mask->asString()) == *mask, "a mask's text reads back");
//   }
//   Target const target("mask", run);
//
// One file for each target. Its input is the bytes as a stranger would send them, or lines of text where a target takes
// several, so that seeds can be read and written by people. libFuzzer runs one target (Fuzzer.cpp); the ordinary tests
// run all of them over their seeds (SeedsTest.cpp).
#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Vellum::Fuzz {

// A property that does not hold: the parser, or the property, is wrong.
class Violation : public std::logic_error {
  public:
    using std::logic_error::logic_error;
};

inline void require(bool holds, char const* property) {
    if (!holds) {
        throw Violation(std::string("does not hold: ") + property);
    }
}

class Target {
  public:
    using Run = void (*)(std::string_view input);

    // Adds itself to all(). A namespace-scope object of the target's file; `name` is a literal.
    Target(char const* name, Run function);

    // Runs it with the log watched: no line of it may hold a control character, or bytes that are not UTF-8. Throws
    // Violation; an exception that the target let pass is one, too.
    static void run(Run target, std::string_view input);

    // Those in this program, by name.
    static std::map<std::string, Run>& all();
};

} // namespace Vellum::Fuzz
