// How the cache's index orders its keys quickly.
//
// The index keeps, beside each link, the first 16 ordering bytes of the key, so that most of a search never touches a
// key. A key type says what those bytes are by specialising KeyOrder; the default gives none, and every comparison
// then goes to the key's own operator<.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>

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
    void byte(std::uint8_t value) {
        if (m_used < 8) {
            m_prefix.high |= static_cast<std::uint64_t>(value) << (56 - 8 * m_used);
        } else if (m_used < 16) {
            m_prefix.low |= static_cast<std::uint64_t>(value) << (56 - 8 * (m_used - 8));
        }
        ++m_used;
    }
    void bytes(void const* data, std::size_t length) {
        auto const* p = static_cast<std::uint8_t const*>(data);
        for (std::size_t i = 0; i < length && m_used < 16; ++i) {
            byte(p[i]);
        }
    }
    OrderPrefix prefix() const { return m_prefix; }

  private:
    OrderPrefix m_prefix;
    unsigned int m_used = 0;
};

template <class K>
struct KeyOrder {
    static OrderPrefix prefix(K const&) { return {}; }
    // Below 0, 0 or above 0, as a sorts before, with or after b; the same order as operator<.
    static int compare(K const& a, K const& b) { return a < b ? -1 : (b < a ? 1 : 0); }
};

} // namespace Vellum
