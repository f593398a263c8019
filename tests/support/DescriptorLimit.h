// Few file descriptors, or many, for a test that is about them.
#pragma once

#include "foundation/FileDescriptor.h"

#include <algorithm>
#include <cstddef>
#include <sys/resource.h>
#include <unistd.h>

namespace Vellum {

// The next one that this process would get.
inline std::size_t lowestFreeDescriptor() {
    FileDescriptor const next(::dup(0));
    return static_cast<std::size_t>(next.get());
}

// While it lives, no descriptor can be opened in this process that is `wanted` or more; by default, none at all as long
// as none is closed.
class DescriptorLimit {
  public:
    explicit DescriptorLimit(std::size_t wanted = lowestFreeDescriptor()) {
        ::getrlimit(RLIMIT_NOFILE, &m_before);
        rlimit limit = m_before;
        limit.rlim_cur = std::min<rlim_t>(wanted, limit.rlim_max);
        ::setrlimit(RLIMIT_NOFILE, &limit);
        m_value = limit.rlim_cur;
    }
    ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &m_before); }
    DescriptorLimit(DescriptorLimit const&) = delete;
    DescriptorLimit& operator=(DescriptorLimit const&) = delete;

    std::size_t value() const { return m_value; } // at most what the system allows

  private:
    rlimit m_before{};
    std::size_t m_value = 0;
};

} // namespace Vellum
