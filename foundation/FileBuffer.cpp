#include "foundation/FileBuffer.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace Vellum::File {

void FileBuffer::attach(int descriptor) {
    m_descriptor = descriptor;
    m_bytes.resize(capacity);
    setp(m_bytes.data(), m_bytes.data() + m_bytes.size());
}

int FileBuffer::close() {
    if (m_descriptor < 0) {
        return 0;
    }
    int const result = ::close(m_descriptor);
    m_descriptor = -1;
    setp(nullptr, nullptr);
    return result == 0 ? 0 : errno;
}

FileBuffer::int_type FileBuffer::overflow(int_type c) {
    if (!flush()) {
        return traits_type::eof();
    }
    if (!traits_type::eq_int_type(c, traits_type::eof())) {
        *pptr() = traits_type::to_char_type(c);
        pbump(1);
    }
    return traits_type::not_eof(c);
}

std::streamsize FileBuffer::xsputn(char const* text, std::streamsize length) {
    auto const size = static_cast<std::size_t>(length);
    if (size > static_cast<std::size_t>(epptr() - pptr()) && !flush()) {
        return 0;
    }
    if (size > static_cast<std::size_t>(epptr() - pptr())) {
        return writeOut(text, size) ? length : 0; // larger than the whole buffer
    }
    std::memcpy(pptr(), text, size);
    pbump(static_cast<int>(size));
    return length;
}

int FileBuffer::sync() {
    return flush() ? 0 : -1;
}

bool FileBuffer::flush() {
    bool const written = writeOut(pbase(), static_cast<std::size_t>(pptr() - pbase()));
    if (written) {
        setp(pbase(), epptr());
    }
    return written;
}

bool FileBuffer::writeOut(char const* bytes, std::size_t length) {
    if (m_error == 0 && m_descriptor < 0) {
        m_error = EBADF;
    }
    while (m_error == 0 && length > 0) {
        ssize_t const written = ::write(m_descriptor, bytes, length);
        if (written >= 0) {
            bytes += written;
            length -= static_cast<std::size_t>(written);
            startDisk(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            m_error = errno;
        }
    }
    return m_error == 0;
}

// A hint: what the file system makes of it, and whether it can at all, shows at the sync.
void FileBuffer::startDisk(std::size_t written) {
    m_written += written;
    if (m_written - m_diskBegun >= diskStep) {
        static_cast<void>(::sync_file_range(m_descriptor, static_cast<off_t>(m_diskBegun),
                                            static_cast<off_t>(m_written - m_diskBegun), SYNC_FILE_RANGE_WRITE));
        m_diskBegun = m_written;
    }
}

} // namespace Vellum::File
