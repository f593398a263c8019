// A JSON array that is written element by element, one on each line.
#pragma once

#include "tools/vellumctl/JsonText.h"
#include "tools/vellumctl/Output.h"

#include <string>
#include <string_view>

namespace Vellum::Tools {

class JsonArray {
  public:
    // `output` is borrowed. Begins the array.
    explicit JsonArray(Output& output) : m_output(output) { m_output.write("["); }

    // Where to append the next element; call written() behind it.
    std::string& next() {
        std::string& json = m_output.buffer();
        json += m_first ? "\n" : ",\n";
        m_first = false;
        return json;
    }
    void written() { m_output.written(); }
    void finish() { m_output.write(m_first ? "]\n" : "\n]\n"); }
    // Leaves the array open, for a listing that broke.
    void breakOff() { m_output.write("\n"); }

  private:
    Output& m_output;
    bool m_first = true;
};

// Appends ,"key":"text", and ,"key_hex":"..." with all bytes behind it when they are not UTF-8.
inline void appendJsonText(std::string& json, std::string_view key, std::string_view text) {
    json.append(",\"").append(key).append("\":");
    if (!appendJsonString(json, text)) {
        json.append(",\"").append(key).append("_hex\":");
        appendJsonHex(json, text);
    }
}

} // namespace Vellum::Tools
