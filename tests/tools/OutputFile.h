// Somewhere for an Output to write to, and to read back from.
#pragma once

#include "foundation/FileDescriptor.h"
#include "tools/vellumctl/Output.h"

#include <array>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace Vellum::Tools {

class OutputFile {
  public:
    OutputFile() : m_file(::memfd_create("output", MFD_CLOEXEC)), output(m_file.get()) {}

    // What has been written so far.
    std::string text() const {
        std::string all;
        std::array<char, 4096> piece{};
        for (off_t at = 0;;) {
            ssize_t const length = ::pread(m_file.get(), piece.data(), piece.size(), at);
            if (length <= 0) {
                return all;
            }
            all.append(piece.data(), static_cast<std::size_t>(length));
            at += length;
        }
    }

  private:
    FileDescriptor m_file;

  public:
    Output output;
};

} // namespace Vellum::Tools
