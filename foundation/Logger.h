// The process's log.
//
// Two kinds of record: coded records, whose code, format and fields are a promise to log readers (fields are separated
// by the byte 0x01 in the format), and plain notes of the daemons. Each becomes one readable line; bytes of a value
// that could forge a field or a line (control characters, 0x01) are escaped (Escape.h).
//
//   0x03000170: GlDisplay; 154
//
// Thread-safe. The sinks never make a caller wait: see LogSinks.h.
#pragma once

#include "foundation/Escape.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Vellum {

class Logger {
  public:
    enum class Severity { debug, info, warning, error };

    // One coded record, ready for a sink.
    struct Record {
        std::uint32_t code;
        int level;
        std::string format;              // as the caller gave it, 0x01 separators included
        std::vector<std::string> fields; // one per part of the format, values rendered and escaped
    };

    // The process's logger: standard error until install() names another. The flag is ignored.
    static Logger& instance(bool);
    // Makes `logger` the process's logger (null: back to standard error); returns the one it replaces, null if that
    // was the built-in. Borrowed, not owned: the caller keeps it alive until it is replaced and no thread logs.
    static Logger* install(Logger* logger);

    virtual ~Logger() = default;
    // Hands everything accepted so far to the system. Waits for it.
    virtual void flush() {}
    // Opens the file again after a log rotation.
    virtual void reopen() {}
    // Logs a record: a 32-bit code, a level (the library passes 0), a printf format with 0x01 between its fields, and
    // the values. Conversions: all of printf but %n; a null %s is written "(null)". An invalid format is logged as
    // text.
    virtual void log(std::uint32_t code, int level, char const* format, ...) __attribute__((format(printf, 4, 5)));

    // A plain line of a daemon, without a code; control characters are escaped. The caller escapes a value inside the
    // line that could be taken for the text around it. Costs a fraction of a microsecond with the sinks of LogSinks.h.
    void note(Severity severity, std::string_view text);

  protected:
    // Where records and notes go. `line` holds no control characters and is valid UTF-8.
    virtual void write(Severity severity, std::string_view line) = 0;
    // A record before it becomes a line; capturing loggers override it. The default writes "0x%08x: f1; f2". A "; "
    // inside any field but the last is written "\x3b ", so that a line can be taken apart again.
    virtual void write(Record const& record);
    // Records carry no severity of their own. Nearly all report a failure, so the default is warning.
    virtual Severity severityOf(Record const& record) const;
};

// "debug", "info", "warning" or "error".
char const* severityName(Logger::Severity severity);

} // namespace Vellum
