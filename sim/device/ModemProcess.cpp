#include "ModemProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "ChildProcess.h"
#include "ScratchDirectory.h"

namespace {
constexpr auto kStartTimeout = std::chrono::seconds(10);
constexpr auto kStopTimeout = std::chrono::seconds(5);
constexpr auto kPollInterval = std::chrono::milliseconds(2);

std::vector<char*> Pointers(std::vector<std::string>& strings) {
    std::vector<char*> pointers;
    for (std::string& text : strings) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

// Reaps the child if it has ended; true then, with its wait status in `status`.
bool Reaped(pid_t pid, int& status) {
    const pid_t reaped = ::waitpid(pid, &status, WNOHANG);
    return reaped == pid || (reaped < 0 && errno == ECHILD);
}

std::string LogOf(const std::string& logPath) {
    std::string log;
    if (!ReadWholeFile(logPath, log)) {
        return std::string();
    }
    return log.empty() ? std::string() : " (modem-sim said: " + log + ")";
}
}  // namespace

CModemProcess::~CModemProcess() {
    if (IsRunning()) {
        Terminate();
    }
}

CStatus CModemProcess::Start(const std::vector<std::string>& arguments, const std::string& linkPath,
                             const std::string& logPath) {
    if (IsRunning()) {
        return CStatus::Failure("starting modem-sim: it is already running");
    }
    m_logPath = logPath;
    const int log = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (log < 0) {
        return CStatus::Failure("starting modem-sim: " + logPath + ": " + std::strerror(errno));
    }
    const int input = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    std::vector<std::string> argumentStrings = arguments;
    std::vector<char*> argv = Pointers(argumentStrings);
    std::vector<std::string> environmentStrings = MergedEnvironment({});
    std::vector<char*> envp = Pointers(environmentStrings);
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(input, STDIN_FILENO);
        ::dup2(log, STDOUT_FILENO);
        ::dup2(log, STDERR_FILENO);
        ::execve(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    ::close(log);
    if (input >= 0) {
        ::close(input);
    }
    if (child < 0) {
        return CStatus::Failure(std::string("starting modem-sim: fork: ") + std::strerror(errno));
    }
    m_pid = child;

    const auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
    for (;;) {
        struct stat link {};
        if (::lstat(linkPath.c_str(), &link) == 0) {
            return CStatus::Ok();
        }
        int status = 0;
        if (Reaped(m_pid, status)) {
            m_pid = -1;
            return CStatus::Failure("starting modem-sim: it ended before making " + linkPath +
                                    LogOf(m_logPath));
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            Terminate();
            return CStatus::Failure("starting modem-sim: no " + linkPath + " within 10 s" +
                                    LogOf(m_logPath));
        }
        std::this_thread::sleep_for(kPollInterval);
    }
}

bool CModemProcess::Terminate() {
    ::kill(m_pid, SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + kStopTimeout;
    int status = 0;
    while (!Reaped(m_pid, status)) {
        if (std::chrono::steady_clock::now() >= deadline) {
            ::kill(m_pid, SIGKILL);
            while (::waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
            }
            m_pid = -1;
            return false;
        }
        std::this_thread::sleep_for(kPollInterval);
    }
    m_pid = -1;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

CStatus CModemProcess::Stop(const std::string& summaryPath, nlohmann::json& summary) {
    if (!IsRunning()) {
        return CStatus::Failure("stopping modem-sim: it is not running");
    }
    if (!Terminate()) {
        return CStatus::Failure("stopping modem-sim: it did not end cleanly on SIGTERM" +
                                LogOf(m_logPath));
    }
    std::string text;
    if (CStatus status = ReadWholeFile(summaryPath, text); !status) {
        return status.WithContext("modem-sim's summary");
    }
    summary = nlohmann::json::parse(text, nullptr, false);
    if (summary.is_discarded()) {
        return CStatus::Failure("modem-sim's summary " + summaryPath + " is not JSON: " + text);
    }
    return CStatus::Ok();
}
