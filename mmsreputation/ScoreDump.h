// The file through which the scores get into their table.
#pragma once

#include "mmsreputation/RefCache.h"

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace Vellum::MMSReputation {

// All scores as they are at one moment.
class ScoreSnapshot {
  public:
    // Holds Entry::s_mutex, then the cache's lock, shared while it copies. Throws Exception without a configuration.
    explicit ScoreSnapshot(Cache const& cache);

    // A line for each subscriber in ascending order: the number cut at 35 characters, a tab, the score, a tab, the
    // expiry, a line feed. What exceeds the columns of the table is given as their end.
    void write(std::ostream& out) const;

  private:
    struct Score {
        MSISDN number;
        std::uint32_t score;
        long expiry;
    };
    std::vector<Score> m_scores;
};

// A dump at `path`, removed at the end of its life.
class ScoreDump {
  public:
    // Throws Exception naming path and reason, also when the directory is a symbolic link, belongs to somebody else or
    // lets others write: a stranger could make the dump overwrite a file, or give the table scores of his own.
    ScoreDump(std::string path, ScoreSnapshot const& scores);
    ~ScoreDump();
    ScoreDump(ScoreDump const&) = delete;
    ScoreDump& operator=(ScoreDump const&) = delete;

    std::string const& path() const { return m_path; }

  private:
    std::string const m_path;
};

} // namespace Vellum::MMSReputation
