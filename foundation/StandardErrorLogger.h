// The logger of a process that has installed none: standard error, one write per line, nothing kept back.
#pragma once

#include "foundation/Logger.h"

namespace Vellum {

class StandardErrorLogger : public Logger {
  public:
    // Never destroyed, so that destructors of static objects can still log.
    static StandardErrorLogger& instance();

  protected:
    using Logger::write;
    // "2024-05-01T12:00:00.123+00:00 vellumd[815] warning: line", waiting until it is written.
    void write(Severity severity, std::string_view line) override;
};

} // namespace Vellum
