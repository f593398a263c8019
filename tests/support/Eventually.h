// Bounded waiting for what another thread or process brings about.
#pragma once

#include "tests/support/CapturingLogger.h"

#include <chrono>
#include <functional>
#include <thread>

namespace Vellum {

// Whether `wanted` becomes true before a test's patience ends.
inline bool eventually(std::function<bool()> const& wanted) {
    auto const end = std::chrono::steady_clock::now() + CapturingLogger::patience;
    while (!wanted()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace Vellum
