// Keeps a second daemon out of one state directory.
#pragma once

#include <string>

namespace Vellum::Daemon {

// Holds an exclusive lock on a file for its life; the kernel lets go of it when the process ends, however it ends. The
// file stays and names the process that holds it.
class InstanceLock {
  public:
    // Throws Exception naming the file, and the process that holds it or the system's reason. Symbolic links are not
    // followed.
    explicit InstanceLock(std::string const& path);
    ~InstanceLock();
    InstanceLock(InstanceLock const&) = delete;
    InstanceLock& operator=(InstanceLock const&) = delete;

  private:
    int m_descriptor;
};

// A file that holds this process's number, removed at the end of its life; none for an empty path.
class PidFile {
  public:
    explicit PidFile(std::string const& path);
    ~PidFile();
    PidFile(PidFile const&) = delete;
    PidFile& operator=(PidFile const&) = delete;

  private:
    std::string m_path;
};

} // namespace Vellum::Daemon
