// The C library's allocator, for a process whose memory is large and read all over, and freed by the million.
//
// Large pages: a decision among a million tuples waits for memory a handful of times, and with pages of 4 KiB nearly
// each time also for the processor to find out where that page is. On a virtual machine that was a fifth of the whole
// decision.
// No fast bins: small pieces that are freed lie there as they are, until all of them are joined at once, under the lock
// that every allocation takes. After a cache was cleared that took some forty milliseconds, with mail waiting.
#pragma once

namespace Vellum {

// Makes the C library ask the kernel for large pages (as the kernel allows where asked: "madvise", or "always") for all
// that is allocated, and join what is freed at once. It can only be told so before main(), so the program starts itself
// once more, in the same process, with GLIBC_TUNABLES set. Returns where there is nothing to do: the second time, when
// GLIBC_TUNABLES is set already, to whatever, or when the program cannot be started again. To be called first in
// main(), with its argv.
void tuneAllocator(char* const* argv);

} // namespace Vellum
