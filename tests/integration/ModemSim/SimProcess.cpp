#include "SimProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "FileDescriptor.h"

CSimProcess::~CSimProcess() {
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        int status = 0;
        ::waitpid(m_pid, &status, 0);
    }
}

bool CSimProcess::Start(const std::string& program, const std::vector<std::string>& arguments,
                        const std::string& stdoutPath, const std::string& stderrPath) {
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const auto& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, stdoutPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    posix_spawn_file_actions_addopen(&actions, 2, stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    pid_t pid = -1;
    const int result =
        ::posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (result != 0) {
        return false;
    }
    m_pid = pid;
    return true;
}

bool CSimProcess::Signal(int signal) const { return m_pid > 0 && ::kill(m_pid, signal) == 0; }

std::optional<int> CSimProcess::WaitForExit(std::chrono::milliseconds timeout) {
    if (m_pid <= 0) {
        return std::nullopt;
    }
    // A pidfd becomes readable when the child exits: an exact wait without polling waitpid.
    CFileDescriptor exited(static_cast<int>(::syscall(SYS_pidfd_open, m_pid, 0)));
    if (exited.Valid()) {
        pollfd descriptor{exited.Get(), POLLIN, 0};
        if (::poll(&descriptor, 1, static_cast<int>(timeout.count())) <= 0) {
            return std::nullopt;
        }
    }
    int status = 0;
    if (::waitpid(m_pid, &status, exited.Valid() ? 0 : WNOHANG) != m_pid) {
        return std::nullopt;
    }
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
