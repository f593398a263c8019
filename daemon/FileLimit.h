// How many files, sockets among them, this process may have open.
#pragma once

#include <cstddef>

namespace Vellum::Daemon {

// Raises the limit as far as the kernel lets it be raised without rights. What a login shell or a service manager sets
// by itself (1024) is far below what the settings allow; a limit below `wanted` is noted as a warning then.
void raiseFileLimit(std::size_t wanted);

} // namespace Vellum::Daemon
