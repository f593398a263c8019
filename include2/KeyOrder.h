// How the cache's index orders its keys quickly.
//
// The index keeps, beside each link, the first 16 ordering bytes of the key, so that most of a search never touches a
// key. A key type says what those bytes are by specialising KeyOrder; the default gives none, and every comparison
// then goes to the key's own operator<.
//
// A specialisation may also say prefix(Other) and compare(K, Other) for a type that stands for a key without being one,
// such as its parts in the caller's memory: a search then needs no key made for it. Both must answer what they would
// answer for the key.
#pragma once

#include <algorithm>
#include <bit>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Vellum {

// Sixteen bytes that order like the key: a < b implies prefix(a) <= prefix(b). Equal prefixes decide nothing.
struct OrderPrefix {
    std::uint64_t high = 0;
    std::uint64_t low = 0;

    auto operator<=>(OrderPrefix const&) const = default;
};

// Collects up to 16 bytes, most significant first; what comes after the sixteenth is ignored.
class OrderPrefixWriter {
  public:
    void byte(std::uint8_t value) { bytes(&value, 1); }
    void bytes(void const* data, std::size_t length) {
        std::size_t const taken = std::min(length, sizeof m_bytes - m_used);
        if (taken != 0) { // `data` may be null without any
            std::memcpy(m_bytes + m_used, data, taken);
        }
        m_used += taken;
    }
    OrderPrefix prefix() const { return {word(0), word(1)}; }

  private:
    std::uint64_t word(std::size_t number) const {
        static_assert(std::endian::native == std::endian::little);
        std::uint64_t reversed = 0;
        std::memcpy(&reversed, m_bytes + number * sizeof reversed, sizeof reversed);
        return __builtin_bswap64(reversed);
    }

    std::uint8_t m_bytes[sizeof(OrderPrefix)] = {};
    std::size_t m_used = 0;
};

template <class K>
struct KeyOrder {
    static OrderPrefix prefix(K const&) { return {}; }
    // Below 0, 0 or above 0, as a sorts before, with or after b; the same order as operator<.
    static int compare(K const& a, K const& b) { return a < b ? -1 : (b < a ? 1 : 0); }
};

} // namespace Vellum
