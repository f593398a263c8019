#include "tools/vellumctl/EndpointCommands.h"

#include "foundation/Escape.h"
#include "tools/vellumctl/JsonArray.h"
#include "tools/vellumctl/Table.h"
#include "tools/vellumctl/TimeText.h"

#include <optional>
#include <vector>

namespace Vellum::Tools {
namespace {

class EndpointTable : public ListingOutput<EndpointRecord> {
  public:
    EndpointTable(Output& output, EndpointStyle const& style)
        : m_now(style.now), m_table(output, {"NUMBER", "SCORE", "BLACKLISTED UNTIL"}, style.header) {}

    void record(EndpointRecord const& record) override {
        m_table.row({escapeForLog(record.number), std::to_string(record.score),
                     record.expiry == 0 ? "-" : timeText(record.expiry, m_now)});
    }
    void finish() override { m_table.finish(); }
    void breakOff() override { m_table.finish(); }

  private:
    std::int64_t const m_now;
    Table m_table;
};

void appendJson(std::string& json, EndpointRecord const& record) {
    json += '{';
    std::size_t const first = json.size();
    appendJsonText(json, "number", record.number);
    json.erase(first, 1); // the comma
    json.append(",\"score\":").append(std::to_string(record.score));
    json.append(",\"expiry\":").append(std::to_string(record.expiry)).append("}");
}

class EndpointJson : public ListingOutput<EndpointRecord> {
  public:
    explicit EndpointJson(Output& output) : m_array(output) {}

    void record(EndpointRecord const& record) override {
        appendJson(m_array.next(), record);
        m_array.written();
    }
    void finish() override { m_array.finish(); }
    void breakOff() override { m_array.breakOff(); }

  private:
    JsonArray m_array;
};

ListingReader listing(DaemonConnection& daemon) {
    return {daemon, IPC::PduType::listEndpoints, IPC::PduType::endpointEntry};
}

// Subscribers in memory. The daemon answers it behind all requests that were sent before on this connection.
std::uint64_t countOf(DaemonConnection& daemon) {
    ListingReader reader = listing(daemon);
    reader.stop();
    return reader.count();
}

// A record tells the first characters of a number only, so a longer one is found by these.
std::optional<EndpointRecord> find(DaemonConnection& daemon, std::string const& number) {
    ListingReader reader = listing(daemon);
    EndpointRecord record;
    while (std::optional<std::string_view> const payload = reader.next()) {
        Detail::decode(record, *payload);
        if (record.number == number.substr(0, EndpointRecord::told)) {
            reader.stop();
            return record;
        }
    }
    return std::nullopt;
}

// Said of a number that a record does not tell whole: another one that begins like it could be meant.
std::string cutText(std::string const& number) {
    return number.size() <= EndpointRecord::told
               ? ""
               : "only the first " + std::to_string(EndpointRecord::told) + " of the number's " +
                     std::to_string(number.size()) + " characters are told and were compared";
}

} // namespace

std::unique_ptr<ListingOutput<EndpointRecord>> endpointOutput(Output& output, EndpointStyle const& style) {
    if (style.json) {
        return std::make_unique<EndpointJson>(output);
    }
    return std::make_unique<EndpointTable>(output, style);
}

void listEndpoints(DaemonConnection& daemon, EndpointListRequest const& request, Output& output, ProgressBar& bar) {
    ListingReader reader = listing(daemon);
    showListing(reader, request.view, *endpointOutput(output, request.style), output, bar);
}

void showEndpoint(DaemonConnection& daemon, std::string const& number, EndpointStyle const& style, Output& output) {
    std::optional<EndpointRecord> const record = find(daemon, number);
    if (!record) {
        throw Failure(ExitCode::failed, number + " is not in the daemon's memory: nothing was counted of it lately");
    }
    std::string const cut = cutText(number);
    if (style.json) {
        appendJson(output.buffer(), *record);
        output.write("\n");
    } else {
        output.write("number             " + escapeForLog(record->number) + "\nscore              " +
                     std::to_string(record->score) + "\nblacklisted until  " +
                     (record->expiry == 0 ? "-" : timeText(record->expiry, style.now)) + "\n" +
                     (cut.empty() ? "" : "note               " + cut + "\n"));
    }
    output.flush();
}

void removeEndpoint(DaemonConnection& daemon, std::string const& number, Output& output) {
    bool const wasThere = find(daemon, number).has_value();
    daemon.send(IPC::PduType::removeEndpoint, number);
    countOf(daemon); // the removal is not answered, but what comes behind it is
    std::string const cut = cutText(number);
    output.write(number + (wasThere ? " is removed from the daemon's memory" : " was not in the daemon's memory") +
                 (cut.empty() ? "" : " (" + cut + ")") + "\n");
    output.flush();
}

} // namespace Vellum::Tools
