#include "daemon/Command.h"

#include "foundation/FileDescriptor.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <string_view>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Vellum::Daemon {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

std::vector<char*> pointers(std::vector<std::string> const& texts) {
    std::vector<char*> all;
    all.reserve(texts.size() + 1);
    for (std::string const& text : texts) {
        all.push_back(const_cast<char*>(text.c_str()));
    }
    all.push_back(nullptr);
    return all;
}

std::string_view nameOf(std::string_view variable) {
    return variable.substr(0, variable.find('='));
}

// Each name once: which of two a program sees is up to the program.
std::vector<char*> environmentWith(std::vector<std::string> const& given) {
    std::vector<char*> all;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        if (std::none_of(given.begin(), given.end(),
                         [&](std::string const& one) { return nameOf(one) == nameOf(*variable); })) {
            all.push_back(*variable);
        }
    }
    std::vector<char*> const ours = pointers(given);
    all.insert(all.end(), ours.begin(), ours.end());
    return all;
}

// What becomes of descriptors and signals in the new process.
class SpawnPlan {
  public:
    SpawnPlan() {
        posix_spawn_file_actions_init(&files);
        posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_adddup2(&files, STDOUT_FILENO, STDERR_FILENO);
        posix_spawn_file_actions_addclosefrom_np(&files, STDERR_FILENO + 1);
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        posix_spawnattr_setpgroup(&attributes, 0);
        sigset_t set;
        sigemptyset(&set);
        posix_spawnattr_setsigmask(&attributes, &set);
        sigfillset(&set);
        posix_spawnattr_setsigdefault(&attributes, &set);
    }
    ~SpawnPlan() {
        posix_spawn_file_actions_destroy(&files);
        posix_spawnattr_destroy(&attributes);
    }
    SpawnPlan(SpawnPlan const&) = delete;
    SpawnPlan& operator=(SpawnPlan const&) = delete;

    posix_spawn_file_actions_t files{};
    posix_spawnattr_t attributes{};
};

bool hasEnded(pid_t process) {
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid == process;
}

// False when the limit is over before the process has ended. It stays to be waited for.
bool waitUntilEnded(pid_t process, milliseconds limit) {
    constexpr milliseconds glance{10}; // between looks at a process for which no descriptor was left
    // Not every version of the C library declares the function for C++.
    FileDescriptor const handle(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
    auto const end = Clock::now() + limit;
    while (!hasEnded(process)) {
        auto const left = std::chrono::ceil<milliseconds>(end - Clock::now());
        if (left <= milliseconds(0)) {
            return false;
        }
        pollfd waiting{handle.get(), POLLIN, 0};
        poll(&waiting, handle ? 1 : 0, static_cast<int>((handle ? left : std::min(left, glance)).count()));
    }
    return true;
}

CommandOutcome outcomeOf(pid_t process) {
    siginfo_t info{};
    while (waitid(P_PID, static_cast<id_t>(process), &info, WEXITED) != 0 && errno == EINTR) {
    }
    return {info.si_code == CLD_EXITED ? CommandOutcome::End::exited : CommandOutcome::End::signalled, info.si_status};
}

} // namespace

std::string CommandOutcome::asString(milliseconds limit) const {
    switch (end) {
    case End::exited:
        return "ended with status " + std::to_string(number);
    case End::signalled:
        return "was ended by signal " + std::to_string(number) + " (" + strsignal(number) + ")";
    case End::tooLong:
        return "took longer than " + std::to_string(std::chrono::duration_cast<std::chrono::seconds>(limit).count()) +
               " s and was killed";
    case End::notStarted:
        break;
    }
    return std::string("cannot be started: ") + std::strerror(number);
}

CommandOutcome runCommand(std::vector<std::string> const& words, milliseconds limit,
                          std::vector<std::string> const& environment) {
    std::vector<char*> const arguments = pointers(words);
    std::vector<char*> variables = environmentWith(environment);
    SpawnPlan const plan;
    pid_t process = 0;
    int const problem =
        posix_spawn(&process, words.front().c_str(), &plan.files, &plan.attributes, arguments.data(), variables.data());
    if (problem != 0) {
        return {CommandOutcome::End::notStarted, problem};
    }
    if (waitUntilEnded(process, limit)) {
        return outcomeOf(process);
    }
    constexpr milliseconds patience{2000}; // the kernel may keep a process that waits for a dead disk
    kill(-process, SIGKILL);
    kill(process, SIGKILL); // should it have left its group
    if (waitUntilEnded(process, patience)) {
        outcomeOf(process);
    }
    return {CommandOutcome::End::tooLong, 0};
}

} // namespace Vellum::Daemon
