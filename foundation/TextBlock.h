// Text on its way into a stream, put together in one block of memory.
//
//   TextBlock text(out);
//   for (...) {
//       text.makeRoom(longestRow);      // once for all pieces of a row
//       text.append("('");
//       text.appendEscaped(address);
//       text.append("')");
//   }
//   text.flush();
//
// For scripts of a million rows: no piece is looked at for whether it still fits, and the stream sees blocks that it
// can pass on as they are.
#pragma once

#include "foundation/EmailAddress.h"

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <ostream>
#include <string_view>

namespace Vellum {

class TextBlock {
  public:
    static constexpr std::size_t capacity = std::size_t{128} * 1024; // bytes
    static constexpr std::size_t longestNumber = 20;                 // digits and sign of appendNumber()

    // The stream is borrowed; its error state is the caller's to check. What is not flushed by the end is lost.
    explicit TextBlock(std::ostream& out) : m_out(out), m_block(new char[capacity]), m_end(m_block.get()) {}

    // From here until the next call up to `bytes` may be appended, at most `capacity`.
    void makeRoom(std::size_t bytes) {
        if (bytes > static_cast<std::size_t>(m_block.get() + capacity - m_end)) {
            flush();
        }
    }
    void append(std::string_view text) {
        std::memcpy(m_end, text.data(), text.size());
        m_end += text.size();
    }
    void appendNumber(std::int64_t number) { m_end = std::to_chars(m_end, m_end + longestNumber, number).ptr; }
    // As appendEscapedAddress(); up to twice as many bytes as the address has, and two.
    void appendEscaped(std::string_view address) { m_end = writeEscapedAddress(m_end, address); }

    void flush() {
        m_out.write(m_block.get(), static_cast<std::streamsize>(m_end - m_block.get()));
        m_end = m_block.get();
    }

  private:
    std::ostream& m_out;
    std::unique_ptr<char[]> const m_block; // not zeroed, as a vector would be
    char* m_end;                           // of the text
};

} // namespace Vellum
