#include "daemon/HighAvailability.h"

#include "foundation/Escape.h"
#include "foundation/FileDescriptor.h"
#include "foundation/Logger.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace Vellum::Daemon {
namespace {

constexpr std::string_view blanks = " \t\r\n";

std::string_view firstWord(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
    return text.substr(0, text.find_first_of(blanks));
}

bool isWord(std::string_view word, std::string_view lowercase) {
    return std::equal(word.begin(), word.end(), lowercase.begin(), lowercase.end(),
                      [](char c, char lower) { return (c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c) == lower; });
}

// The beginning of a file; nothing, and why in errno, when it cannot be read. Never waits, whatever the file is.
std::optional<std::string> beginningOf(std::string const& path) {
    FileDescriptor const file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0) {
        return std::nullopt;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return std::nullopt;
    }
    std::array<char, 64> room{};
    ssize_t const got = read(file.get(), room.data(), room.size());
    return got < 0 ? std::nullopt : std::optional(std::string(room.data(), static_cast<std::size_t>(got)));
}

std::string shown(std::vector<std::string> const& command) {
    return escapeForLog(command.front());
}

} // namespace

void HighAvailability::install(HighAvailabilitySettings settings) {
    Synchronized const hold(m_lock);
    if (!(settings == *m_settings.get())) {
        m_answeredAt.reset();
    }
    m_settings.replace(std::move(settings));
}

bool HighAvailability::isActive() {
    Synchronized const hold(m_lock);
    auto const settings = m_settings.get();
    std::optional<bool> const last = m_lastAnswer.get();
    if (last && m_answeredAt && m_now() - *m_answeredAt < settings->answerHolds) {
        return *last;
    }
    return answer(*settings);
}

bool HighAvailability::isActiveNow() {
    Synchronized const hold(m_lock);
    return answer(*m_settings.get());
}

bool HighAvailability::answer(HighAvailabilitySettings const& settings) {
    bool const before = m_lastAnswer.get().value_or(true);
    bool const active = ask(settings);
    m_answeredAt = m_now();
    if (before != active) {
        m_activations += active ? 1 : 0;
        sayChange(active);
    }
    m_lastAnswer.set(active);
    return active;
}

bool HighAvailability::ask(HighAvailabilitySettings const& settings) {
    if (!settings.activeFile.empty()) {
        return askFile(settings.activeFile);
    }
    if (!settings.activeCommand.empty()) {
        return askCommand(settings);
    }
    m_asking.ends("high availability: nobody is asked any more");
    return true;
}

bool HighAvailability::askFile(std::string const& path) {
    std::optional<std::string> const text = beginningOf(path);
    if (!text && errno != ENOENT) {
        m_asking.begins("high availability: " + escapeForLog(path) + " cannot be read, so this unit is not active: " +
                        (errno == EINVAL ? "it is no regular file" : std::strerror(errno)));
        return false;
    }
    m_asking.ends("high availability: " + escapeForLog(path) + " can be read again");
    std::string_view const word = text ? firstWord(*text) : std::string_view();
    return isWord(word, "active") || isWord(word, "master");
}

bool HighAvailability::askCommand(HighAvailabilitySettings const& settings) {
    constexpr int standby = 1;
    CommandOutcome const outcome = runCommand(settings.activeCommand, settings.commandLimit);
    if (outcome.hasSucceeded() || (outcome.end == CommandOutcome::End::exited && outcome.number == standby)) {
        m_asking.ends("high availability: " + shown(settings.activeCommand) + " answers again");
        return outcome.hasSucceeded();
    }
    m_asking.begins("high availability: " + shown(settings.activeCommand) + ' ' +
                    outcome.asString(settings.commandLimit) + ", so this unit is not active");
    return false;
}

void HighAvailability::sayChange(bool active) {
    Logger::instance(false).note(Logger::Severity::warning,
                                 active ? "high availability: this unit is the active one now, and backs up as soon as "
                                          "it has loaded the tables"
                                        : "high availability: this unit is not the active one, nothing is backed up");
}

void HighAvailability::resync(std::string const& family) {
    {
        Synchronized const hold(m_noting);
        if (m_postponed) {
            m_postponed->push_back(family);
            return;
        }
    }
    resyncNow(family, m_settings.get()->commandLimit);
}

void HighAvailability::postponeResyncs() {
    Synchronized const hold(m_noting);
    m_postponed.emplace();
}

void HighAvailability::runPostponedResyncs(std::chrono::seconds budget) {
    std::vector<std::string> families;
    {
        Synchronized const hold(m_noting);
        families = std::exchange(m_postponed, std::nullopt).value_or(std::vector<std::string>());
    }
    auto const end = m_now() + budget;
    for (std::string const& family : families) {
        auto const left = std::chrono::duration_cast<std::chrono::seconds>(end - m_now());
        if (left.count() > 0) {
            resyncNow(family, std::min(left, m_settings.get()->commandLimit));
        } else if (!m_settings.get()->resyncCommand.empty()) {
            Logger::instance(false).note(Logger::Severity::error, "high availability: no time is left for " +
                                                                      shown(m_settings.get()->resyncCommand) +
                                                                      " after the backup of " + family);
        }
    }
}

void HighAvailability::resyncNow(std::string const& family, std::chrono::seconds limit) {
    auto const settings = m_settings.get();
    if (settings->resyncCommand.empty() || !isActive()) {
        return;
    }
    CommandOutcome const outcome = runCommand(settings->resyncCommand, limit, {"VELLUM_FAMILY=" + family});
    if (outcome.hasSucceeded()) {
        m_resyncing.ends("high availability: " + shown(settings->resyncCommand) + " succeeds again");
    } else {
        m_resyncing.begins("high availability: " + shown(settings->resyncCommand) + ' ' + outcome.asString(limit));
    }
}

} // namespace Vellum::Daemon
