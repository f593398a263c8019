// A fresh directory for one test, removed with everything in it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace Vellum {

class TemporaryDirectory {
  public:
    TemporaryDirectory() : m_path((std::filesystem::temp_directory_path() / "vellum-test.XXXXXX").string()) {
        if (mkdtemp(m_path.data()) == nullptr) {
            throw std::runtime_error("no temporary directory " + m_path);
        }
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TemporaryDirectory(TemporaryDirectory const&) = delete;
    TemporaryDirectory& operator=(TemporaryDirectory const&) = delete;

    std::string const& path() const { return m_path; } // without a slash at the end

  private:
    std::string m_path;
};

} // namespace Vellum
