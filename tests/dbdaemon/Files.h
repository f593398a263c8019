// Files and directories of the database daemon's tests.
#pragma once

#include "foundation/FileDescriptor.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace Vellum::DatabaseDaemon {

inline void writeFile(std::string const& path, std::string const& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline std::string readFile(std::string const& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline FileDescriptor opened(std::string const& path) {
    return FileDescriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

// Sorted, and only what a journal holds of scripts: without its lock, its outcomes and its directory of failures.
inline std::vector<std::string> namesIn(std::string const& directory) {
    std::vector<std::string> names;
    for (auto const& entry : std::filesystem::directory_iterator(directory)) {
        std::string const name = entry.path().filename().string();
        if (name != "lock" && name != "outcomes" && name != "failed") {
            names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace Vellum::DatabaseDaemon
