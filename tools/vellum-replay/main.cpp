// vellum-replay: what would greylisting have done with this mail?
//
// Exit status: 0 done; 1 a file could not be read or is wrong; 2 the command line is wrong; 3 done, but there was no
// message to play.

#include "daemon/ExemptRules.h"
#include "daemon/GreylistConfiguration.h"
#include "foundation/Logger.h"
#include "foundation/Privileges.h"
#include "foundation/Version.h"
#include "tools/vellum-replay/Replay.h"
#include "tools/vellum-replay/Report.h"
#include "tools/vellumctl/ProgressBar.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <iostream>

namespace Vellum::Tools {
namespace {

constexpr int exitFailed = 1;
constexpr int exitUsage = 2;
constexpr int exitNothingToPlay = 3;

// The library logs what a daemon should; here the report says it.
class QuietLogger : public Logger {
  protected:
    using Logger::write;
    void write(Severity, std::string_view) override {}
    void write(Record const&) override {}
};

struct Options {
    std::string file;
    std::string settings;
    std::string rules;
    std::string from;
    std::string until;
    std::string retry;
    double giveUpHours = 120;
    bool rejected = false;
    bool ignoreDelays = false;
    bool json = false;
    ReportOptions report;
};

// "2026-01-05", "2026-01-05 08:00:00" (UTC) or seconds since the epoch.
long timeOf(std::string const& text) {
    long seconds = 0;
    char const* const end = text.data() + text.size();
    if (auto const [last, error] = std::from_chars(text.data(), end, seconds); error == std::errc() && last == end) {
        return seconds;
    }
    for (char const* form : {"%Y-%m-%d %H:%M:%S", "%Y-%m-%d"}) {
        std::tm parts{};
        char const* const rest = strptime(text.c_str(), form, &parts);
        if (rest != nullptr && *rest == '\0') {
            return timegm(&parts);
        }
    }
    throw CLI::ValidationError("\"" + text + "\" is neither YYYY-MM-DD, \"YYYY-MM-DD HH:MM:SS\" nor seconds");
}

long secondsOf(std::string const& minutes) {
    double number = 0;
    char const* const end = minutes.data() + minutes.size();
    auto const [last, error] = std::from_chars(minutes.data(), end, number);
    long const seconds = std::isfinite(number) && number < 1e6 ? std::lround(number * 60) : 0;
    if (error != std::errc() || last != end || seconds < 1) {
        throw CLI::ValidationError("--retry: \"" + minutes + "\" is not a number of minutes above 0");
    }
    return seconds;
}

// "10,20,60": minutes, with fractions if need be.
RetryModel retriesOf(Options const& options) {
    std::vector<long> gaps;
    for (std::size_t from = 0; !options.retry.empty() && from != std::string::npos;) {
        std::size_t const comma = options.retry.find(',', from);
        gaps.push_back(secondsOf(options.retry.substr(from, comma - from)));
        from = comma == std::string::npos ? comma : comma + 1;
    }
    return {gaps, std::lround(options.giveUpHours * 3600)};
}

void declare(CLI::App& app, Options& options) {
    app.description("Plays mail that was delivered through Vellum's greylisting, without any daemon or database, and "
                    "tells what would have been deferred.");
    app.set_version_flag("--version", std::string("vellum-replay ") + version);
    app.add_option("FILE", options.file, "Envelopes, one in a line, plain or gzip; \"-\" for standard input")
        ->required();
    app.add_option("--settings", options.settings, "Take [greylist] from this settings file of vellumd");
    app.add_option("--rules", options.rules, "Take exempt rules from this file, instead of the one in the settings");
    app.add_option("--from", options.from, "Play only rows from this time on: YYYY-MM-DD[ HH:MM:SS] UTC, or seconds");
    app.add_option("--until", options.until, "Play only rows before this time");
    app.add_option("--retry", options.retry,
                   "Assume that deferred mail comes back after so many MINUTES, the last of a list repeated "
                   "(10,20,60); without it, each network at a pace measured on real mail");
    app.add_option("--give-up", options.giveUpHours, "Assume that servers try for so many HOURS")
        ->capture_default_str()
        ->check(CLI::Range(0.0, 1e5));
    app.add_flag("--ignore-delays", options.ignoreDelays,
                 "Where a row tells of a refused first attempt, assume its retries as for all others");
    app.add_flag("--with-rejected", options.rejected, "Play attempts that other checks rejected, too, as they came");
    app.add_option("--top", options.report.top, "Rows of each ranking")->capture_default_str();
    app.add_flag("--per-hour", options.report.perHour, "One row for each hour with mail, not for each hour of the day");
    app.add_flag("--json", options.json, "Write one JSON object");
}

GreyList::RefExemptRuleSet rulesOf(Daemon::GreylistSettings const& settings) {
    if (settings.rules.empty()) {
        return GreyList::RefExemptRuleSet("exempt rules");
    }
    return Daemon::loadExemptRules(settings.rules, GreyList::RefConfiguration::instance(nullptr)->maxExemptRules());
}

int replay(Options const& options) {
    Daemon::GreylistSettings settings =
        options.settings.empty() ? Daemon::GreylistSettings{} : Daemon::loadGreylistSettings(options.settings);
    settings.rules = options.rules.empty() ? settings.rules : options.rules;
    EnvelopeFile::Selection selection;
    selection.from = options.from.empty() ? selection.from : timeOf(options.from);
    selection.until = options.until.empty() ? selection.until : timeOf(options.until);
    selection.rejected = options.rejected;
    selection.ignoreDelays = options.ignoreDelays;
    RetryModel const retries = retriesOf(options);

    GreyList::RefConfiguration::instance(new Daemon::GreylistConfiguration(settings, ""));
    GreyList::RefExemptRuleSet const rules = rulesOf(settings);
    GreyList::_TupleCache tuples;
    GreyList::_DynamicExemptCache exemptions;
    Daemon::Decision decision(tuples, exemptions,
                              {settings.enabled, settings.folding, settings.autoExemptAfter, rules});
    SkippedRows skipped;
    EnvelopeFile const file(options.file, selection, skipped);
    Statistics statistics;
    {
        ProgressBar bar(standardErrorTerminal(), "rows");
        Replay(decision, retries, statistics, skipped, [&](std::size_t done) {
            bar.update(done, file.envelopes().size());
        }).run(file.envelopes());
    }
    Findings const findings{options.file, settings, rules->rules().size(), retries, file, skipped, statistics};
    (options.json ? writeJson : writeText)(std::cout, findings, options.report);
    return statistics.total.messages == 0 ? exitNothingToPlay : 0;
}

int run(int argc, char** argv) {
    QuietLogger quiet;
    Logger::install(&quiet);
    CLI::App app;
    Options options;
    declare(app, options);
    try {
        closeMemory(); // the settings hold the database's password, the envelopes people's addresses
        app.parse(argc, argv);
        return replay(options);
    } catch (CLI::ParseError const& problem) {
        return app.exit(problem) == 0 ? 0 : exitUsage;
    } catch (SettingsError const& problem) {
        std::cerr << "vellum-replay: " << escapeControls(problem.message()) << '\n';
    } catch (Exception const& problem) {
        std::cerr << "vellum-replay: "
                  << (problem.stringParameters().empty() ? problem.asString() : problem.stringParameters().front())
                  << '\n';
    } catch (std::exception const& problem) {
        std::cerr << "vellum-replay: " << problem.what() << '\n';
    }
    return exitFailed;
}

} // namespace
} // namespace Vellum::Tools

int main(int argc, char** argv) {
    return Vellum::Tools::run(argc, argv);
}
