// Bytes over a socket of loopback: the plain way that listings are compared with, and a reader that takes both.
#pragma once

#include "foundation/FileDescriptor.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Vellum::Bench {

// A connection to 127.0.0.1. Throws std::runtime_error when nobody listens.
FileDescriptor connectTo(unsigned int port);
// Reads that many bytes in pieces of 256 KiB; with `keep`, into it. Throws when the connection ends before.
void readAll(int socket, std::size_t bytes, std::string* keep = nullptr);
// Writes in pieces of 64 KiB.
void sendAll(int socket, std::string_view bytes);

// Milliseconds from before the connection is made until the last byte is read: of an empty request to a dispatcher,
// whose reply has `bytes`, and of the same bytes written by a thread.
double askFor(unsigned int port, std::uint32_t requestType, std::size_t bytes, std::string* keep = nullptr);
double copyOf(std::string const& bytes);

} // namespace Vellum::Bench
