#include "foundation/Logger.h"

#include "foundation/LogFormat.h"
#include "foundation/StandardErrorLogger.h"

#include <atomic>
#include <cstdio>

namespace Vellum {
namespace {

std::atomic<Logger*> installed{nullptr};

// A field that is followed by another one in a line.
std::string withoutSeparator(std::string field) {
    for (std::size_t at = 0; (at = field.find("; ", at)) != std::string::npos;) {
        field.replace(at, 1, "\\x3b");
    }
    return field;
}

} // namespace

Logger& Logger::instance(bool) {
    Logger* const logger = installed.load(std::memory_order_acquire);
    return logger != nullptr ? *logger : StandardErrorLogger::instance();
}

Logger* Logger::install(Logger* logger) {
    return installed.exchange(logger, std::memory_order_acq_rel);
}

void Logger::log(std::uint32_t code, int level, char const* format, ...) {
    Record record{code, level, format, {}};
    va_list values;
    va_start(values, format);
    record.fields = renderLogFields(format, values);
    va_end(values);
    write(record);
}

void Logger::note(Severity severity, std::string_view text) {
    if (isPlainText(text)) {
        write(severity, text);
    } else {
        write(severity, escapeControls(text));
    }
}

void Logger::write(Record const& record) {
    char code[16];
    std::snprintf(code, sizeof code, "0x%08x:", record.code);
    std::string line = code;
    for (std::size_t i = 0; i < record.fields.size(); ++i) {
        bool const last = i + 1 == record.fields.size();
        line += ' ' + (last ? record.fields[i] : withoutSeparator(record.fields[i]) + ';');
    }
    write(severityOf(record), line);
}

Logger::Severity Logger::severityOf(Record const&) const {
    return Severity::warning;
}

char const* severityName(Logger::Severity severity) {
    switch (severity) {
    case Logger::Severity::debug:
        return "debug";
    case Logger::Severity::info:
        return "info";
    case Logger::Severity::warning:
        return "warning";
    case Logger::Severity::error:
        return "error";
    }
    return "error";
}

} // namespace Vellum
