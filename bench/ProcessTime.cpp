#include "bench/ProcessTime.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace Vellum::Bench {
namespace {

// Process and parent as the fourth field of "stat" has it; the second, the name, may hold anything but ends with the
// last parenthesis.
pid_t parentOf(std::string const& process) {
    std::ifstream file("/proc/" + process + "/stat");
    std::string text;
    std::getline(file, text);
    std::istringstream rest(text.substr(std::min(text.size(), text.rfind(')') + 1)));
    std::string state;
    pid_t parent = 0;
    rest >> state >> parent;
    return parent;
}

std::multimap<pid_t, pid_t> childrenOfAll() {
    std::multimap<pid_t, pid_t> children;
    for (auto const& entry : std::filesystem::directory_iterator("/proc")) {
        std::string const name = entry.path().filename();
        if (name.find_first_not_of("0123456789") == std::string::npos) {
            children.emplace(parentOf(name), std::stoi(name));
        }
    }
    return children;
}

} // namespace

std::map<pid_t, std::uint64_t> ProcessTime::used(pid_t root) {
    auto const children = childrenOfAll();
    std::map<pid_t, std::uint64_t> used;
    std::vector<pid_t> open{root};
    while (!open.empty()) {
        pid_t const process = open.back();
        open.pop_back();
        clockid_t clock{};
        timespec time{};
        if (clock_getcpuclockid(process, &clock) == 0 && clock_gettime(clock, &time) == 0) {
            used[process] =
                static_cast<std::uint64_t>(time.tv_sec) * 1000000000U + static_cast<std::uint64_t>(time.tv_nsec);
        }
        auto const [first, last] = children.equal_range(process);
        for (auto child = first; child != last; ++child) {
            open.push_back(child->second);
        }
    }
    return used;
}

std::uint64_t ProcessTime::nanoseconds() const {
    std::uint64_t sum = 0;
    for (auto const& [process, time] : used(m_root)) {
        auto const before = m_begin.find(process);
        sum += time - (before == m_begin.end() ? 0 : before->second);
    }
    return sum;
}

} // namespace Vellum::Bench
