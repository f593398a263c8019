#include "tools/vellumctl/RecordOutput.h"

#include "foundation/Escape.h"
#include "tools/vellumctl/JsonText.h"
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

class TableOutput : public RecordOutput {
  public:
    TableOutput(Output& output, RecordOutputStyle const& style)
        : m_style(style), m_table(output, titlesOf(style.listed), style.header) {}

    void record(Record const& record, State state) override {
        std::string network = record.network.asString();
        std::string stateName(stateText(state));
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

class JsonOutput : public RecordOutput {
  public:
    JsonOutput(Output& output, Listed listed) : m_output(output), m_listed(listed) { m_output.write("["); }

    void record(Record const& record, State state) override {
        std::string& json = m_output.buffer();
        json += m_first ? "\n{\"network\":" : ",\n{\"network\":";
        m_first = false;
        appendJsonString(json, record.network.asString());
        if (m_listed == Listed::tuples) {
            appendText(json, "sender", mailboxText(record.sender));
            appendText(json, "recipient", mailboxText(record.recipient));
        } else {
            appendText(json, "domain", record.sender);
        }
        json.append(",\"state\":\"").append(stateText(state)).append("\"");
        if (m_listed == Listed::tuples) {
            json.append(",\"pass_time\":").append(std::to_string(record.passTime));
        }
        json.append(",\"expiry\":").append(std::to_string(record.expiry)).append("}");
        m_output.written();
    }
    void finish() override { m_output.write(m_first ? "]\n" : "\n]\n"); }
    void breakOff() override { m_output.write("\n"); }

  private:
    static void appendText(std::string& json, std::string_view key, std::string_view text) {
        json.append(",\"").append(key).append("\":");
        if (!appendJsonString(json, text)) {
            json.append(",\"").append(key).append("_hex\":");
            appendJsonHex(json, text);
        }
    }

    Output& m_output;
    Listed m_listed;
    bool m_first = true;
};

} // namespace

std::unique_ptr<RecordOutput> makeRecordOutput(Output& output, RecordOutputStyle const& style) {
    if (style.json) {
        return std::make_unique<JsonOutput>(output, style.listed);
    }
    return std::make_unique<TableOutput>(output, style);
}

} // namespace Vellum::Tools
