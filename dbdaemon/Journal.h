// The scripts that were accepted and are not done, on disk.
//
// A directory of its own, for one daemon at a time:
//
//   lock                      held by the daemon that uses the journal
//   0000000000000017-4.sql    script 17, accepted with request code 4, to be run
//   .incoming-18              a copy in the making; a leftover of a crash is removed at the next start
//   outcomes                  what became of the last script of each code, as ScriptOutcomes.h writes it
//   failed/                   scripts that the server refused, the last few of each code, for looking at
//
// A script is accepted when it stands under its name, its bytes and that name synced to the disk: from then on it
// survives whatever happens to the daemon or the machine.
#pragma once

#include "foundation/FileDescriptor.h"
#include "foundation/Locks.h"
#include "foundation/database/ScriptOutcomes.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Vellum::DatabaseDaemon {

// Thread-safe: one thread may accept scripts while another runs them. Operations throw Exception, naming the file and
// the system's reason.
class Journal {
  public:
    static constexpr unsigned int keptFailures = 3;    // of each code
    static constexpr std::size_t longestReason = 1000; // bytes of a refusal that are kept

    struct Entry {
        std::uint64_t number; // in the order of acceptance
        std::int32_t code;    // of the request
        std::string path;     // of the script
    };

    // Opens the journal, or makes it (mode 0700) in a directory that exists. What was accepted before is waiting again.
    // Refuses a journal that another daemon uses, or that other users could write to.
    explicit Journal(std::string const& directory);

    // Copies `script`, an open regular file, from its beginning, and answers its entry once that is durable. On a
    // failure nothing is left behind. Scripts of the same code that are waiting and not running are dropped, because
    // each replaces its tables' whole contents: the newest is all that counts.
    Entry accept(std::int32_t code, int script);

    // What waits, oldest first.
    std::vector<Entry> waiting() const;
    // Marks an entry as running, so that a newer script does not drop it. False when it is not there any more.
    bool begin(Entry const& entry);
    // It could not be run now: it waits again, unless a newer one has come. One that is done or failed is left alone.
    void giveBack(Entry const& entry) noexcept;
    // It is done: removed.
    void finish(Entry const& entry);
    // The server will never run it: moved to failed/, of which the oldest go. The reason may have any length, and only
    // its beginning is kept.
    void fail(Entry const& entry, std::string const& reason);

    // What became of the last script of each code; also after a restart, unless it could not be kept on disk, which is
    // logged.
    ScriptOutcomes outcomes() const;

  private:
    // `done`: it ran or was refused, but its file could not be removed or moved. It stays known until the file is gone,
    // because after a restart it would otherwise be run over what came later.
    enum class Step { arriving, waiting, running, done };
    struct State {
        std::int32_t code;
        Step step;
        long acceptedAt; // seconds since the epoch
    };

    void lockDirectory();
    void readDirectory();
    void copyIn(int script, std::string const& temporary, std::string const& final) const;
    bool dropSuperseded(std::int32_t code) VELLUM_REQUIRES(m_lock);
    bool isRemoved(std::uint64_t number, std::int32_t code) const;
    template <class Change>
    void noteOutcome(Entry const& entry, Change change) VELLUM_REQUIRES(m_lock);
    std::string outcomesPath() const { return m_directory + "/outcomes"; }
    void pruneFailures(std::int32_t code) const;
    std::string pathOf(std::uint64_t number, std::int32_t code) const;

    std::string const m_directory;
    FileDescriptor m_lockFile;

    mutable Mutex m_lock;
    std::map<std::uint64_t, State> m_entries VELLUM_GUARDED_BY(m_lock);
    ScriptOutcomes m_outcomes VELLUM_GUARDED_BY(m_lock);
    std::uint64_t m_lastNumber VELLUM_GUARDED_BY(m_lock)
    = 0;
};

} // namespace Vellum::DatabaseDaemon
