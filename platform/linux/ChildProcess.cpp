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
    if (arguments.empty()) {
        result.error = "no program given";
        return result;
    }
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

    // Everything the child needs is made before fork: after it only async-signal-safe calls.
    std::vector<std::string> argumentStrings = arguments;
    std::vector<char*> argv = Pointers(argumentStrings);
    std::vector<std::string> environmentStrings = MergedEnvironment(options.extraEnvironment);
    std::vector<char*> envp = Pointers(environmentStrings);
    const bool searchPath = arguments[0].find('/') == std::string::npos;
    const char* directory =
        options.workingDirectory.empty() ? nullptr : options.workingDirectory.c_str();

    const auto start = std::chrono::steady_clock::now();
    const pid_t child = ::fork();
    if (child < 0) {
        result.error = SystemFailure("fork");
        return result;
    }
    if (child == 0) {
        ::dup2(input.Get(), STDIN_FILENO);
        if (outWrite.IsValid()) {
            ::dup2(outWrite.Get(), STDOUT_FILENO);
            ::dup2(errWrite.Get(), STDERR_FILENO);
        }
        if (directory != nullptr && ::chdir(directory) != 0) {
            ::_exit(127);
        }
        if (searchPath) {
            ::execvpe(argv[0], argv.data(), envp.data());
        } else {
            ::execve(argv[0], argv.data(), envp.data());
        }
        ::_exit(127);
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

bool IsInPath(const std::string& program) {
    TChildOptions options;
    options.timeout = std::chrono::seconds(10);
    return CChildProcess::Run({"sh", "-c", "command -v " + program}, options).exitCode == 0;
}
