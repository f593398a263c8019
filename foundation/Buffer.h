// A run of bytes with a length, always owning its bytes.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

namespace Vellum {

class Buffer {
  public:
    Buffer() = default;
    // A copy of `length` bytes at `data` (null is allowed when length is 0). `copy` is accepted for the callers that
    // say it; a buffer always keeps its own copy.
    Buffer(void const* data, unsigned int length, bool copy);
    // An owned, zero-filled buffer of `size` bytes; a negative size gives an empty one. The second argument is unused.
    Buffer(int size, int);

    // Becomes a copy of `length` bytes at `data`, in the memory it has when that suffices.
    void assign(char const* data, std::size_t length) { m_bytes.assign(data, data + length); }

    char* data() { return m_bytes.data(); }
    char const* data() const { return m_bytes.data(); }
    unsigned int length() const { return static_cast<unsigned int>(m_bytes.size()); }
    std::string_view view() const { return {m_bytes.data(), m_bytes.size()}; }

  private:
    std::vector<char> m_bytes;
};

} // namespace Vellum
