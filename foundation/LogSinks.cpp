#include "foundation/LogSinks.h"

#include "foundation/Exception.h"
#include "foundation/LogLineFormatter.h"

#include <cerrno>
#include <fcntl.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/syslog_sink.h>
#include <system_error>
#include <unistd.h>

namespace Vellum {
namespace {

constexpr char syslogText[] = "syslog";
constexpr char standardErrorText[] = "stderr";

// Makes the file before spdlog does, so that it is not readable by everyone and a failure has a reason.
void createFile(std::string const& path) {
    int const descriptor = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0640);
    if (descriptor < 0) {
        throw Exception("makeLogger", Exception::failure, "LogSinks")
            .stringParameter("cannot open log file " + path + ": " + std::generic_category().message(errno));
    }
    ::close(descriptor);
}

std::shared_ptr<spdlog::sinks::sink> openSink(LogTarget const& target, std::string const& ident) {
    // The logger's own thread is the only one that uses a sink, so the variants without a lock do.
    std::shared_ptr<spdlog::sinks::sink> sink;
    switch (target.kind) {
    case LogTarget::Kind::syslog:
        return std::make_shared<spdlog::sinks::syslog_sink_st>(ident, LOG_PID, target.facility, false);
    case LogTarget::Kind::standardError:
        sink = std::make_shared<spdlog::sinks::stderr_sink_st>();
        break;
    case LogTarget::Kind::file:
        createFile(target.path);
        sink = std::make_shared<spdlog::sinks::basic_file_sink_st>(target.path);
        break;
    }
    sink->set_formatter(std::make_unique<LogLineFormatter>(ident));
    return sink;
}

} // namespace

LogTarget LogTarget::parse(std::string const& text) {
    LogTarget target;
    if (text == syslogText) {
        target.kind = Kind::syslog;
    } else if (text == standardErrorText) {
        target.kind = Kind::standardError;
    } else if (!text.empty() && text.front() == '/' && text.find('\0') == std::string::npos) {
        target.kind = Kind::file;
        target.path = text;
    } else {
        throw Exception("LogTarget::parse", Exception::failure, "LogSinks")
            .stringParameter('"' + text + "\" is neither \"syslog\", \"stderr\" nor an absolute path");
    }
    return target;
}

std::string LogTarget::asString() const {
    switch (kind) {
    case Kind::syslog:
        return syslogText;
    case Kind::standardError:
        return standardErrorText;
    case Kind::file:
        return path;
    }
    return path;
}

std::unique_ptr<Logger> makeLogger(LogTarget const& target, AsyncLogger::Options options) {
    if (options.ident.empty()) {
        options.ident = program_invocation_short_name;
    }
    std::string const ident = options.ident;
    AsyncLogger::OpenSink open = [target, ident] {
        return openSink(target, ident);
    };
    if (target.kind == LogTarget::Kind::syslog) {
        // Opened once: there is nothing to rotate, and closing the old sink would close the new one's connection.
        open = [sink = open()] {
            return sink;
        };
    }
    return std::make_unique<AsyncLogger>(std::move(open), std::move(options));
}

} // namespace Vellum
