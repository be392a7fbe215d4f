#pragma once
// One modem-sim child process for a test. Its standard output and error go to files so a test
// can check the exact text. The destructor kills and reaps a child that is still running, so a
// failed assertion leaves no emulator behind.

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

class CSimProcess {
public:
    CSimProcess() = default;
    ~CSimProcess();
    CSimProcess(const CSimProcess&) = delete;
    CSimProcess& operator=(const CSimProcess&) = delete;

    // Starts `program` with `arguments`; false if it could not be started.
    [[nodiscard]] bool Start(const std::string& program, const std::vector<std::string>& arguments,
                             const std::string& stdoutPath, const std::string& stderrPath);

    bool Signal(int signal) const;

    // The exit status once it has exited within `timeout`; -1 for a death by signal; none if
    // it is still running.
    std::optional<int> WaitForExit(std::chrono::milliseconds timeout);

private:
    pid_t m_pid = -1;
};
