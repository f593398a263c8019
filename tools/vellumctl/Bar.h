// A horizontal bar in a table.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>

namespace Vellum::Tools {

// `columns` for `most` or more, in proportion below, one at least unless `value` is 0.
inline std::string bar(std::uint64_t value, std::uint64_t most, std::size_t columns) {
    if (value == 0 || most == 0) {
        return {};
    }
    double const share = static_cast<double>(std::min(value, most)) / static_cast<double>(most);
    auto const filled = static_cast<std::size_t>(std::lround(share * static_cast<double>(columns)));
    return std::string(std::max<std::size_t>(filled, 1), '#');
}

} // namespace Vellum::Tools
