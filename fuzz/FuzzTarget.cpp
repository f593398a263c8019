#include "fuzz/FuzzTarget.h"

#include "foundation/Escape.h"
#include "foundation/Logger.h"

#include <exception>

namespace Vellum::Fuzz {
namespace {

// Writes nothing, and remembers a line that would harm who reads a log.
class WatchingLogger : public Logger {
  public:
    WatchingLogger() : m_before(install(this)) {}
    ~WatchingLogger() override { install(m_before); }
    WatchingLogger(WatchingLogger const&) = delete;
    WatchingLogger& operator=(WatchingLogger const&) = delete;

    bool sawHarm() const { return m_sawHarm; }

  protected:
    using Logger::write;
    void write(Severity, std::string_view line) override {
        m_sawHarm = m_sawHarm || (!isPlainText(line) && escapeControls(line) != line);
    }

  private:
    Logger* m_before;
    bool m_sawHarm = false;
};

} // namespace

Target::Target(char const* name, Run function) {
    all()[name] = function;
}

void Target::run(Run target, std::string_view input) {
    WatchingLogger const log;
    try {
        target(input);
    } catch (Violation const&) {
        throw;
    } catch (std::exception const& failed) {
        throw Violation(std::string("an exception that no caller expects: ") + failed.what());
    }
    require(!log.sawHarm(), "a log line holds no control character");
}

std::map<std::string, Target::Run>& Target::all() {
    static std::map<std::string, Run> targets;
    return targets;
}

} // namespace Vellum::Fuzz
