#include "foundation/LogSinks.h"

#include "foundation/Exception.h"
#include "foundation/LogLineFormatter.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <spdlog/details/null_mutex.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/syslog_sink.h>
#include <system_error>
#include <unistd.h>

namespace Vellum {
namespace {

constexpr char syslogText[] = "syslog";
constexpr char standardErrorText[] = "stderr";

using LogFile = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

// Not readable by everyone, and never behind a symbolic link: in a directory that others may write to, that would be
// their choice of the file that is written.
LogFile openLogFile(std::string const& path) {
    int const descriptor =
        ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW, 0640);
    LogFile file(descriptor < 0 ? nullptr : ::fdopen(descriptor, "ab"), std::fclose);
    if (file == nullptr) {
        std::string const reason = errno == ELOOP ? "it is a symbolic link" : std::generic_category().message(errno);
        if (descriptor >= 0) {
            ::close(descriptor);
        }
        throw Exception("makeLogger", Exception::failure, "LogSinks")
            .stringParameter("cannot open log file " + path + ": " + reason);
    }
    return file;
}

// The library's own sink opens its file by name, whatever is there.
class FileSink : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
  public:
    explicit FileSink(std::string const& path) : m_path(path), m_file(openLogFile(path)) {}

  private:
    void sink_it_(spdlog::details::log_msg const& message) override {
        spdlog::memory_buf_t line;
        formatter_->format(message, line);
        if (std::fwrite(line.data(), 1, line.size(), m_file.get()) != line.size()) {
            throw spdlog::spdlog_ex("Failed writing to file " + m_path, errno);
        }
    }
    void flush_() override {
        if (std::fflush(m_file.get()) != 0) {
            throw spdlog::spdlog_ex("Failed flush to file " + m_path, errno);
        }
    }

    std::string const m_path;
    LogFile m_file;
};

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
        sink = std::make_shared<FileSink>(target.path);
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
