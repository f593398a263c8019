#include "foundation/AllocatorTuning.h"

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <unistd.h>

namespace Vellum {

void tuneAllocator(char* const* argv) {
    constexpr char const* variable = "GLIBC_TUNABLES";
    if (std::getenv(variable) != nullptr || setenv(variable, "glibc.malloc.hugetlb=1:glibc.malloc.mxfast=0", 1) != 0) {
        return;
    }
    std::error_code unknown; // then the path is empty, and nothing is started
    // By its real name, because that is what the process is called afterwards.
    std::string const program = std::filesystem::read_symlink("/proc/self/exe", unknown);
    execv(program.c_str(), argv); // returns only where that is not possible
}

} // namespace Vellum
