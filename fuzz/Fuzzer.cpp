// The entry of libFuzzer into the one target that this program holds.
#include "fuzz/FuzzTarget.h"

#include <cstddef>
#include <cstdint>

// What a target throws passes through noexcept and ends the process, which is what libFuzzer takes for a finding.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) noexcept {
    using Vellum::Fuzz::Target;
    static Target::Run const target = Target::all().begin()->second;
    Target::run(target, {reinterpret_cast<char const*>(data), size});
    return 0;
}
