// Takes the bytes of an input apart.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Vellum::Fuzz {

class Input {
  public:
    explicit Input(std::string_view bytes) : m_rest(bytes) {}

    bool isAtEnd() const { return m_rest.empty(); }
    std::string_view rest() const { return m_rest; }
    // The next byte, 0 behind the end.
    std::uint8_t byte() {
        std::string_view const one = bytes(1);
        return one.empty() ? 0 : static_cast<std::uint8_t>(one.front());
    }
    // Up to so many bytes.
    std::string_view bytes(std::size_t most) {
        std::string_view const taken = m_rest.substr(0, most);
        m_rest.remove_prefix(taken.size());
        return taken;
    }
    // Up to `end`, which is dropped, or to the end.
    std::string_view until(char end) {
        std::size_t const at = m_rest.find(end);
        std::string_view const taken = m_rest.substr(0, at);
        m_rest.remove_prefix(at == std::string_view::npos ? m_rest.size() : at + 1);
        return taken;
    }
    std::string_view line() { return until('\n'); }

  private:
    std::string_view m_rest;
};

// Cuts a text into pieces of 1 to 255 bytes, at places that the seed tells. A piece is a copy of its own, so that the
// address sanitizer sees whoever reads beyond it.
inline std::vector<std::string> inPieces(std::string_view text, std::uint32_t seed) {
    std::vector<std::string> pieces;
    while (!text.empty()) {
        seed = seed * 1664525U + 1013904223U;
        std::size_t const most = (seed >> 30U) == 0 ? 255 : 9; // mostly short ones
        std::size_t const length = std::min(text.size(), 1 + (seed >> 16U) % most);
        pieces.emplace_back(text.substr(0, length));
        text.remove_prefix(length);
    }
    return pieces;
}

} // namespace Vellum::Fuzz
