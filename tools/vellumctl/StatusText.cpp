#include "tools/vellumctl/StatusText.h"

#include "foundation/Escape.h"
#include "tools/vellumctl/TimeText.h"

#include <algorithm>

namespace Vellum::Tools {
namespace {

constexpr std::size_t labelColumns = 13;

// A member, or null.
Json const& part(Json const& json, char const* key) {
    static Json const absent;
    if (!json.is_object()) {
        return absent;
    }
    auto const found = json.find(key);
    return found == json.end() ? absent : *found;
}

std::string text(Json const& json) {
    return json.is_null() ? "-" : escapeForLog(json.get<std::string>());
}

// A number with a fraction is none that a daemon sends, and most of them fit into no integer.
std::int64_t whole(Json const& json) {
    return json.is_null() || json.is_number_float() ? 0 : json.get<std::int64_t>();
}

bool flag(Json const& json) {
    return !json.is_null() && json.get<bool>();
}

std::string count(std::int64_t number, char const* one, char const* many) {
    return std::to_string(number) + " " + (number == 1 ? one : many);
}

// Of an object with "records" and "addresses" of sender reputation, with "slices" and "subscribers" of endpoints, or
// with "tuples" and "exemptions".
std::string recordsText(Json const& json) {
    if (!part(json, "slices").is_null()) {
        return count(whole(part(json, "slices")), "slice", "slices") + " of " +
               count(whole(part(json, "subscribers")), "subscriber", "subscribers");
    }
    if (!part(json, "records").is_null()) {
        return count(whole(part(json, "records")), "hour", "hours") + " of " +
               count(whole(part(json, "addresses")), "address", "addresses");
    }
    return count(whole(part(json, "tuples")), "tuple", "tuples") + " and " +
           count(whole(part(json, "exemptions")), "exemption", "exemptions");
}

// Labels and values; a label is shown once for all its values.
class Lines {
  public:
    void add(std::string const& label, std::string const& value) {
        std::string const shown = label == m_label ? "" : label;
        m_label = label;
        m_text += shown + std::string(labelColumns - shown.size(), ' ') + value + "\n";
    }
    std::string const& all() const { return m_text; }

  private:
    std::string m_label;
    std::string m_text;
};

std::string daemonText(Json const& status) {
    std::int64_t const up = whole(part(status, "uptime_seconds"));
    return text(part(status, "version")) + ", process " + std::to_string(whole(part(status, "pid"))) + ", up " +
           durationText(up) + " (since " + localTime(whole(part(status, "started"))) + ")";
}

std::string listenersText(Json const& listeners) {
    std::string all;
    for (Json const& listener : listeners) {
        all += (all.empty() ? "" : ", ") + text(listener);
    }
    return all.empty() ? "-" : all;
}

std::string loadText(Json const& load) {
    if (!flag(part(load, "attempted"))) {
        return "nothing loaded yet";
    }
    if (!flag(part(load, "loaded"))) {
        return "THE LAST LOAD FAILED: " + text(part(load, "problem"));
    }
    return count(whole(part(load, "rows")), "row", "rows") + " loaded";
}

std::string cacheText(Json const& cache) {
    std::int64_t const size = whole(part(cache, "size"));
    std::int64_t const capacity = whole(part(cache, "capacity"));
    double const percent = capacity > 0 ? std::clamp(100.0 * double(size) / double(capacity), 0.0, 100.0) : 0.0;
    std::string const share = capacity > 0 ? " (" + std::to_string(static_cast<int>(percent)) + " %)" : "";
    return std::to_string(size) + " of " + std::to_string(capacity) + share + "; " + loadText(part(cache, "load"));
}

std::string lastBackupText(Json const& last, std::int64_t now) {
    return last.is_null() ? "none since the start"
                          : timeText(whole(part(last, "started")), now) + ": " + backupText(last);
}

std::string databaseText(Json const& database, std::int64_t now) {
    Json const& reachable = part(database, "reachable");
    if (reachable.is_null()) {
        return "not asked yet";
    }
    std::string const when = ", as of " + timeText(whole(part(database, "as_of")), now);
    return flag(reachable) ? "reachable" + when : "NOT REACHABLE" + when + ": " + text(part(database, "problem"));
}

// What became of scripts after they were accepted: only what is wrong.
void addRefusal(Lines& lines, std::string const& label, Json const& backup, std::int64_t now) {
    Json const& refused = part(backup, "refused");
    if (refused.is_null()) {
        return;
    }
    lines.add(label, "THE LAST SCRIPT WAS REFUSED, " + timeText(whole(part(refused, "time")), now) + ": " +
                         text(part(refused, "reason")));
    Json const& ran = part(backup, "ran");
    lines.add(label, ran.is_null() ? "the tables hold what was saved before it"
                                   : "the tables hold the backup of " + timeText(whole(part(ran, "accepted")), now));
}

void addBackup(Lines& lines, std::string const& label, Json const& backup, std::int64_t now) {
    lines.add(label, flag(part(backup, "allowed")) ? "backups on" : "BACKUPS OFF: " + text(part(backup, "reason")));
    lines.add(label, "last backup " + lastBackupText(part(backup, "last"), now));
    addRefusal(lines, label, backup, now);
}

// By front: a recipient that both were asked about is counted by both.
void addDecisions(Lines& lines, Json const& fronts) {
    for (Json const& front : fronts) {
        for (Json const& decision : part(front, "decisions")) {
            std::string what = text(part(front, "front")) + " " + text(part(decision, "action")) + " " +
                               text(part(decision, "reason"));
            constexpr std::size_t columns = 31;
            what.resize(std::max(what.size() + 1, columns), ' ');
            lines.add("Decisions", what + std::to_string(whole(part(decision, "count"))));
        }
    }
}

} // namespace

std::string statusText(Json const& status, std::int64_t now) {
    Json const& backup = part(status, "backup");
    Json const& greylist = part(status, "greylist");
    Lines lines;
    lines.add("Daemon", daemonText(status));
    lines.add("Settings", text(part(status, "settings")));
    lines.add("Policy", listenersText(part(status, "policy_listeners")));
    if (part(status, "active") == false) {
        lines.add("Unit", "STANDBY: another one is active and makes the backups");
    }
    lines.add("Tuples", cacheText(part(greylist, "tuples")));
    lines.add("Exemptions", cacheText(part(greylist, "exemptions")));
    lines.add("Backups", flag(part(backup, "allowed")) ? "on" : "OFF: " + text(part(backup, "reason")));
    lines.add("Last backup", lastBackupText(part(backup, "last"), now));
    addRefusal(lines, "Last backup", backup, now);
    if (Json const& reputation = part(status, "reputation"); !reputation.is_null()) {
        lines.add("Reputation", cacheText(part(reputation, "entries")));
        addBackup(lines, "Reputation", part(reputation, "backup"), now);
    }
    if (Json const& endpoints = part(status, "endpoints"); !endpoints.is_null()) {
        lines.add("Endpoints", cacheText(part(endpoints, "entries")));
        lines.add("Endpoints", "exempt list: " + loadText(part(part(endpoints, "exempt_list"), "load")));
        lines.add("Endpoints", "blacklist: " + loadText(part(part(endpoints, "blacklist"), "load")));
        addBackup(lines, "Endpoints", part(endpoints, "backup"), now);
    }
    lines.add("Database", databaseText(part(status, "database"), now));
    addDecisions(lines, part(status, "fronts"));
    return lines.all();
}

std::string loadProblem(Json const& status) {
    std::string problems;
    for (char const* half : {"tuples", "exemptions"}) {
        Json const& load = part(part(part(status, "greylist"), half), "load");
        if (!flag(part(load, "loaded"))) {
            std::string const why = flag(part(load, "attempted")) ? text(part(load, "problem")) : "not tried";
            problems += (problems.empty() ? "" : "; ") + std::string("the ") + half + " could not be loaded: " + why;
        }
    }
    return problems;
}

std::string loadedText(Json const& status) {
    Json const& greylist = part(status, "greylist");
    auto const rows = [&](char const* half) {
        return part(part(part(greylist, half), "load"), "rows");
    };
    return recordsText({{"tuples", rows("tuples")}, {"exemptions", rows("exemptions")}}) + " loaded";
}

std::string reputationLoadProblem(Json const& status) {
    Json const& load = part(part(part(status, "reputation"), "entries"), "load");
    if (flag(part(load, "loaded"))) {
        return {};
    }
    return "sender reputation could not be loaded: " +
           (flag(part(load, "attempted")) ? text(part(load, "problem")) : "not tried");
}

std::string reputationLoadedText(Json const& status) {
    Json const& load = part(part(part(status, "reputation"), "entries"), "load");
    return count(whole(part(load, "rows")), "hour", "hours") + " loaded";
}

std::string endpointLoadProblem(Json const& status) {
    // A load ends at the first part that fails, and what comes behind it is missed for the same reason.
    std::string problems;
    std::string told;
    for (auto const& [key, name] : {std::pair{"entries", "the endpoint entries"},
                                    {"exempt_list", "the exempt list"},
                                    {"blacklist", "the blacklist"}}) {
        Json const& load = part(part(part(status, "endpoints"), key), "load");
        std::string const why = flag(part(load, "attempted")) ? text(part(load, "problem")) : "not tried";
        if (!flag(part(load, "loaded")) && why != told) {
            problems += (problems.empty() ? "" : "; ") + std::string(name) + " could not be loaded: " + why;
            told = why;
        }
    }
    return problems;
}

std::string endpointLoadedText(Json const& status) {
    Json const& endpoints = part(status, "endpoints");
    auto const rows = [&](char const* key) {
        return whole(part(part(part(endpoints, key), "load"), "rows"));
    };
    return count(rows("entries"), "slice", "slices") + ", " + std::to_string(rows("exempt_list")) + " exempt and " +
           count(rows("blacklist"), "blacklisted number", "blacklisted numbers") + " loaded";
}

std::string acceptedBackupText(Json const& answer) {
    std::string const accepted = "accepted by the database daemon: ";
    std::string all = accepted + backupText(answer) + "\n";
    for (char const* family : {"reputation", "endpoints"}) {
        if (Json const& report = part(answer, family); !report.is_null()) {
            all += accepted + backupText(report) + "\n";
        }
    }
    return all;
}

std::string backupText(Json const& report) {
    if (!flag(part(report, "accepted"))) {
        return "FAILED: " + text(part(report, "problem"));
    }
    std::int64_t const leftOut = whole(part(report, "left_out"));
    return recordsText(report) + ", " + bytesText(static_cast<std::uint64_t>(whole(part(report, "bytes")))) + " in " +
           millisecondsText(static_cast<std::uint64_t>(whole(part(report, "milliseconds")))) +
           (leftOut > 0 ? ", " + count(leftOut, "record", "records") + " left out (the log says which)" : "");
}

std::string previewText(Json const& preview, std::int64_t now) {
    Json const& script = part(preview, "script");
    std::int64_t const newest = whole(part(script, "newest"));
    Lines lines;
    lines.add("Script", text(part(preview, "path")));
    lines.add("Script", "written " + timeText(whole(part(script, "modified")), now) + ", " +
                            bytesText(static_cast<std::uint64_t>(whole(part(script, "bytes")))));
    Json const& hours = part(script, "reputations");
    Json const& slices = part(script, "slices");
    if (!hours.is_null()) {
        lines.add("Script", count(whole(hours), "hour", "hours") + " of sender reputation");
    } else if (!slices.is_null()) {
        lines.add("Script", count(whole(slices), "slice", "slices") + " of endpoints");
    } else {
        lines.add("Script", recordsText(script) + (newest == 0 ? "" : ", the newest of " + timeText(newest, now)));
    }
    if (!flag(part(script, "complete"))) {
        lines.add("Script", "IT DOES NOT END AS A BACKUP DOES, and will be refused");
    }
    if (!hours.is_null()) {
        lines.add("Replaces",
                  count(whole(part(part(preview, "tables"), "reputations")), "hour", "hours") + " in the tables");
        lines.add("Replaces", count(whole(part(part(preview, "caches"), "addresses")), "address", "addresses") +
                                  " in the daemon's memory");
        return lines.all() + "Whatever is newer than the script is lost.\n";
    }
    if (!slices.is_null()) {
        Json const& replaced = part(part(preview, "tables"), "slices");
        Json const& held = part(part(preview, "caches"), "subscribers");
        lines.add("Replaces", count(whole(replaced), "slice", "slices") + " in the tables");
        lines.add("Replaces", count(whole(held), "subscriber", "subscribers") + " in the daemon's memory");
        return lines.all() + "Whatever is newer than the script is lost.\n";
    }
    lines.add("Replaces", recordsText(part(preview, "tables")) + " in the tables");
    lines.add("Replaces", recordsText(part(preview, "caches")) + " in the daemon's memory");
    return lines.all() + "Whatever is newer than the script is lost.\n";
}

std::string restoredText(Json const& outcome) {
    Json const& loaded = part(outcome, "loaded");
    Json const& hours = part(loaded, "reputations");
    Json const& slices = part(loaded, "slices");
    std::string const what = !hours.is_null()    ? count(whole(hours), "hour", "hours")
                             : !slices.is_null() ? count(whole(slices), "slice", "slices")
                                                 : recordsText(loaded);
    return "restored: " + what + " loaded in " +
           millisecondsText(static_cast<std::uint64_t>(whole(part(outcome, "milliseconds")))) + "\n";
}

std::string acceptedText(Json const& answer) {
    if (!flag(part(answer, "changed"))) {
        return "nothing to accept: backups are on\n";
    }
    Json const& addresses = part(answer, "addresses");
    Json const& subscribers = part(answer, "subscribers");
    std::string const what = !addresses.is_null()     ? count(whole(addresses), "address", "addresses")
                             : !subscribers.is_null() ? count(whole(subscribers), "subscriber", "subscribers")
                                                      : recordsText(answer);
    return "accepted: the next backup replaces the tables by " + what + "\n";
}

} // namespace Vellum::Tools
