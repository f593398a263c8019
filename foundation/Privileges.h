// What a process gives up at its start, before it reads a byte of anybody's: root, and what would give its memory away.
#pragma once

#include <string>

namespace Vellum {

// To be called before there are other threads, and before files and sockets are made: they belong to the new user.
//
// Becomes `user`, the name or number of an account of this machine, with the account's group and its further groups;
// empty: the user stays as it is. There is no way back. Only root can become another user.
//
// Whoever is not root then has no capability either, whatever the starter left. No program that might be started from
// here gains rights that this process has not. No core is written, not even by a kernel that hands cores to a program,
// and other processes of the same user cannot read the memory: passwords and mail addresses stand in it.
//
// Throws Exception naming the user and what is wrong. Some of it may be given up by then: the caller ends.
void giveUpRights(std::string const& user);

// That last part alone, for a tool that reads passwords: no core, and no other process of the same user reads the
// memory. Throws Exception.
void closeMemory();

// Says in the log that a daemon has stayed root, where it has. It goes on: who starts it may have a reason.
void warnAboutRoot();

} // namespace Vellum
