#include "tests/support/CapturingLogger.h"

#include "foundation/LogFormat.h"

#include <algorithm>
#include <iterator>

namespace Vellum {

CapturingLogger::CapturingLogger() : m_previous(install(this)) {}

CapturingLogger::~CapturingLogger() {
    install(m_previous);
}

template <class Wanted>
std::vector<CapturingLogger::Line> CapturingLogger::select(Wanted wanted) const {
    std::lock_guard<std::mutex> const holding(m_mutex);
    std::vector<Line> selected;
    std::copy_if(m_lines.begin(), m_lines.end(), std::back_inserter(selected), wanted);
    return selected;
}

std::vector<CapturingLogger::Line> CapturingLogger::lines() const {
    return select([](Line const&) { return true; });
}

std::vector<CapturingLogger::Line> CapturingLogger::records() const {
    return select([](Line const& line) { return line.isRecord; });
}

std::vector<CapturingLogger::Line> CapturingLogger::records(std::uint32_t code) const {
    return select([code](Line const& line) { return line.isRecord && line.code == code; });
}

std::vector<std::string> CapturingLogger::notes() const {
    std::vector<std::string> texts;
    for (Line const& line : select([](Line const& any) { return !any.isRecord; })) {
        texts.push_back(line.text);
    }
    return texts;
}

void CapturingLogger::clear() {
    std::lock_guard<std::mutex> const holding(m_mutex);
    m_lines.clear();
}

template <class Wanted>
std::optional<CapturingLogger::Line> CapturingLogger::wait(Wanted wanted, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> holding(m_mutex);
    auto found = m_lines.cend();
    m_added.wait_for(holding, timeout, [&] {
        found = std::find_if(m_lines.cbegin(), m_lines.cend(), wanted);
        return found != m_lines.cend();
    });
    return found == m_lines.cend() ? std::nullopt : std::optional<Line>(*found);
}

std::optional<CapturingLogger::Line> CapturingLogger::waitForRecord(std::uint32_t code,
                                                                    std::chrono::milliseconds timeout) const {
    return wait([code](Line const& line) { return line.isRecord && line.code == code; }, timeout);
}

std::optional<CapturingLogger::Line> CapturingLogger::waitForNote(std::string const& part,
                                                                  std::chrono::milliseconds timeout) const {
    return wait([&](Line const& line) { return !line.isRecord && line.text.find(part) != std::string::npos; }, timeout);
}

void CapturingLogger::write(Severity severity, std::string_view line) {
    keep({false, 0, 0, severity, {}, {}, std::string(line)});
}

void CapturingLogger::write(Record const& record) {
    std::string text;
    for (std::size_t i = 0; i < record.fields.size(); ++i) {
        text += (i == 0 ? "" : std::string(1, logFieldSeparator)) + record.fields[i];
    }
    keep({true, record.code, record.level, severityOf(record), record.format, record.fields, text});
}

void CapturingLogger::keep(Line line) {
    {
        std::lock_guard<std::mutex> const holding(m_mutex);
        m_lines.push_back(std::move(line));
    }
    m_added.notify_all();
}

} // namespace Vellum
