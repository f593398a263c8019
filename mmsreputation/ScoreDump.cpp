#include "mmsreputation/ScoreDump.h"

#include "foundation/Exception.h"
#include "foundation/File.h"
#include "foundation/database/RowText.h"
#include "mmsreputation/LogCodes.h"
#include "mmsreputation/MMSReputationDisplay.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace Vellum::MMSReputation {
namespace {

constexpr std::size_t longestNumber = sizeof(DisplayPacket::msisdn) - 1;

Exception trouble(std::string const& directory, std::string const& what) {
    return Exception("EndpointReputation::ScoreDump", Exception::failure, Source::display)
        .stringParameter("directory " + directory + " for the score dump: " + what);
}

void requireOwnDirectory(std::string const& directory) {
    struct stat about {};
    if (lstat(directory.c_str(), &about) != 0) {
        throw trouble(directory, std::strerror(errno));
    }
    if (!S_ISDIR(about.st_mode)) {
        throw trouble(directory, "it is no directory; a symbolic link is not followed");
    }
    if (about.st_uid != geteuid()) {
        throw trouble(directory, "it belongs to user " + std::to_string(about.st_uid) + ", expected user " +
                                     std::to_string(geteuid()));
    }
    if ((about.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        throw trouble(directory, "others may write there, expected mode 0700");
    }
}

} // namespace

ScoreSnapshot::ScoreSnapshot(Cache const& cache) {
    SharedLock const holdEntries(Entry::s_mutex);
    SharedLock const hold(cache.lock);
    std::uint32_t const slice = Period(0, 0, Period::slicesPerWindow).index;
    m_scores.reserve(cache.sizeNoLock());
    cache.forEachInKeyOrder([&](auto const& pair) {
        if (!pair.second.isNull() && !pair.first.isNull()) { // a row without a number could not be shown again
            m_scores.push_back({pair.first, pair.second->score(slice, false), pair.second->blacklistExpiry()});
        }
        return true;
    });
}

void ScoreSnapshot::write(std::ostream& out) const {
    for (Score const& score : m_scores) {
        std::string line = score.number.asString().substr(0, longestNumber);
        line += '\t';
        Vellum::Database::appendNumber(line, Vellum::Database::clampedToInt(score.score));
        line += '\t';
        Vellum::Database::appendNumber(line, Vellum::Database::clampedToInt(score.expiry));
        line += '\n';
        out << line;
    }
}

ScoreDump::ScoreDump(std::string path, ScoreSnapshot const& scores) : m_path(std::move(path)) {
    requireOwnDirectory(std::filesystem::path(m_path).parent_path());
    File::basic_ofstream<char> out{File::Path(m_path)};
    scores.write(out);
    out.commit();
}

ScoreDump::~ScoreDump() {
    unlink(m_path.c_str());
}

} // namespace Vellum::MMSReputation
