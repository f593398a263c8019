#include "tools/vellumctl/RecordOutput.h"

#include "foundation/Escape.h"
#include "tools/vellumctl/JsonArray.h"
#include "tools/vellumctl/Table.h"
#include "tools/vellumctl/TimeText.h"

#include <string>
#include <string_view>

namespace Vellum::Tools {
namespace {

std::vector<std::string> titlesOf(Listed listed) {
    if (listed == Listed::tuples) {
        return {"NETWORK", "STATE", "MAY PASS", "EXPIRES", "SENDER", "RECIPIENT"};
    }
    return {"NETWORK", "STATE", "EXPIRES", "DOMAIN"};
}

class TableOutput : public ListingOutput<Record> {
  public:
    TableOutput(Output& output, RecordOutputStyle const& style)
        : m_style(style), m_table(output, titlesOf(style.listed), style.header) {}

    void record(Record const& record) override {
        std::string network = record.network.asString();
        std::string stateName(stateText(record.stateAt(m_style.now, m_style.listed)));
        std::string expires = timeText(record.expiry, m_style.now);
        if (m_style.listed == Listed::tuples) {
            m_table.row({std::move(network), std::move(stateName), timeText(record.passTime, m_style.now),
                         std::move(expires), escapeForLog(mailboxText(record.sender)),
                         escapeForLog(mailboxText(record.recipient))});
        } else {
            m_table.row({std::move(network), std::move(stateName), std::move(expires), escapeForLog(record.sender)});
        }
    }
    void finish() override { m_table.finish(); }
    void breakOff() override { m_table.finish(); }

  private:
    RecordOutputStyle m_style;
    Table m_table;
};

class JsonOutput : public ListingOutput<Record> {
  public:
    JsonOutput(Output& output, RecordOutputStyle const& style) : m_style(style), m_array(output) {}

    void record(Record const& record) override {
        bool const tuple = m_style.listed == Listed::tuples;
        std::string& json = m_array.next();
        json += "{\"network\":";
        appendJsonString(json, record.network.asString());
        if (tuple) {
            appendJsonText(json, "sender", mailboxText(record.sender));
            appendJsonText(json, "recipient", mailboxText(record.recipient));
        } else {
            appendJsonText(json, "domain", record.sender);
        }
        json.append(",\"state\":\"").append(stateText(record.stateAt(m_style.now, m_style.listed))).append("\"");
        if (tuple) {
            json.append(",\"pass_time\":").append(std::to_string(record.passTime));
        }
        json.append(",\"expiry\":").append(std::to_string(record.expiry)).append("}");
        m_array.written();
    }
    void finish() override { m_array.finish(); }
    void breakOff() override { m_array.breakOff(); }

  private:
    RecordOutputStyle m_style;
    JsonArray m_array;
};

} // namespace

std::unique_ptr<ListingOutput<Record>> makeRecordOutput(Output& output, RecordOutputStyle const& style) {
    if (style.json) {
        return std::make_unique<JsonOutput>(output, style);
    }
    return std::make_unique<TableOutput>(output, style);
}

} // namespace Vellum::Tools
