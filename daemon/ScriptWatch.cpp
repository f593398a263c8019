#include "daemon/ScriptWatch.h"

#include "foundation/Logger.h"

#include <string>
#include <utility>

namespace Vellum::Daemon {

using DatabaseDaemon::RequestCode;
using DatabaseDaemon::ScriptOutcome;
using DatabaseDaemon::ScriptOutcomes;

namespace {

void sayWhatHasChanged(ScriptFamily const& family, ScriptOutcome const& before, ScriptOutcome const& after) {
    if (before.refused == after.refused) {
        return;
    }
    Logger& log = Logger::instance(false);
    std::string const name = family.name;
    if (after.refused) {
        log.note(Logger::Severity::error, "the last script of " + name + " was refused: " + after.refused->reason +
                                              "; the tables hold what was saved before it, and vellum-dbd keeps it in "
                                              "failed/ of its journal as script " +
                                              std::to_string(after.refused->number));
    } else {
        log.note(Logger::Severity::warning, "scripts of " + name + " are run again");
    }
}

} // namespace

ScriptOutcome outcomeOf(ScriptOutcomes const& outcomes, RequestCode code) {
    auto const found = outcomes.find(static_cast<std::int32_t>(code));
    return found == outcomes.end() ? ScriptOutcome{} : found->second;
}

void ScriptWatch::look() {
    ScriptOutcomes told = outcomes();
    ScriptOutcomes const before = told;
    bool const answered = DatabaseDaemon::askForOutcomes(told) != DatabaseDaemon::Answer::unreachable;
    for (ScriptFamily const& family : scriptFamilies) {
        sayWhatHasChanged(family, outcomeOf(before, family.code), outcomeOf(told, family.code));
    }
    bool answeredBefore = true;
    {
        Synchronized const hold(m_lock);
        answeredBefore = m_answered.value_or(true);
        m_answered = answered;
        m_outcomes = std::move(told);
    }
    if (answeredBefore && !answered) {
        Logger::instance(false).note(Logger::Severity::error, "the database daemon on " + DatabaseDaemon::socketPath() +
                                                                  " does not answer; backups fail until it does");
    } else if (answered && !answeredBefore) {
        Logger::instance(false).note(Logger::Severity::warning, "the database daemon answers again");
    }
}

void ScriptWatch::isUnreachable() {
    Synchronized const hold(m_lock);
    m_answered = false;
}

std::optional<bool> ScriptWatch::isAnswered() const {
    Synchronized const hold(m_lock);
    return m_answered;
}

ScriptOutcomes ScriptWatch::outcomes() const {
    Synchronized const hold(m_lock);
    return m_outcomes;
}

} // namespace Vellum::Daemon
