// The buffer between an output stream and a file descriptor: few, large writes, and the reason of a failed one kept.
#pragma once

#include <streambuf>
#include <vector>

namespace Vellum::File {

class FileBuffer : public std::streambuf {
  public:
    // Bytes; large enough that system calls hardly count, small enough to stay in the processor's cache. What comes in
    // larger pieces is written as it is.
    static constexpr std::size_t capacity = std::size_t{64} * 1024;

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
    void startDisk(std::size_t written);

    // Bytes after which the disk is told to begin: a large file is then mostly there when it is synced.
    static constexpr std::size_t diskStep = std::size_t{8} * 1024 * 1024;

    int m_descriptor = -1;
    std::size_t m_written = 0;   // bytes handed to the kernel
    std::size_t m_diskBegun = 0; // of these, those the disk was told to begin with
    int m_error = 0;
    std::vector<char> m_bytes;
};

} // namespace Vellum::File
