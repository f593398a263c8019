// Standard output, in large pieces, and what became of its reader.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace Vellum::Tools {

// A slow reader (`| less`) never makes the caller wait before flush(): what it does not take is kept. While a listing
// is under way that is what counts, because the daemon drops a client that does not read, and holds up new mail
// meanwhile. A reader that goes away (`| head`) is no error: the output is just no longer open. The caller stops when
// it sees that. SIGPIPE must be ignored.
class Output {
  public:
    static constexpr std::size_t pieceBytes = 64U << 10;

    // `descriptor` is borrowed.
    explicit Output(int descriptor) : m_descriptor(descriptor) {}

    // Called before bytes go to the descriptor, for what else is on the same terminal.
    void beforeWriting(std::function<void()> call) { m_beforeWriting = std::move(call); }

    // Where to append; call written() afterwards. Writes what the reader takes, a piece at a time. Throws Failure when
    // that fails for another reason than a reader that is gone.
    std::string& buffer() { return m_buffer; }
    void written() {
        if (m_buffer.size() >= m_tryAt) {
            writeOut(false);
        }
    }
    void write(std::string_view text) {
        m_buffer.append(text);
        written();
    }
    // Hands over everything, and waits for the reader. Throws like written().
    void flush() { writeOut(true); }

    // Looks whether the reader is still there, also when nothing is to be written.
    bool isOpen();

  private:
    void writeOut(bool wait);
    bool takesMore() const;

    int m_descriptor;
    std::string m_buffer;
    std::size_t m_tryAt = pieceBytes; // bytes in the buffer
    std::function<void()> m_beforeWriting;
    bool m_open = true;
};

} // namespace Vellum::Tools
