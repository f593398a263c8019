// What a command of vellumctl has written.
#pragma once

#include "foundation/FileDescriptor.h"
#include "tools/vellumctl/Output.h"

#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace Vellum::Fuzz {

class CapturedOutput {
  public:
    Tools::Output& output() { return m_output; }
    std::string text() const {
        auto const length = lseek(m_file.get(), 0, SEEK_END);
        std::string text(static_cast<std::size_t>(length), '\0');
        text.resize(static_cast<std::size_t>(pread(m_file.get(), text.data(), text.size(), 0)));
        return text;
    }

  private:
    FileDescriptor m_file{memfd_create("output", MFD_CLOEXEC)};
    Tools::Output m_output{m_file.get()};
};

} // namespace Vellum::Fuzz
