// The client of the database daemon, which runs SQL script files.
//
// A request (host byte order): offset 0, signed 32-bit request code; offset 4, signed 32-bit length of the path
// including its NUL; offset 8, the path and its NUL. It goes to the daemon's Unix socket as it is, and the daemon
// answers with one signed 32-bit DatabaseDaemon::Answer. Behind the answer "accepted" to RequestCode::outcomes comes a
// signed 32-bit length and so many bytes of text (ScriptOutcomes.h).
#pragma once

#include "foundation/Buffer.h"
#include "foundation/Export.h"
#include "foundation/database/ScriptOutcomes.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

// Asks the daemon to run a script. Answers 0 when the daemon has accepted it, that is when a copy is in its journal
// on disk; otherwise the daemon's answer, or DatabaseDaemon::Answer::unreachable. Waits for the answer, at most for
// DatabaseDaemon::timeout(). Never throws.
extern "C" VELLUM_EXPORT int dbdaemon_send_request(void* request);

namespace Vellum::DatabaseDaemon {

enum class RequestCode : std::int32_t {
    isSettled = 0, // runs nothing: accepted when every script that was accepted is done; the path is "/"
    outcomes = 1,  // runs nothing: what became of the last scripts; the path is "/"
    greylistScript = 4,
    reputationScript = 5,
    endpointScript = 9,
};

enum class Answer : std::int32_t {
    accepted = 0,
    unreachable = 1,      // no daemon, a broken conversation or no answer in time; only made up by the client
    malformed = 2,        // the request is not of the layout above
    unknownCode = 3,      // no such request code
    scriptUnreadable = 4, // not an absolute path of a readable regular file of a user who may ask
    journalFailed = 5,    // the script could not be copied or made durable, for example on a full disk
    notAllowed = 6,       // this user may not ask
    notSettled = 7,       // scripts wait, or one runs
};

// "accepted", "the script is unreadable", ... for messages.
char const* text(Answer answer);

inline constexpr std::size_t headerSize = 8;      // bytes before the path
inline constexpr std::size_t longestPath = 4096;  // bytes, the NUL included
inline constexpr std::size_t longestText = 65536; // bytes behind an answer; more is no answer of the daemon's
inline char const* const defaultSocketPath = "/run/vellum/dbd.sock";

// Where the daemon listens and how long to wait for it; for the whole process, thread-safe.
void setSocketPath(std::string const& path);
std::string socketPath();
void setTimeout(std::chrono::milliseconds timeout); // 60 s unless told
std::chrono::milliseconds timeout();

// A request in a buffer of exactly its size.
Buffer request(RequestCode code, std::string const& path);
// Builds the request and sends it; answers as dbdaemon_send_request does.
int requestScript(RequestCode code, std::string const& path);
// Whether the tables hold every script that the daemon has accepted; whoever loads them before that loads the past, and
// the next backup would make it the present. Answers accepted, notSettled, or unreachable. Never throws.
Answer askWhetherSettled();
// What became of the last scripts of each code that the daemon has accepted. Answers accepted, unreachable, or what
// else the daemon says, and then leaves `outcomes` alone. Never throws.
Answer askForOutcomes(ScriptOutcomes& outcomes);

} // namespace Vellum::DatabaseDaemon
