// The least that a policy server can do: the limit that ours is compared with.
#pragma once

namespace Vellum::Bench {

// Answers DUNNO to everything that arrives on the connections of these listening sockets, in one thread: epoll, one
// recv, one send. It takes one reading for one request and looks at its last two bytes only. Never returns.
[[noreturn]] void runNoopPolicyServer(int unixListener, int tcpListener);

} // namespace Vellum::Bench
