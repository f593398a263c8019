#include "foundation/Escape.h"
#include "tools/vellum-replay/Format.h"
#include "tools/vellum-replay/Ranking.h"
#include "tools/vellum-replay/Report.h"
#include "tools/vellumctl/TimeText.h"

namespace Vellum::Tools {
namespace {

using Daemon::actionOf;
using Daemon::Verdict;

std::string number(std::uint64_t value) {
    return std::to_string(value);
}

std::string meanDelay(Counts const& counts) {
    return counts.arrivedLate() == 0 ? "-" : durationText(counts.meanDelay());
}

class TextReport {
  public:
    TextReport(std::ostream& out, Findings const& findings, ReportOptions const& options)
        : m_out(out), m_findings(findings), m_statistics(findings.statistics), m_options(options) {}

    void write() {
        writeHead();
        writeSkipped();
        if (m_statistics.total.messages == 0) {
            m_out << "\nNo message to play.\n";
            return;
        }
        writeOutcome();
        writeWait();
        writeState();
        writeLabels();
        writeHours();
        writeNetworks();
        writeSenders();
    }

  private:
    void writeHead() {
        m_out << (m_findings.path == "-" ? "standard input" : escapeForLog(m_findings.path)) << ": "
              << several(m_statistics.total.messages, "message") << " to one recipient each";
        if (m_statistics.total.messages > 0) {
            m_out << ", " << utc(m_statistics.begin) << " to " << utc(m_statistics.end) << " UTC";
        }
        m_out << "\n\nPlayed with\n";
        writeParagraph(m_out, describeSettings());
        m_out << "\nAssumed\n";
        writeParagraph(m_out, "Each message was let in when its row says. Had it been deferred, its server would have "
                              "come back " +
                                  m_findings.retries.describe() +
                                  ". Where a row tells of a refused first attempt, that one is played, and the next "
                                  "at the row's own time.");
        writeParagraph(m_out, "Mail that is not in the file is not counted; most spam that is deferred never comes "
                              "back, so it is in no file of mail that was let in.");
    }

    std::string describeSettings() const {
        Daemon::GreylistSettings const& settings = m_findings.settings;
        auto const figure = [](int value, char const* unit) {
            return several(static_cast<std::uint64_t>(value), unit);
        };
        std::string text = settings.enabled ? "" : "greylisting switched off; ";
        text += "delay " + figure(settings.delayMinutes, "minute") + ", first life " +
                figure(settings.firstLifeHours, "hour") + ", life " + figure(settings.lifeDays, "day") + ", room for " +
                figure(settings.maxRecords, "tuple") + "; automatic exemption ";
        text += settings.autoExemptAfter == 0 ? "off" : "after " + several(settings.autoExemptAfter, "tuple");
        text += ", " + several(m_findings.rules, "exempt rule") + "; folded: domains";
        text += settings.folding.extension ? ", extensions" : "";
        text += settings.folding.bounceDigits ? ", numbers of bounce addresses" : "";
        text += settings.folding.lowercaseLocalPart ? ", letter case" : "";
        return text + '.';
    }

    void writeSkipped() {
        SkippedRows const& skipped = m_findings.skipped;
        for (auto const& [event, count] : m_findings.file.otherEvents()) {
            m_out << "\nNot played: " << count << " rows of the event \"" << escapeForLog(event) << "\".";
        }
        m_out << (m_findings.file.otherEvents().empty() ? "" : "\n");
        if (skipped.count() == 0) {
            return;
        }
        m_out << "\nSkipped: " << skipped.count() << " rows that cannot be read\n";
        for (SkippedRows::Row const& row : skipped.first()) {
            m_out << "  line " << row.line << ": " << row.reason << '\n';
        }
        if (skipped.count() > skipped.first().size()) {
            m_out << "  and " << skipped.count() - skipped.first().size() << " more\n";
        }
    }

    void writeOutcome() {
        Counts const& total = m_statistics.total;
        m_out << "\nMessages\n";
        FigureTable table({"messages", "share", "what happened"});
        auto const add = [&](std::uint64_t count, std::string const& what) {
            table.add({number(count), percent(count, total.messages), what});
        };
        add(total.messages - total.deferred, "passed at once");
        addReasons(add, Verdict::Action::pass);
        add(total.deferred, "deferred");
        addReasons(add, Verdict::Action::defer);
        add(total.arrivedLate(), "  and let in later");
        add(total.lost, "  and never let in");
        table.write(m_out);
    }

    template <class Add>
    void addReasons(Add add, Verdict::Action action) {
        for (unsigned int i = 0; i < Daemon::greylistReasonCount; ++i) {
            auto const reason = static_cast<Verdict::Reason>(i);
            if (actionOf(reason) == action && m_statistics.firstReasons[i] > 0) {
                add(m_statistics.firstReasons[i], "  " + std::string(reasonText(reason)));
            }
        }
    }

    void writeWait() {
        if (m_statistics.delays.empty()) {
            return;
        }
        m_out << "\nDelay of the messages let in later\n";
        FigureTable table({"10 %", "25 %", "median", "75 %", "90 %", "99 %", "longest"});
        std::vector<std::string> cells;
        for (unsigned int const part : {10U, 25U, 50U, 75U, 90U, 99U, 100U}) {
            cells.push_back(durationText(m_statistics.delayPercentile(part)));
        }
        table.add(cells);
        table.write(m_out);
    }

    void writeState() {
        auto const answered = [&](Verdict::Reason reason) {
            return m_statistics.answers[static_cast<std::size_t>(reason)];
        };
        std::uint64_t const deferrals = answered(Verdict::Reason::fresh) + answered(Verdict::Reason::restarted) +
                                        answered(Verdict::Reason::earlyRetry);
        m_out << "\nState\n";
        FigureTable table({"count", "of what"});
        table.add({number(answered(Verdict::Reason::fresh)), "tuples made"});
        table.add({number(answered(Verdict::Reason::passed)), "first passes of a tuple"});
        table.add({number(m_statistics.exemptionsEarned), "automatic exemptions earned"});
        table.add({number(answered(Verdict::Reason::autoExempt)), "passes by an automatic exemption"});
        table.add({number(deferrals), "attempts deferred"});
        table.add({number(answered(Verdict::Reason::earlyRetry)), "of these too early"});
        table.write(m_out);
    }

    void writeLabels() {
        auto const& labels = m_statistics.byLabel;
        if (labels[static_cast<std::size_t>(Label::none)].messages == m_statistics.total.messages) {
            return;
        }
        m_out << "\nBy label\n";
        FigureTable table({"messages", "deferred", "share", "mean delay", "label"});
        constexpr char const* names[] = {"none", "ham", "spam"};
        for (std::size_t i = 0; i < labels.size(); ++i) {
            addCounts(table, labels[i], names[i]);
        }
        table.write(m_out);
    }

    void writeHours() {
        m_out << (m_options.perHour ? "\nBy hour (UTC)\n" : "\nBy hour of the day (UTC)\n");
        FigureTable table({"messages", "deferred", "share", "mean delay", "hour"});
        if (m_options.perHour) {
            for (auto const& [hour, counts] : m_statistics.byHour) {
                addCounts(table, counts, utc(hour).substr(0, 16));
            }
        } else {
            for (std::size_t hour = 0; hour < m_statistics.byDayHour.size(); ++hour) {
                addCounts(table, m_statistics.byDayHour[hour], (hour < 10 ? "0" : "") + number(hour) + ":00");
            }
        }
        table.write(m_out);
    }

    void writeNetworks() {
        m_out << "\nBy network (" << m_statistics.byNetwork.size() << ", the busiest first)\n";
        FigureTable table({"messages", "deferred", "share", "mean delay", "by exemption", "network"});
        for (auto const* entry : Rankings::busiestNetworks(m_statistics, m_options.top)) {
            Counts const& counts = entry->second.counts;
            table.add({number(counts.messages), number(counts.deferred), percent(counts.deferred, counts.messages),
                       meanDelay(counts), number(entry->second.autoExempt), entry->first.asString()});
        }
        table.write(m_out);
    }

    void writeSenders() {
        m_out << "\nSlowest senders (by their longest delay)\n";
        FigureTable slowest({"longest", "mean delay", "deferred", "messages", "sender"});
        for (auto const* entry : Rankings::slowestSenders(m_statistics, m_options.top)) {
            Counts const& counts = entry->second;
            slowest.add({durationText(counts.longest), meanDelay(counts), number(counts.deferred),
                         number(counts.messages), escapeForLog(entry->first)});
        }
        slowest.write(m_out);
        m_out << "\nMost deferred senders (" << m_statistics.bySender.size() << " senders in all)\n";
        FigureTable most({"deferred", "messages", "never let in", "mean delay", "sender"});
        for (auto const* entry : Rankings::mostDeferredSenders(m_statistics, m_options.top)) {
            Counts const& counts = entry->second;
            most.add({number(counts.deferred), number(counts.messages), number(counts.lost), meanDelay(counts),
                      escapeForLog(entry->first)});
        }
        most.write(m_out);
    }

    static void addCounts(FigureTable& table, Counts const& counts, std::string const& what) {
        if (counts.messages > 0) {
            table.add({number(counts.messages), number(counts.deferred), percent(counts.deferred, counts.messages),
                       meanDelay(counts), what});
        }
    }

    std::ostream& m_out;
    Findings const& m_findings;
    Statistics& m_statistics;
    ReportOptions const& m_options;
};

} // namespace

void writeText(std::ostream& out, Findings const& findings, ReportOptions const& options) {
    TextReport(out, findings, options).write();
}

} // namespace Vellum::Tools
