// The places a process can log to, and the loggers for them.
//
//   syslog             the system log; the line alone, its severity as priority, ident and pid by the system
//   stderr             standard error
//   /var/log/x.log     a file, appended to; made with mode 0640 when missing. Its directory must exist.
//
// Lines of a file and of standard error begin with local time, program, pid and severity:
//
//   2024-05-01T12:00:00.123+02:00 vellumd[815] warning: 0x03000170: GlDisplay; 154
//
// All of them are asynchronous (AsyncLogger.h): a caller never waits, lines appear within a fifth of a second.
#pragma once

#include "foundation/AsyncLogger.h"
#include "foundation/Logger.h"

#include <memory>
#include <string>
#include <syslog.h>

namespace Vellum {

struct LogTarget {
    enum class Kind { syslog, standardError, file };

    Kind kind = Kind::standardError;
    std::string path;        // of a file
    int facility = LOG_MAIL; // of the system log

    // Reads "syslog", "stderr" or an absolute path. Throws Exception naming any other text.
    static LogTarget parse(std::string const& text);
    // The text that parse() reads.
    std::string asString() const;
};

// A logger for `target`, not installed yet; an empty options.ident means the name the program was started with.
// Throws Exception, naming path and reason, when the file cannot be opened for appending.
// One logger for the system log at a time: a process has one ident there.
std::unique_ptr<Logger> makeLogger(LogTarget const& target, AsyncLogger::Options options = {});

} // namespace Vellum
