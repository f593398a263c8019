// Keeps a failure that is met again at each try from being logged at each try.
//
//   RepeatedFailures said;                     // for as long as it is tried
//   {
//       RepeatedFailures::Round const round(said);
//       database.read();                       // logFailure() passes over what the round before has logged, too
//   }
//
// A failure is known by its code and text: another text is logged, and so is one that was gone for a round. The end of
// the trouble is for the caller to say.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <utility>

namespace Vellum {

// Used by one thread at a time.
class RepeatedFailures {
  public:
    // One try: for its life, on its thread only. A round within a round takes its place meanwhile.
    class Round {
      public:
        // `logged`: what has been logged before the first round; a failure whose text is its end is not logged again.
        explicit Round(RepeatedFailures& said, std::string logged = {});
        ~Round();
        Round(Round const&) = delete;
        Round& operator=(Round const&) = delete;

      private:
        friend class RepeatedFailures;

        RepeatedFailures& m_said;
        std::string const m_logged;
        std::set<std::pair<std::uint32_t, std::string>> m_met;
        Round* const m_outer;
    };

    // Whether the failure need not be logged: false outside of a round.
    static bool isRepeated(std::uint32_t code, std::string const& text);

  private:
    static Round*& current(); // of this thread; null: none

    std::set<std::pair<std::uint32_t, std::string>> m_said; // in the last round that ended
};

} // namespace Vellum
