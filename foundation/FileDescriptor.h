// A file descriptor that is closed at the end of its owner's life.
#pragma once

#include <unistd.h>
#include <utility>

namespace Vellum {

class FileDescriptor {
  public:
    FileDescriptor() = default; // none
    explicit FileDescriptor(int descriptor) : m_descriptor(descriptor) {}
    FileDescriptor(FileDescriptor&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(m_descriptor, other.m_descriptor);
        return *this;
    }
    ~FileDescriptor() { reset(); }

    int get() const { return m_descriptor; } // -1 when there is none
    explicit operator bool() const { return m_descriptor >= 0; }
    void reset() {
        if (m_descriptor >= 0) {
            ::close(std::exchange(m_descriptor, -1));
        }
    }

  private:
    int m_descriptor = -1;
};

} // namespace Vellum
