#include "foundation/HugePages.h"

#include <cstdlib>
#include <unistd.h>

namespace Vellum {

void useHugePages(char* const* argv) {
    constexpr char const* variable = "GLIBC_TUNABLES";
    if (std::getenv(variable) != nullptr || setenv(variable, "glibc.malloc.hugetlb=1", 1) != 0) {
        return;
    }
    execv("/proc/self/exe", argv); // returns only where that is not possible
}

} // namespace Vellum
