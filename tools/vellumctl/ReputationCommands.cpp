#include "tools/vellumctl/ReputationCommands.h"

#include "reputation/ReputationHandlers.h"
#include "tools/vellumctl/Bar.h"
#include "tools/vellumctl/JsonArray.h"
#include "tools/vellumctl/Table.h"
#include "tools/vellumctl/TimeText.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>

namespace Vellum::Tools {
namespace {

constexpr std::size_t barColumns = 30;
constexpr std::size_t lastColumns = 7; // before the bars, of the last counter

using Record = Reputation::Entry::Record;

// All nine, with their names in JSON; the table shows those with a title.
struct Counter {
    char const* name;
    char const* title;
    std::uint32_t Record::*of;
};
constexpr Counter counters[] = {
    {"messages", "MESSAGES", &Record::messageCount},
    {"recipients", "RECIPIENTS", &Record::recipients},
    {"invalid_recipients", "INVALID", &Record::invalidRecipients},
    {"infected", "INFECTED", &Record::infected},
    {"spam", "SPAM", &Record::spam},
    {"extra_total", nullptr, &Record::extraTotal},
    {"extra_hits", nullptr, &Record::extraHits},
    {"extra_volume", nullptr, &Record::extraVolume},
    {"flagged", "FLAGGED", &Record::flagged},
};

class ReputationTable : public ListingOutput<ReputationRecord> {
  public:
    ReputationTable(Output& output, ReputationStyle const& style)
        : m_style(style), m_table(output, {"SCORE", "STATE", "LAST CHANGE", "ADDRESS"}, style.header) {}

    void record(ReputationRecord const& record) override {
        m_table.row({std::to_string(record.score), reputationStateText(record.state),
                     record.lastModified == 0 ? "-" : timeText(record.lastModified, m_style.now),
                     record.address.asString()});
    }
    void finish() override { m_table.finish(); }
    void breakOff() override { m_table.finish(); }

  private:
    ReputationStyle m_style;
    Table m_table;
};

class ReputationJson : public ListingOutput<ReputationRecord> {
  public:
    explicit ReputationJson(Output& output) : m_array(output) {}

    void record(ReputationRecord const& record) override {
        m_array.next()
            .append("{\"address\":\"")
            .append(record.address.asString())
            .append("\",\"score\":")
            .append(std::to_string(record.score))
            .append(",\"state\":")
            .append(std::to_string(record.state))
            .append(",\"state_name\":\"")
            .append(reputationStateText(record.state))
            .append("\",\"last_change\":")
            .append(std::to_string(record.lastModified))
            .append("}");
        m_array.written();
    }
    void finish() override { m_array.finish(); }
    void breakOff() override { m_array.breakOff(); }

  private:
    JsonArray m_array;
};

void writeJson(IPAddress const& address, std::vector<ReputationHour> const& hours, Output& output) {
    std::string json = "{\"address\":\"" + address.asString() + "\",\"hours\":[";
    char const* separator = "\n";
    for (ReputationHour const& hour : hours) {
        json.append(separator).append("{\"from\":").append(std::to_string(hour.from()));
        json.append(",\"score\":").append(std::to_string(hour.score()));
        for (Counter const& counter : counters) {
            json.append(",\"").append(counter.name).append("\":");
            json.append(std::to_string(hour.counters.*counter.of));
        }
        json += '}';
        separator = ",\n";
    }
    output.write(json + "\n]}\n");
}

void addRow(Table& table, std::string from, std::string score, std::vector<std::uint64_t> const& values,
            std::string const& drawn) {
    std::vector<std::string> cells{std::move(from), std::move(score)};
    for (std::uint64_t const value : values) {
        cells.push_back(std::to_string(value));
    }
    if (!drawn.empty()) { // in the last cell, so that a line without a bar has no blanks at its end
        std::string& last = cells.back();
        last.append(lastColumns > last.size() ? lastColumns - last.size() : 0, ' ').append("  ").append(drawn);
    }
    table.row(std::move(cells));
}

void writeTable(ReputationStyle const& style, std::vector<ReputationHour> const& hours, Output& output) {
    std::vector<std::string> titles{"FROM", "SCORE"};
    std::uint64_t most = 0;
    for (Counter const& counter : counters) {
        if (counter.title != nullptr) {
            titles.emplace_back(counter.title);
        }
    }
    for (ReputationHour const& hour : hours) {
        most = std::max<std::uint64_t>(most, hour.counters.messageCount);
    }
    Table table(output, std::move(titles), style.header);
    std::vector<std::uint64_t> sums;
    for (ReputationHour const& hour : hours) {
        std::vector<std::uint64_t> values;
        for (Counter const& counter : counters) {
            if (counter.title != nullptr) {
                values.push_back(hour.counters.*counter.of);
            }
        }
        sums.resize(values.size());
        std::transform(sums.begin(), sums.end(), values.begin(), sums.begin(), std::plus<>());
        addRow(table, localTime(hour.from()), std::to_string(hour.score()), values,
               bar(hour.counters.messageCount, most, barColumns));
    }
    addRow(table, "together", "", sums, "");
    table.finish();
}

} // namespace

void listReputations(DaemonConnection& daemon, ReputationListRequest const& request, Output& output, ProgressBar& bar) {
    ListingReader reader(daemon, IPC::PduType::listReputations, IPC::PduType::reputationEntry);
    std::unique_ptr<ListingOutput<ReputationRecord>> records;
    if (request.style.json) {
        records = std::make_unique<ReputationJson>(output);
    } else {
        records = std::make_unique<ReputationTable>(output, request.style);
    }
    showListing(reader, request.view, *records, output, bar);
}

std::vector<ReputationHour> shownHours(std::vector<ReputationHour> const& sent, std::int64_t now) {
    std::uint32_t const first = Reputation::Entry::firstPeriodAt(now);
    std::map<std::uint32_t, ReputationHour> hours;
    for (std::uint32_t slot = 0; slot < Reputation::scoredPeriods; ++slot) {
        hours[first + slot].period = first + slot;
    }
    for (ReputationHour const& hour : sent) {
        if (hour.period >= first) {
            hours[hour.period] = hour;
        }
    }
    std::vector<ReputationHour> shown;
    shown.reserve(hours.size());
    for (auto const& [period, hour] : hours) {
        shown.push_back(hour);
    }
    return shown;
}

void showReputation(DaemonConnection& daemon, ReputationShowRequest const& request, Output& output) {
    constexpr bool counted = false;
    ip_addr_t const wanted = request.address.asIpAddr();
    std::string_view const payload(reinterpret_cast<char const*>(&wanted), sizeof wanted);
    ListingReader reader(daemon, IPC::PduType::listReputationRecords, IPC::PduType::reputationRecord, payload, counted);
    std::vector<ReputationHour> sent;
    while (std::optional<std::string_view> const record = reader.next()) {
        Detail::decode(sent.emplace_back(), *record);
    }
    std::vector<ReputationHour> const hours = shownHours(sent, request.style.now);
    if (request.style.json) {
        writeJson(request.address, hours, output);
    } else {
        writeTable(request.style, hours, output);
    }
    output.flush();
}

void setReputationState(DaemonConnection& daemon, ReputationSetRequest const& request, Output& output) {
    Reputation::SetStateRequest wanted{};
    std::memcpy(&wanted.address, request.address.bytes().data(), sizeof wanted.address);
    wanted.state = static_cast<std::int32_t>(request.state);
    daemon.ask(IPC::PduType::adminStatus); // a daemon that does not serve us says so now
    daemon.send(IPC::PduType::setReputationState, {reinterpret_cast<char const*>(&wanted), sizeof wanted});
    daemon.ask(IPC::PduType::adminStatus); // answered when the request before it was taken
    std::string const address = request.address.asString();
    std::string const state = reputationStateText(request.state);
    if (request.json) {
        output.write("{\"address\":\"" + address + "\",\"state\":" + std::to_string(request.state) +
                     ",\"state_name\":\"" + state + "\",\"logged\":true}\n");
    } else {
        output.write("the daemon has logged the request of " + address + " to be " + state +
                     "; its state stays what the table says\n");
    }
    output.flush();
}

} // namespace Vellum::Tools
