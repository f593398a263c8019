// Backups on threads of their own.
//
// A periodic job only starts a backup here and returns, so the job table never waits for a disk or the database. The
// threads are detached; this registry knows them all the same, so that a shutdown can wait for the last backup.
//
// One backup of a family runs at a time, because they all write the same script file. A start while one is running is
// remembered, and one more run follows the current one; any number of such starts make one run together. So after a
// start() a whole backup is made that saw everything the caller had seen, and never more than one is waiting.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace Vellum::DetachedBackup {

// Has `backup` run on a thread of its own; returns at once. When a run follows a running one, the latest `backup` of
// the family is taken. An exception that `backup` lets out is logged and goes no further. Where no thread can be had
// that is logged too, and no backup is made. Thread-safe.
void start(std::string const& family, std::function<void()> backup);

// Held while it is decided whether a backup begins: waitForAll() waits for that, too, so that what begins elsewhere
// with such a wait has either been seen by the decision or sees the backup.
class Decision {
  public:
    Decision();
    ~Decision();
    Decision(Decision const&) = delete;
    Decision& operator=(Decision const&) = delete;
};

// Waits until no backup runs, waits or is being decided; false when that took longer than `limit`.
bool waitForAll(std::chrono::milliseconds limit);

// Families with a backup running now.
unsigned int running();

} // namespace Vellum::DetachedBackup
