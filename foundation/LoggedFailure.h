// Where exceptions end: jobs, detached threads, rows that are passed over. What is tried again and again may pass over
// what it has said already: RepeatedFailures.h.
#pragma once

#include "foundation/Exception.h"

#include <cstdint>

namespace Vellum {

// Logs the exception's text under `code`: format "%s".
void logFailure(std::uint32_t code, Exception const& failed);
// Logs source, line and the exception's text under `code`: format "%s\x01%d\x01%s".
void logFailure(std::uint32_t code, char const* source, int line, Exception const& failed);

// Runs `work`; an Exception is logged under `code` with its text and goes no further. Answers whether there was none.
// Other exceptions pass.
template <class Work>
bool doneOrLogged(std::uint32_t code, Work work) {
    try {
        work();
        return true;
    } catch (Exception const& failed) {
        logFailure(code, failed);
        return false;
    }
}

// The same as a status: 0, or -1 after a logged failure.
template <class Work>
int statusOrLogged(std::uint32_t code, Work work) {
    return doneOrLogged(code, work) ? 0 : -1;
}

} // namespace Vellum
