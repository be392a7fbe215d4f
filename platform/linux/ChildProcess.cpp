#include "ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>

#include "UniqueFd.h"

extern char** environ;

namespace {
std::vector<char*> Pointers(std::vector<std::string>& strings) {
    std::vector<char*> pointers;
    for (std::string& text : strings) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

std::string SystemFailure(const std::string& what) { return what + ": " + std::strerror(errno); }

// A pseudo-terminal for the child's standard output: we read the master, the child writes the
// slave.
bool OpenTerminal(CUniqueFd& master, CUniqueFd& slave, std::string& error) {
    master.Reset(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!master.IsValid() || ::grantpt(master.Get()) != 0 || ::unlockpt(master.Get()) != 0) {
        error = SystemFailure("pseudo-terminal");
        return false;
    }
    char name[128];
    if (::ptsname_r(master.Get(), name, sizeof name) != 0) {
        error = SystemFailure("ptsname");
        return false;
    }
    slave.Reset(::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!slave.IsValid()) {
        error = SystemFailure(std::string("open ") + name);
        return false;
    }
    return true;
}

int WaitForChild(pid_t child) {
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

// What the child's side of fork needs, all made before fork: after it only async-signal-safe
// calls.
struct TChildSetup {
    const char* directory = nullptr;  // null: ours
    int input = -1;                   // each -1: left as ours
    int output = -1;
    int errorOutput = -1;
    bool ownProcessGroup = false;
};

// The one fork and exec of this tree. Returns the child's pid once the program has replaced
// it, or -1 with `error` when it could not be started (exec's failure comes back through a
// pipe that exec closes).
pid_t ForkAndExec(const std::vector<std::string>& arguments,
                  const std::vector<std::string>& extraEnvironment, const TChildSetup& setup,
                  std::string& error) {
    if (arguments.empty()) {
        error = "no program given";
        return -1;
    }
    std::vector<std::string> argumentStrings = arguments;
    std::vector<char*> argv = Pointers(argumentStrings);
    std::vector<std::string> environmentStrings = MergedEnvironment(extraEnvironment);
    std::vector<char*> envp = Pointers(environmentStrings);
    const bool searchPath = arguments[0].find('/') == std::string::npos;
    int execPipe[2];
    if (::pipe2(execPipe, O_CLOEXEC) != 0) {
        error = SystemFailure("pipe");
        return -1;
    }
    CUniqueFd execRead(execPipe[0]);
    CUniqueFd execWrite(execPipe[1]);
    const pid_t child = ::fork();
    if (child < 0) {
        error = SystemFailure("fork");
        return -1;
    }
    // The child's side runs between fork and exec (or _exit): its coverage counters die with the
    // copy and are never written, so the coverage report leaves it out.
    // GCOVR_EXCL_START
    if (child == 0) {
        // A program starts with no signal blocked, whatever this thread blocks (the host program
        // reads SIGINT and SIGTERM from a signalfd): the mask would otherwise survive exec.
        sigset_t none;
        ::sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        if (setup.ownProcessGroup) {
            ::setpgid(0, 0);
        }
        if (setup.input >= 0) {
            ::dup2(setup.input, STDIN_FILENO);
        }
        if (setup.output >= 0) {
            ::dup2(setup.output, STDOUT_FILENO);
        }
        if (setup.errorOutput >= 0) {
            ::dup2(setup.errorOutput, STDERR_FILENO);
        }
        if (setup.directory == nullptr || ::chdir(setup.directory) == 0) {
            if (searchPath) {
                ::execvpe(argv[0], argv.data(), envp.data());
            } else {
                ::execve(argv[0], argv.data(), envp.data());
            }
        }
        const int failure = errno;
        [[maybe_unused]] const ssize_t written = ::write(execWrite.Get(), &failure, sizeof failure);
        ::_exit(127);
    }
    // GCOVR_EXCL_STOP
    if (setup.ownProcessGroup) {
        // Also here, so that the group exists before the caller may signal it.
        ::setpgid(child, child);
    }
    execWrite.Reset();
    int failure = 0;
    ssize_t got = 0;
    while ((got = ::read(execRead.Get(), &failure, sizeof failure)) < 0 && errno == EINTR) {
    }
    if (got > 0) {
        WaitForChild(child);
        error = (setup.directory != nullptr
                     ? "running " + arguments[0] + " in " + setup.directory + ": "
                     : "running " + arguments[0] + ": ") +
                std::strerror(failure);
        return -1;
    }
    return child;
}

TChildExit ExitOf(int status, const rusage& usage) {
    TChildExit exit;
    if (WIFEXITED(status)) {
        exit.exitCode = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        exit.signal = WTERMSIG(status);
    }
    exit.usage = usage;
    return exit;
}
}  // namespace

std::vector<std::string> MergedEnvironment(const std::vector<std::string>& extra) {
    std::map<std::string, std::string> variables;
    std::vector<std::string> order;
    const auto add = [&](const std::string& entry) {
        const std::string name = entry.substr(0, entry.find('='));
        if (variables.find(name) == variables.end()) {
            order.push_back(name);
        }
        variables[name] = entry;
    };
    for (char** entry = environ; *entry != nullptr; ++entry) {
        add(*entry);
    }
    for (const std::string& entry : extra) {
        add(entry);
    }
    std::vector<std::string> merged;
    for (const std::string& name : order) {
        merged.push_back(variables[name]);
    }
    return merged;
}

TChildResult CChildProcess::Run(const std::vector<std::string>& arguments,
                                const TChildOptions& options) {
    TChildResult result;
    CUniqueFd outRead, outWrite, errRead, errWrite;
    if (options.captureOutput) {
        int errPipe[2];
        if (::pipe2(errPipe, O_CLOEXEC) != 0) {
            result.error = SystemFailure("pipe");
            return result;
        }
        errRead.Reset(errPipe[0]);
        errWrite.Reset(errPipe[1]);
        if (options.stdoutOnTerminal) {
            if (!OpenTerminal(outRead, outWrite, result.error)) {
                return result;
            }
        } else {
            int outPipe[2];
            if (::pipe2(outPipe, O_CLOEXEC) != 0) {
                result.error = SystemFailure("pipe");
                return result;
            }
            outRead.Reset(outPipe[0]);
            outWrite.Reset(outPipe[1]);
        }
    }
    CUniqueFd input(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    TChildSetup setup;
    setup.directory = options.workingDirectory.empty() ? nullptr : options.workingDirectory.c_str();
    setup.input = input.Get();
    setup.output = outWrite.Get();
    setup.errorOutput = errWrite.Get();

    const auto start = std::chrono::steady_clock::now();
    const pid_t child = ForkAndExec(arguments, options.extraEnvironment, setup, result.error);
    if (child < 0) {
        return result;
    }
    result.started = true;
    outWrite.Reset();
    errWrite.Reset();
    input.Reset();

    // Waits on the child's exit through a process descriptor, and on its output while captured.
    CUniqueFd processFd(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
    const auto deadline = start + options.timeout;
    bool outOpen = outRead.IsValid();
    bool errOpen = errRead.IsValid();
    bool exited = false;
    char buffer[8192];
    while (outOpen || errOpen || !exited) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            result.timedOut = true;
            ::kill(child, SIGKILL);
            break;
        }
        pollfd descriptors[3] = {{outOpen ? outRead.Get() : -1, POLLIN, 0},
                                 {errOpen ? errRead.Get() : -1, POLLIN, 0},
                                 {exited ? -1 : processFd.Get(), POLLIN, 0}};
        if (!processFd.IsValid()) {
            // Without process descriptors the output's end stands for the exit.
            exited = true;
            descriptors[2].fd = -1;
        }
        const int ready = ::poll(descriptors, 3, static_cast<int>(left.count()));
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            break;
        }
        if (descriptors[2].revents != 0) {
            exited = true;
        }
        for (int index = 0; index < 2; ++index) {
            if (descriptors[index].revents == 0) {
                continue;
            }
            const int descriptor = index == 0 ? outRead.Get() : errRead.Get();
            const ssize_t got = ::read(descriptor, buffer, sizeof buffer);
            if (got > 0) {
                (index == 0 ? result.out : result.err).append(buffer, static_cast<size_t>(got));
            } else if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
                // End of file; a pseudo-terminal reports EIO once the child's side is closed.
                (index == 0 ? outOpen : errOpen) = false;
            }
        }
    }
    const int status = WaitForChild(child);
    result.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (WIFEXITED(status)) {
        result.exitCode = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.signal = WTERMSIG(status);
    }
    return result;
}

std::string Describe(const TChildResult& result) {
    std::string text = result.started ? "" : "not started: " + result.error + "; ";
    if (result.timedOut) {
        text += "killed after its time-out; ";
    }
    text += result.signal != 0 ? "killed by signal " + std::to_string(result.signal)
                               : "exit code " + std::to_string(result.exitCode);
    if (!result.out.empty()) {
        text += "\n--- stdout:\n" + result.out;
    }
    if (!result.err.empty()) {
        text += "\n--- stderr:\n" + result.err;
    }
    return text;
}

CChildProcess::~CChildProcess() {
    if (IsRunning()) {
        Signal(SIGKILL);
        WaitToEnd();
    }
}

CStatus CChildProcess::Start(const std::vector<std::string>& arguments,
                             const TStartOptions& options) {
    const std::string program = arguments.empty() ? std::string("a child") : arguments[0];
    if (IsRunning()) {
        return CStatus::Failure("starting " + program + ": a child is still running");
    }
    const auto openOutput = [](const std::string& path, CUniqueFd& file) {
        file.Reset(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        return file.IsValid() ? CStatus::Ok() : CStatus::Failure(SystemFailure(path));
    };
    CUniqueFd output, errorOutput;
    if (!options.outputPath.empty()) {
        if (CStatus status = openOutput(options.outputPath, output); !status) {
            return status.WithContext("starting " + program);
        }
    }
    if (!options.errorPath.empty()) {
        if (CStatus status = openOutput(options.errorPath, errorOutput); !status) {
            return status.WithContext("starting " + program);
        }
    }
    CUniqueFd input;
    if (options.inputFromNull) {
        input.Reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    }
    TChildSetup setup;
    setup.input = input.Get();
    setup.output = output.Get();
    setup.errorOutput = errorOutput.IsValid() ? errorOutput.Get() : output.Get();
    setup.ownProcessGroup = options.ownProcessGroup;
    std::string error;
    const pid_t child = ForkAndExec(arguments, options.extraEnvironment, setup, error);
    if (child < 0) {
        return CStatus::Failure(error);
    }
    m_pid = child;
    m_ownProcessGroup = options.ownProcessGroup;
    m_processFd.Reset(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
    return CStatus::Ok();
}

CStatus CChildProcess::StartCopy(const std::function<int()>& body) {
    if (IsRunning()) {
        return CStatus::Failure("starting a copy of this process: a child is still running");
    }
    const pid_t child = ::fork();
    if (child < 0) {
        return CStatus::Failure(SystemFailure("starting a copy of this process: fork"));
    }
    if (child == 0) {
        ::_exit(body());  // GCOVR_EXCL_LINE: the copy's counters die with it (see ForkAndExec)
    }
    m_pid = child;
    m_ownProcessGroup = false;
    m_processFd.Reset(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
    return CStatus::Ok();
}

bool CChildProcess::Signal(int signal) const {
    if (!IsRunning()) {
        return false;
    }
    return ::kill(m_ownProcessGroup ? -m_pid : m_pid, signal) == 0;
}

std::optional<TChildExit> CChildProcess::Reap(bool block) {
    if (!IsRunning()) {
        return std::nullopt;
    }
    int status = 0;
    rusage usage{};
    pid_t reaped = 0;
    while ((reaped = ::wait4(m_pid, &status, block ? 0 : WNOHANG, &usage)) < 0 && errno == EINTR) {
    }
    if (reaped != m_pid) {
        return std::nullopt;
    }
    m_pid = -1;
    m_processFd.Reset();
    return ExitOf(status, usage);
}

std::optional<TChildExit> CChildProcess::TryReap() { return Reap(false); }

std::optional<TChildExit> CChildProcess::Wait(std::chrono::milliseconds timeout) {
    if (!IsRunning()) {
        return std::nullopt;
    }
    if (m_processFd.IsValid()) {
        // The process descriptor becomes readable when the child ends: an exact wait.
        pollfd descriptor{m_processFd.Get(), POLLIN, 0};
        int ready = 0;
        while ((ready = ::poll(&descriptor, 1, static_cast<int>(timeout.count()))) < 0 &&
               errno == EINTR) {
        }
        return ready > 0 ? Reap(true) : std::nullopt;
    }
    // Without process descriptors: look again every millisecond until the time-out.
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (std::optional<TChildExit> exit = Reap(false)) {
            return exit;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return std::nullopt;
        }
        ::usleep(1000);
    }
}

TChildExit CChildProcess::WaitToEnd() {
    std::optional<TChildExit> exit = Reap(true);
    return exit ? *exit : TChildExit();
}

bool IsInPath(const std::string& program) {
    TChildOptions options;
    options.timeout = std::chrono::seconds(10);
    return CChildProcess::Run({"sh", "-c", "command -v " + program}, options).exitCode == 0;
}
