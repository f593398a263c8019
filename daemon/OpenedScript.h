// A backup script that somebody asked to have restored: opened once, so that what was looked at is what is run.
#pragma once

#include "foundation/FileDescriptor.h"
#include "foundation/database/QueryFile.h"

#include <set>
#include <string>
#include <sys/types.h>

namespace Vellum::Daemon {

// Whoever may write to the script's directory could otherwise put another file or a link in its place after it was
// looked at, and have SQL of his own run as the database's user.
class OpenedScript {
  public:
    // Throws Exception, naming the path and the reason, when it is not a regular file that this process may read, is a
    // symbolic link, or somebody may change it who may not ask for a restore: it belongs to a user other than root,
    // this process's own and `mayAsk`, or its group or everybody may write to it. Links in its directories are
    // followed.
    OpenedScript(std::string const& path, std::set<uid_t> const& mayAsk);

    std::string const& path() const { return m_path; }
    int descriptor() const { return m_file.get(); }
    // For running it, while this object is there.
    Database::ScriptSource source() const { return {m_path, m_file.get()}; }

  private:
    std::string m_path;
    FileDescriptor m_file;
};

} // namespace Vellum::Daemon
