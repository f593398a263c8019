#include "dbdaemon/Journal.h"

#include "dbdaemon/FileOperations.h"
#include "dbdaemon/JournalName.h"
#include "foundation/Exception.h"
#include "foundation/File.h"
#include "foundation/Logger.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace Vellum::DatabaseDaemon {

namespace {

constexpr std::string_view incoming = ".incoming-";
constexpr std::string_view unfinishedOutcomes = ".outcomes."; // of a crash

Exception failure(std::string const& what) {
    return Exception("Journal", Exception::failure).stringParameter(what);
}

std::set<std::string> namesIn(std::string const& directory) {
    std::set<std::string> names;
    std::error_code error;
    for (auto const& entry : std::filesystem::directory_iterator(directory, error)) {
        names.insert(entry.path().filename().string());
    }
    if (error) {
        throw failure("reading " + directory + ": " + error.message());
    }
    return names;
}

// Nothing for a file that is not there.
std::string contentOf(std::string const& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file && errno != ENOENT) {
        throw failure("opening " + path + ": " + std::strerror(errno));
    }
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void note(Logger::Severity severity, std::string const& text) {
    Logger::instance(false).note(severity, text);
}

} // namespace

Journal::Journal(std::string const& directory) : m_directory(directory) {
    makeDirectory(directory);
    lockDirectory();
    makeDirectory(directory + "/failed");
    readDirectory();
}

void Journal::lockDirectory() {
    struct stat status {};
    if (stat(m_directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        throw failure(m_directory + " is not a directory");
    }
    if (status.st_uid != geteuid() || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        throw failure(m_directory + " must belong to the daemon's user and be writable by nobody else");
    }
    std::string const path = m_directory + "/lock";
    m_lockFile = FileDescriptor(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!m_lockFile) {
        throw failure("opening " + path + ": " + std::strerror(errno));
    }
    if (flock(m_lockFile.get(), LOCK_EX | LOCK_NB) != 0) {
        throw failure(errno == EWOULDBLOCK ? "another vellum-dbd uses the journal " + m_directory
                                           : "locking " + path + ": " + std::strerror(errno));
    }
}

void Journal::readDirectory() {
    Synchronized const held(m_lock);
    std::set<std::int32_t> codes;
    for (std::string const& name : namesIn(m_directory)) {
        if (name.starts_with(incoming) || name.starts_with(unfinishedOutcomes)) {
            removeFile(m_directory + '/' + name);
        } else if (auto const entry = JournalName::parse(name)) {
            m_entries[entry->number] =
                State{entry->code, Step::waiting, modificationTime(pathOf(entry->number, entry->code))};
            m_lastNumber = std::max(m_lastNumber, entry->number);
            codes.insert(entry->code);
        }
    }
    for (std::string const& name : namesIn(m_directory + "/failed")) {
        if (auto const entry = JournalName::parse(name)) {
            m_lastNumber = std::max(m_lastNumber, entry->number); // two failures never share a name
        }
    }
    m_outcomes = parseScriptOutcomes(contentOf(outcomesPath()));
    for (std::int32_t const code : codes) {
        dropSuperseded(code);
    }
    if (!m_entries.empty()) {
        note(Logger::Severity::info, std::to_string(m_entries.size()) + " unfinished scripts in " + m_directory);
    }
}

Journal::Entry Journal::accept(std::int32_t code, int script) {
    Entry entry{0, code, ""};
    {
        Synchronized const held(m_lock);
        entry.number = ++m_lastNumber;
        entry.path = pathOf(entry.number, code);
        m_entries[entry.number] =
            State{code, Step::arriving, std::time(nullptr)}; // known before its file is there: nothing can fail then
    }
    try {
        copyIn(script, m_directory + '/' + std::string(incoming) + std::to_string(entry.number), entry.path);
    } catch (...) {
        Synchronized const held(m_lock);
        m_entries.erase(entry.number);
        throw;
    }
    Synchronized const held(m_lock);
    m_entries.find(entry.number)->second.step = Step::waiting;
    dropSuperseded(code);
    return entry;
}

void Journal::copyIn(int script, std::string const& temporary, std::string const& final) const {
    struct stat status {};
    if (fstat(script, &status) != 0) {
        throw failure(std::string("reading the script: ") + std::strerror(errno));
    }
    copyToNewFile(script, static_cast<std::uint64_t>(status.st_size), temporary);
    try {
        renameFile(temporary, final);
        syncDirectory(m_directory);
    } catch (...) {
        // Whoever asked is told that it was not accepted, so it must not run after a restart either.
        unlink(temporary.c_str());
        unlink(final.c_str());
        throw;
    }
}

std::vector<Journal::Entry> Journal::waiting() const {
    Synchronized const held(m_lock);
    std::vector<Entry> all;
    for (auto const& [serial, state] : m_entries) {
        if (state.step == Step::waiting) {
            all.push_back({serial, state.code, pathOf(serial, state.code)});
        }
    }
    return all;
}

bool Journal::begin(Entry const& entry) {
    Synchronized const held(m_lock);
    auto const found = m_entries.find(entry.number);
    if (found == m_entries.end()) {
        return false;
    }
    found->second.step = Step::running;
    return true;
}

void Journal::giveBack(Entry const& entry) noexcept {
    Synchronized const held(m_lock);
    auto const found = m_entries.find(entry.number);
    bool const ran = found != m_entries.end() && found->second.step == Step::running; // or the trouble came after it
    if (ran) {
        found->second.step = Step::waiting;
    }
    dropSuperseded(entry.code);
}

void Journal::finish(Entry const& entry) {
    Synchronized const held(m_lock);
    State& state = m_entries.find(entry.number)->second;
    state.step = Step::done;
    noteOutcome(entry, [&](ScriptOutcome& outcome) {
        outcome = {ScriptOutcome::Run{entry.number, state.acceptedAt}, std::nullopt};
    });
    if (!dropSuperseded(entry.code)) {
        // An older script would be the newest one after a restart, and take the tables back to its state.
        throw failure("an older script than " + entry.path + " cannot be removed");
    }
    removeFile(entry.path);
    m_entries.erase(entry.number);
    syncDirectory(m_directory);
}

void Journal::fail(Entry const& entry, std::string const& reason) {
    Synchronized const held(m_lock);
    m_entries.find(entry.number)->second.step = Step::done; // known until it is moved, whatever fails
    noteOutcome(entry, [&](ScriptOutcome& outcome) {
        outcome.refused = {entry.number, static_cast<long>(std::time(nullptr)), reason.substr(0, longestReason)};
    });
    renameFile(entry.path, m_directory + "/failed/" + JournalName{entry.number, entry.code}.asString());
    m_entries.erase(entry.number);
    syncDirectory(m_directory + "/failed");
    syncDirectory(m_directory);
    pruneFailures(entry.code);
}

// Before the script is out of the way: after a crash in between it is run again, and that is noted again. What cannot
// be noted is logged and keeps nothing from going on.
template <class Change>
void Journal::noteOutcome(Entry const& entry, Change change) {
    try {
        change(m_outcomes[entry.code]);
        File::basic_ofstream<char> file{File::Path(outcomesPath())};
        file << asText(m_outcomes);
        file.commit();
        syncDirectory(m_directory);
    } catch (std::exception const& failed) {
        note(Logger::Severity::error, "what became of script " + std::to_string(entry.number) +
                                          " would not be known after a restart: " + failed.what());
    }
}

ScriptOutcomes Journal::outcomes() const {
    Synchronized const held(m_lock);
    return m_outcomes;
}

// Removes what is older than the newest script of the code. Answers whether all of it is gone, but for what is running.
// Never throws: what could not be dropped is tried again with the next script, and at the next start.
bool Journal::dropSuperseded(std::int32_t code) {
    auto const counts = [&](auto const& entry) {
        return entry.second.code == code && entry.second.step != Step::arriving;
    };
    auto const newest = std::find_if(m_entries.rbegin(), m_entries.rend(), counts);
    bool gone = true;
    for (auto entry = m_entries.begin(); newest != m_entries.rend() && entry->first < newest->first;) {
        if (!counts(*entry) || entry->second.step == Step::running) {
            ++entry;
        } else if (isRemoved(entry->first, code)) {
            entry = m_entries.erase(entry);
        } else {
            gone = false;
            ++entry;
        }
    }
    return gone;
}

bool Journal::isRemoved(std::uint64_t number, std::int32_t code) const {
    try {
        try {
            removeFile(pathOf(number, code));
        } catch (Exception const& failed) {
            note(Logger::Severity::error, failed.asString());
            return false;
        }
        note(Logger::Severity::info, "script " + std::to_string(number) + " of request code " + std::to_string(code) +
                                         " is superseded by a newer one and dropped");
    } catch (std::bad_alloc const&) { // tried again, whether the file is gone or not
        return false;
    }
    return true;
}

void Journal::pruneFailures(std::int32_t code) const {
    std::vector<std::string> ofCode; // oldest first, because names sort by number
    for (std::string const& name : namesIn(m_directory + "/failed")) {
        if (auto const entry = JournalName::parse(name); entry && entry->code == code) {
            ofCode.push_back(name);
        }
    }
    for (std::size_t i = 0; i + keptFailures < ofCode.size(); ++i) {
        removeFile(m_directory + "/failed/" + ofCode[i]);
    }
}

std::string Journal::pathOf(std::uint64_t number, std::int32_t code) const {
    return m_directory + '/' + JournalName{number, code}.asString();
}

} // namespace Vellum::DatabaseDaemon
