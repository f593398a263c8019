// The servers of other packages, as a mail administrator would set them up who changes nothing but paths and delays.
//
//   postgrey            greylisting, Perl, Berkeley DB; a delay of a second instead of five minutes
//   sqlgrey             greylisting, Perl, SQLite; its shortest delay, a minute
//   greylistd           greylisting, Python, in memory; a protocol of its own, a connection for each question, on a
//   Unix
//                       socket only; a delay of a second instead of ten minutes
//   postfwd             rules, Perl, several processes; one rule, a rate limit for each sender
//   policyd-rate-limit  rate limits, Python, SQLite; its own limits, for each sender
//
// None does the same as vellumd; each is what sites put in its place. Their state and sockets are in the benchmark's
// directory.
#pragma once

#include "bench/PeerProgram.h"

#include <optional>
#include <string>
#include <vector>

namespace Vellum::Bench {

// The names above.
std::vector<std::string> const& peerNames();

// That one of them with its configuration and its directory, which are made in `directory`, listening on the transport
// ("unix" or "tcp"); nothing where it does not know that transport. Throws Exception when it cannot be run here.
std::optional<PeerProgram> peerProgram(std::string const& name, std::string const& transport,
                                       std::string const& directory);

} // namespace Vellum::Bench
