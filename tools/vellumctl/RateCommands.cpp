#include "tools/vellumctl/RateCommands.h"

#include "foundation/Escape.h"
#include "senderratecontrol/Entry.h"
#include "tools/vellumctl/Bar.h"
#include "tools/vellumctl/JsonArray.h"
#include "tools/vellumctl/Table.h"
#include "tools/vellumctl/TimeText.h"

#include <algorithm>
#include <map>
#include <memory>

namespace Vellum::Tools {
namespace {

constexpr std::size_t barColumns = 30;

void addCountTitles(std::vector<std::string>& titles) {
    for (std::size_t counter = 1; counter <= std::tuple_size_v<RateCounts>; ++counter) {
        titles.push_back("COUNT" + std::to_string(counter));
    }
}

template <class Counts>
void addCounts(std::vector<std::string>& cells, Counts const& counts) {
    for (auto const count : counts) {
        cells.push_back(std::to_string(count));
    }
}

template <class Counts>
void appendCounts(std::string& json, char const* key, Counts const& counts) {
    json.append(",\"").append(key).append("\":[");
    char const* separator = "";
    for (auto const count : counts) {
        json.append(separator).append(std::to_string(count));
        separator = ",";
    }
    json += ']';
}

class RateTable : public ListingOutput<RateRecord> {
  public:
    RateTable(Output& output, RateStyle const& style) : m_style(style), m_table(output, titles(), style.header) {}

    void record(RateRecord const& record) override {
        std::vector<std::string> cells{rateStateText(record.state), rateReasonText(record.reason),
                                       record.blockedUntil == 0 ? "-" : timeText(record.blockedUntil, m_style.now)};
        addCounts(cells, record.totals);
        cells.push_back(escapeForLog(record.sender));
        m_table.row(std::move(cells));
    }
    void finish() override { m_table.finish(); }
    void breakOff() override { m_table.finish(); }

  private:
    static std::vector<std::string> titles() {
        std::vector<std::string> titles{"STATE", "REASON", "BLOCKED UNTIL"};
        addCountTitles(titles);
        titles.emplace_back("SENDER");
        return titles;
    }

    RateStyle m_style;
    Table m_table;
};

class RateJson : public ListingOutput<RateRecord> {
  public:
    explicit RateJson(Output& output) : m_array(output) {}

    void record(RateRecord const& record) override {
        std::string& json = m_array.next();
        json += '{';
        std::size_t const first = json.size();
        appendJsonText(json, "sender", record.sender);
        json.erase(first, 1); // the comma
        appendCounts(json, "totals", record.totals);
        json.append(",\"state\":\"").append(rateStateText(record.state));
        json.append("\",\"reason\":").append(std::to_string(record.reason));
        json.append(",\"blocked_until\":").append(std::to_string(record.blockedUntil)).append("}");
        m_array.written();
    }
    void finish() override { m_array.finish(); }
    void breakOff() override { m_array.breakOff(); }

  private:
    JsonArray m_array;
};

using Totals = std::array<std::uint64_t, std::tuple_size_v<RateCounts>>;

Totals totalsOf(std::vector<RatePeriod> const& periods) {
    Totals totals{};
    for (RatePeriod const& period : periods) {
        std::transform(totals.begin(), totals.end(), period.counts.begin(), totals.begin(), std::plus<>());
    }
    return totals;
}

void writeJson(RateShowRequest const& request, std::vector<RatePeriod> const& periods, Output& output) {
    std::string json = "{";
    appendJsonText(json, "sender", request.sender);
    json.erase(1, 1); // the comma
    json += ",\"periods\":[";
    char const* separator = "\n";
    for (RatePeriod const& period : periods) {
        json.append(separator).append("{\"from\":").append(std::to_string(period.from()));
        appendCounts(json, "counts", period.counts);
        json += '}';
        separator = ",\n";
    }
    json += "\n]";
    appendCounts(json, "totals", totalsOf(periods));
    output.write(json + "}\n");
}

void writeTable(RateShowRequest const& request, std::vector<RatePeriod> const& periods, Output& output) {
    std::vector<std::string> titles{"FROM"};
    addCountTitles(titles);
    titles.emplace_back("TOGETHER");
    Table table(output, std::move(titles), request.style.header);
    std::uint64_t most = 0;
    std::uint64_t all = 0;
    for (RatePeriod const& period : periods) {
        most = std::max(most, period.together());
        all += period.together();
    }
    std::size_t const width = std::to_string(all).size();
    for (RatePeriod const& period : periods) {
        std::vector<std::string> cells{localTime(period.from())};
        addCounts(cells, period.counts);
        std::string together = std::to_string(period.together());
        together.insert(0, width - together.size(), ' ');
        std::string const drawn = bar(period.together(), most, barColumns);
        if (!drawn.empty()) {
            together.append("  ").append(drawn);
        }
        cells.push_back(std::move(together));
        table.row(std::move(cells));
    }
    std::vector<std::string> cells{"half hour"};
    addCounts(cells, totalsOf(periods));
    cells.push_back(std::to_string(all));
    table.row(std::move(cells));
    table.finish();
}

} // namespace

void listRates(DaemonConnection& daemon, RateListRequest const& request, Output& output, ProgressBar& bar) {
    ListingReader reader(daemon, IPC::PduType::listSenderRates, IPC::PduType::senderRateEntry);
    std::unique_ptr<ListingOutput<RateRecord>> records;
    if (request.style.json) {
        records = std::make_unique<RateJson>(output);
    } else {
        records = std::make_unique<RateTable>(output, request.style);
    }
    showListing(reader, request.view, *records, output, bar);
}

std::vector<RatePeriod> shownPeriods(std::vector<RatePeriod> const& sent, std::int64_t now) {
    std::uint32_t const first = SenderRateControl::firstPeriodAt(now);
    std::map<std::uint32_t, RatePeriod> periods;
    for (std::uint32_t slot = 0; slot < SenderRateControl::periodsTotalled; ++slot) {
        periods[first + slot].period = first + slot;
    }
    for (RatePeriod const& period : sent) {
        if (period.period >= first) {
            periods[period.period] = period;
        }
    }
    std::vector<RatePeriod> shown;
    shown.reserve(periods.size());
    for (auto const& [number, period] : periods) {
        shown.push_back(period);
    }
    return shown;
}

void showRate(DaemonConnection& daemon, RateShowRequest const& request, Output& output) {
    constexpr bool counted = false;
    ListingReader reader(daemon, IPC::PduType::listSenderRateRecords, IPC::PduType::senderRateRecord, request.sender,
                         counted);
    std::vector<RatePeriod> sent;
    while (std::optional<std::string_view> const payload = reader.next()) {
        Detail::decode(sent.emplace_back(), *payload);
    }
    std::vector<RatePeriod> const periods = shownPeriods(sent, request.style.now);
    if (request.style.json) {
        writeJson(request, periods, output);
    } else {
        writeTable(request, periods, output);
    }
    output.flush();
}

} // namespace Vellum::Tools
