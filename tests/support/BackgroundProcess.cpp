#include "BackgroundProcess.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Vellum {

namespace {

int codeOf(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// The child's side of a fork of a program that may have threads: nothing here allocates.
[[noreturn]] void become(char* const* arguments, char const* output, pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int const out = open(output, O_WRONLY | O_CREAT | O_APPEND, 0600);
    int const in = open("/dev/null", O_RDONLY);
    if (getppid() != parent || out < 0 || in < 0) {
        _exit(126);
    }
    dup2(in, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(out, STDERR_FILENO);
    close_range(STDERR_FILENO + 1, ~0U, 0);
    execvp(arguments[0], arguments);
    _exit(127);
}

} // namespace

BackgroundProcess::BackgroundProcess(std::vector<std::string> const& command, std::string const& output)
    : m_owner(getpid()) {
    std::vector<char*> arguments;
    for (std::string const& argument : command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    m_process = fork();
    if (m_process == 0) {
        become(arguments.data(), output.c_str(), m_owner);
    }
    if (m_process < 0) {
        throw std::runtime_error("no process for " + command.front());
    }
}

BackgroundProcess::~BackgroundProcess() {
    if (getpid() == m_owner) {
        kill();
    }
}

void BackgroundProcess::signal(int number) const {
    if (!m_status) {
        ::kill(m_process, number);
    }
}

bool BackgroundProcess::isRunning() {
    int status = 0;
    if (!m_status && waitpid(m_process, &status, WNOHANG) == m_process) {
        m_status = codeOf(status);
    }
    return !m_status;
}

int BackgroundProcess::wait() {
    int status = 0;
    if (!m_status && waitpid(m_process, &status, 0) == m_process) {
        m_status = codeOf(status);
    }
    return m_status.value_or(-1);
}

void BackgroundProcess::kill() {
    signal(SIGKILL);
    wait();
}

} // namespace Vellum
