#include "foundation/Escape.h"
#include "tools/vellum-replay/Ranking.h"
#include "tools/vellum-replay/Report.h"

#include <nlohmann/json.hpp>

namespace Vellum::Tools {
namespace {

using Daemon::Verdict;
using Json = nlohmann::ordered_json;

Json countsOf(Counts const& counts) {
    return {{"messages", counts.messages},
            {"deferred", counts.deferred},
            {"never_let_in", counts.lost},
            {"mean_delay_seconds", counts.meanDelay()},
            {"longest_delay_seconds", counts.longest}};
}

// The counts, with the name of what they are of in front.
Json countsOf(char const* key, Json const& name, Counts const& counts) {
    Json object{{key, name}};
    object.update(countsOf(counts));
    return object;
}

Json settingsOf(Findings const& findings) {
    Daemon::GreylistSettings const& settings = findings.settings;
    return {{"delay_minutes", settings.delayMinutes},
            {"first_life_hours", settings.firstLifeHours},
            {"life_days", settings.lifeDays},
            {"max_records", settings.maxRecords},
            {"auto_exempt_after", settings.autoExemptAfter},
            {"exempt_rules", findings.rules},
            {"fold_extension", settings.folding.extension},
            {"fold_bounce_digits", settings.folding.bounceDigits},
            {"lowercase_local_part", settings.folding.lowercaseLocalPart},
            {"assumed_retries", findings.retries.describe()}};
}

Json reasonsOf(std::array<std::uint64_t, Daemon::greylistReasonCount> const& counts) {
    Json object = Json::object();
    for (unsigned int i = 0; i < Daemon::greylistReasonCount; ++i) {
        object[std::string(reasonText(static_cast<Verdict::Reason>(i)))] = counts[i];
    }
    return object;
}

Json skippedOf(Findings const& findings) {
    Json rows = Json::array();
    for (SkippedRows::Row const& row : findings.skipped.first()) {
        rows.push_back({{"line", row.line}, {"reason", row.reason}});
    }
    Json events = Json::object();
    for (auto const& [event, count] : findings.file.otherEvents()) {
        events[escapeForLog(event)] = count;
    }
    return {{"rows", findings.skipped.count()}, {"first", rows}, {"other_events", events}};
}

Json delaysOf(Statistics& statistics) {
    Json object = Json::object();
    for (unsigned int const part : {10U, 25U, 50U, 75U, 90U, 99U, 100U}) {
        object["p" + std::to_string(part)] = statistics.delayPercentile(part);
    }
    return object;
}

Json hoursOf(Statistics const& statistics, bool perHour) {
    Json rows = Json::array();
    if (perHour) {
        for (auto const& [hour, counts] : statistics.byHour) {
            rows.push_back(countsOf("start", hour, counts));
        }
        return rows;
    }
    for (std::size_t hour = 0; hour < statistics.byDayHour.size(); ++hour) {
        rows.push_back(countsOf("hour_of_day", hour, statistics.byDayHour[hour]));
    }
    return rows;
}

Json networksOf(Statistics const& statistics, std::size_t most) {
    Json rows = Json::array();
    for (auto const* entry : Rankings::busiestNetworks(statistics, most)) {
        Json row = countsOf("network", entry->first.asString(), entry->second.counts);
        row["passed_by_exemption"] = entry->second.autoExempt;
        rows.push_back(row);
    }
    return rows;
}

template <class Ranking>
Json sendersOf(Ranking const& ranking) {
    Json rows = Json::array();
    for (auto const* entry : ranking) {
        rows.push_back(countsOf("sender", escapeForLog(entry->first), entry->second));
    }
    return rows;
}

} // namespace

void writeJson(std::ostream& out, Findings const& findings, ReportOptions const& options) {
    Statistics& statistics = findings.statistics;
    Json report;
    report["file"] = escapeForLog(findings.path);
    report["begin"] = statistics.begin;
    report["end"] = statistics.end;
    report["settings"] = settingsOf(findings);
    report["skipped"] = skippedOf(findings);
    report["total"] = countsOf(statistics.total);
    report["first_answers"] = reasonsOf(statistics.firstReasons);
    report["all_answers"] = reasonsOf(statistics.answers);
    report["exemptions_earned"] = statistics.exemptionsEarned;
    report["delay_seconds"] = delaysOf(statistics);
    report["labels"] = {{"none", countsOf(statistics.byLabel[static_cast<std::size_t>(Label::none)])},
                        {"ham", countsOf(statistics.byLabel[static_cast<std::size_t>(Label::ham)])},
                        {"spam", countsOf(statistics.byLabel[static_cast<std::size_t>(Label::spam)])}};
    report["hours"] = hoursOf(statistics, options.perHour);
    report["networks"] = networksOf(statistics, options.top);
    report["slowest_senders"] = sendersOf(Rankings::slowestSenders(statistics, options.top));
    report["most_deferred_senders"] = sendersOf(Rankings::mostDeferredSenders(statistics, options.top));
    out << report.dump(2) << '\n';
}

} // namespace Vellum::Tools
