// The buffer between an output stream and a file descriptor: few, large writes, and the reason of a failed one kept.
#pragma once

#include <streambuf>
#include <vector>

namespace Vellum::File {

class FileBuffer : public std::streambuf {
  public:
    static constexpr std::size_t capacity = 1U << 20; // bytes; large enough that the system calls no longer count

    FileBuffer() = default;
    ~FileBuffer() override { close(); } // discards what is not flushed
    FileBuffer(FileBuffer const&) = delete;
    FileBuffer& operator=(FileBuffer const&) = delete;

    // Takes over an open descriptor.
    void attach(int descriptor);
    int descriptor() const { return m_descriptor; } // -1 when closed
    // 0, or errno of the first write that failed. Nothing is written after that.
    int error() const { return m_error; }
    // Closes the descriptor; returns 0 or errno.
    int close();

  protected:
    int_type overflow(int_type c) override;
    std::streamsize xsputn(char const* text, std::streamsize length) override;
    int sync() override; // writes what is buffered

  private:
    bool writeOut(char const* bytes, std::size_t length);
    bool flush();

    int m_descriptor = -1;
    int m_error = 0;
    std::vector<char> m_bytes;
};

} // namespace Vellum::File
