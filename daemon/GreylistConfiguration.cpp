#include "daemon/GreylistConfiguration.h"

#include <utility>

namespace Vellum::Daemon {

GreylistConfiguration::GreylistConfiguration(GreylistSettings settings, std::string backupFile,
                                             std::function<bool()> mayBackUp, std::function<void()> onBackupDone)
    : m_settings(std::move(settings)), m_backupFile(std::move(backupFile)), m_mayBackUp(std::move(mayBackUp)),
      m_onBackupDone(std::move(onBackupDone)) {}

void GreylistConfiguration::backupDone() {
    if (m_onBackupDone) {
        m_onBackupDone();
    }
}

} // namespace Vellum::Daemon
