// Memory that is there before a lock is taken.
#pragma once

#include <cstddef>
#include <vector>

namespace Vellum {

// Room for `count` entries whose pages are there already, so that no page fault happens under a lock. The vector is
// empty before. Throws std::bad_alloc.
template <class T>
void makeRoom(std::vector<T>& vector, std::size_t count) {
    constexpr std::size_t page = 4096;
    vector.reserve(count);
    auto* bytes = reinterpret_cast<char volatile*>(vector.data());
    for (std::size_t at = 0; at < vector.capacity() * sizeof(T); at += page) {
        bytes[at] = 0;
    }
}

} // namespace Vellum
