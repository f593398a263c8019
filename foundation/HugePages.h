// Large pages for a process whose memory is large and read all over.
//
// A decision among a million tuples waits for memory a handful of times, and with pages of 4 KiB nearly each time also
// for the processor to find out where that page is. On a virtual machine that was a fifth of the whole decision.
#pragma once

namespace Vellum {

// Makes the C library ask the kernel for large pages (as the kernel allows where asked: "madvise", or "always") for all
// that is allocated. It can only be told so before main(), so the program starts itself once more, in the same process,
// with GLIBC_TUNABLES set. Returns where there is nothing to do: the second time, when GLIBC_TUNABLES is set already,
// to whatever, or when the program cannot be started again. To be called first in main(), with its argv.
void useHugePages(char* const* argv);

} // namespace Vellum
