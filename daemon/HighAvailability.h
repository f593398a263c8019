// Which unit of a pair this is: the active one backs up, the other one leaves the tables alone.
//
// The settings name a file or a command that knows:
//
//   file      its first word: "active" or "master", in whatever letter case, is yes; every other word is no, and so is
//             an empty file or none at all
//   command   its exit status: 0 is yes, 1 is no. Everything else, a signal, an end that does not come in time or a
//             program that cannot be started is trouble
//
// With neither, the answer is yes. Trouble counts as no: of two units that both write, one's state is lost; of none
// that writes, only what came since the last backup. It is said once, and so is its end; so is a change of the answer.
//
// A unit that becomes the active one after it was not has caches as old as its last load. It must load what the other
// unit has left in the tables before it may write them: LoadKeeper sees to that, by the number of activations.
#pragma once

#include "daemon/Command.h"
#include "daemon/HighAvailabilitySettings.h"
#include "daemon/OngoingTrouble.h"
#include "daemon/Replaceable.h"
#include "foundation/Latest.h"
#include "foundation/Locks.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Vellum::Daemon {

// Thread-safe. Not for a decision: asking may wait for a command as long as its limit says.
class HighAvailability {
  public:
    using Clock = std::chrono::steady_clock;
    using Now = std::function<Clock::time_point()>;

    explicit HighAvailability(
        HighAvailabilitySettings settings, Now now = [] { return Clock::now(); })
        : m_settings(std::move(settings)), m_now(std::move(now)) {}

    // Holds from the next question on; an answer that was given by other settings is asked for again.
    void install(HighAvailabilitySettings settings);

    // Asks, unless the last answer is younger than the settings say. Several that ask at once wait for one answer.
    bool isActive();
    // Asks in any case: before the tables are replaced.
    bool isActiveNow();
    // How often this unit has become the active one after it was not. Does not wait.
    std::uint64_t activations() const { return m_activations; }
    // The last answer, without asking; nothing before the first one.
    std::optional<bool> lastAnswer() const { return m_lastAnswer.get(); }
    // Runs the settings' command for what follows a backup, with VELLUM_FAMILY=`family` in its environment, where this
    // unit is the active one. Waits for its end.
    void resync(std::string const& family);
    // From now on resync() only notes the family: at the end of the process all backups come before a command that may
    // hang.
    void postponeResyncs();
    // Runs what was noted, one after the other; `budget` is for all of them together, and what does not fit in is said.
    void runPostponedResyncs(std::chrono::seconds budget);

  private:
    bool answer(HighAvailabilitySettings const& settings) VELLUM_REQUIRES(m_lock);
    bool ask(HighAvailabilitySettings const& settings);
    bool askFile(std::string const& path);
    bool askCommand(HighAvailabilitySettings const& settings);
    void sayChange(bool active);
    void resyncNow(std::string const& family, std::chrono::seconds limit);

    Replaceable<HighAvailabilitySettings> m_settings;
    Now const m_now;
    OngoingTrouble m_asking{std::chrono::seconds(0)};
    OngoingTrouble m_resyncing{std::chrono::seconds(0)};
    Latest<std::optional<bool>> m_lastAnswer;
    Mutex m_lock; // held while a file or a command is asked
    std::optional<Clock::time_point> m_answeredAt VELLUM_GUARDED_BY(m_lock);
    std::atomic<std::uint64_t> m_activations{0};
    Mutex m_noting; // innermost
    std::optional<std::vector<std::string>> m_postponed VELLUM_GUARDED_BY(m_noting);
};

} // namespace Vellum::Daemon
