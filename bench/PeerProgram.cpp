#include "bench/PeerProgram.h"

#include "foundation/Exception.h"

#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Vellum::Bench {
namespace {

[[noreturn]] void fail(std::string const& what) {
    throw Exception("runPeer", Exception::failure, "PeerProgram").stringParameter(what);
}

std::string outputFile(PeerProgram const& program) {
    return program.directory + "/output";
}

std::string endOfOutput(PeerProgram const& program) {
    std::ifstream file(outputFile(program));
    std::string text(std::istreambuf_iterator<char>(file), {});
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    std::size_t const lastLine = text.rfind('\n');
    return lastLine == std::string::npos ? text : text.substr(lastLine + 1);
}

[[noreturn]] void become(PeerProgram const& program) {
    std::vector<char*> arguments;
    for (std::string const& argument : program.command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    execv(arguments[0], arguments.data());
    _exit(127);
}

bool exchangeDirectory(PeerProgram const& program) {
    return program.fixedDirectory.empty() ||
           (unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
            mount(program.ownDirectory.c_str(), program.fixedDirectory.c_str(), nullptr, MS_BIND, nullptr) == 0);
}

// The first process of the namespace: when it ends, the kernel ends all others there. It waits for the orphans of a
// program that goes to the background, and ends with a program that fails.
[[noreturn]] void beFirst(PeerProgram const& program) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int const output = open(outputFile(program).c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    int const input = open("/dev/null", O_RDONLY);
    dup2(input, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    close_range(3, ~0U, 0); // the pipe that tells of readiness ends with its last writer
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (!exchangeDirectory(program) || chdir(program.directory.c_str()) != 0) {
        _exit(126);
    }
    pid_t const child = fork();
    if (child == 0) {
        become(program);
    }
    int status = 0;
    for (pid_t ended = 0; (ended = wait(&status)) > 0;) {
        if (ended == child && status != 0) {
            break;
        }
    }
    _exit(1);
}

} // namespace

std::string PeerProgram::missing() const {
    if (access(command.front().c_str(), X_OK) != 0) {
        return "it is not installed: there is no " + command.front();
    }
    return geteuid() != 0 ? "starting it needs root" : "";
}

void runPeer(PeerProgram const& program, ServerProcess::Ready const& ready) {
    sigset_t awaited;
    sigemptyset(&awaited);
    sigaddset(&awaited, SIGTERM);
    sigprocmask(SIG_BLOCK, &awaited, nullptr);
    if (unshare(CLONE_NEWPID) != 0) {
        fail("no process namespace for it");
    }
    pid_t const first = fork();
    if (first == 0) {
        beFirst(program);
    }
    timespec const pause{0, 20'000'000};
    bool listens = false;
    for (int attempt = 0; attempt < 1000 && !(listens = accepts(program.address)); ++attempt) {
        if (waitpid(first, nullptr, WNOHANG) != 0) {
            fail("it ended instead of listening: " + endOfOutput(program));
        }
        if (sigtimedwait(&awaited, nullptr, &pause) == SIGTERM) {
            break;
        }
    }
    if (listens) {
        ready({program.address});
        sigwaitinfo(&awaited, nullptr);
    }
    kill(first, SIGKILL);
    waitpid(first, nullptr, 0);
    if (!listens) {
        fail("it does not listen: " + endOfOutput(program));
    }
}

} // namespace Vellum::Bench
