#include "ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>

extern char** environ;

namespace {
// Owns one descriptor of the parent's side.
class CDescriptor {
public:
    explicit CDescriptor(int descriptor = -1) : m_descriptor(descriptor) {}
    ~CDescriptor() { Close(); }
    CDescriptor(const CDescriptor&) = delete;
    CDescriptor& operator=(const CDescriptor&) = delete;
    int Get() const { return m_descriptor; }
    void Reset(int descriptor) {
        Close();
        m_descriptor = descriptor;
    }
    void Close() {
        if (m_descriptor >= 0) {
            ::close(m_descriptor);
            m_descriptor = -1;
        }
    }

private:
    int m_descriptor;
};

std::vector<std::string> Environment(const std::vector<std::string>& extra) {
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
    std::vector<std::string> result;
    for (const std::string& name : order) {
        result.push_back(variables[name]);
    }
    return result;
}

std::vector<char*> Pointers(std::vector<std::string>& strings) {
    std::vector<char*> pointers;
    for (std::string& text : strings) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

std::string Failure(const std::string& what) { return what + ": " + std::strerror(errno); }
}  // namespace

TChildResult CChildProcess::Run(const std::vector<std::string>& arguments,
                                const TChildOptions& options) {
    TChildResult result;
    if (arguments.empty()) {
        result.error = "no program given";
        return result;
    }
    int errPipe[2];
    if (::pipe2(errPipe, O_CLOEXEC) != 0) {
        result.error = Failure("pipe");
        return result;
    }
    CDescriptor errRead(errPipe[0]);
    CDescriptor errWrite(errPipe[1]);
    CDescriptor outRead;
    CDescriptor outWrite;
    if (options.stdoutOnTerminal) {
        const int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0) {
            result.error = Failure("pseudo-terminal");
            if (master >= 0) {
                ::close(master);
            }
            return result;
        }
        outRead.Reset(master);
        char name[128];
        if (::ptsname_r(master, name, sizeof name) != 0) {
            result.error = Failure("ptsname");
            return result;
        }
        outWrite.Reset(::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
        if (outWrite.Get() < 0) {
            result.error = Failure(std::string("open ") + name);
            return result;
        }
    } else {
        int outPipe[2];
        if (::pipe2(outPipe, O_CLOEXEC) != 0) {
            result.error = Failure("pipe");
            return result;
        }
        outRead.Reset(outPipe[0]);
        outWrite.Reset(outPipe[1]);
    }
    CDescriptor input(::open("/dev/null", O_RDONLY | O_CLOEXEC));

    // Everything the child needs is prepared before fork: after it only async-signal-safe calls.
    std::vector<std::string> argumentStrings = arguments;
    std::vector<char*> argv = Pointers(argumentStrings);
    std::vector<std::string> environmentStrings = Environment(options.extraEnvironment);
    std::vector<char*> envp = Pointers(environmentStrings);
    const std::string program = arguments[0];
    const bool searchPath = program.find('/') == std::string::npos;
    const char* directory =
        options.workingDirectory.empty() ? nullptr : options.workingDirectory.c_str();

    const pid_t child = ::fork();
    if (child < 0) {
        result.error = Failure("fork");
        return result;
    }
    if (child == 0) {
        ::dup2(input.Get(), STDIN_FILENO);
        ::dup2(outWrite.Get(), STDOUT_FILENO);
        ::dup2(errWrite.Get(), STDERR_FILENO);
        if (directory != nullptr && ::chdir(directory) != 0) {
            ::_exit(127);
        }
        if (searchPath) {
            ::execvpe(program.c_str(), argv.data(), envp.data());
        } else {
            ::execve(program.c_str(), argv.data(), envp.data());
        }
        const char message[] = "ChildProcess: exec failed\n";
        [[maybe_unused]] const ssize_t written =
            ::write(STDERR_FILENO, message, sizeof message - 1);
        ::_exit(127);
    }
    result.started = true;
    outWrite.Close();
    errWrite.Close();
    input.Close();

    const auto deadline = std::chrono::steady_clock::now() + options.timeout;
    bool outOpen = true;
    bool errOpen = true;
    char buffer[4096];
    while (outOpen || errOpen) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            result.timedOut = true;
            ::kill(child, SIGKILL);
            break;
        }
        pollfd descriptors[2] = {{outOpen ? outRead.Get() : -1, POLLIN, 0},
                                 {errOpen ? errRead.Get() : -1, POLLIN, 0}};
        const int ready = ::poll(descriptors, 2, static_cast<int>(left.count()));
        if (ready < 0 && errno != EINTR) {
            break;
        }
        for (int index = 0; index < 2 && ready > 0; ++index) {
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
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) {
        result.exitCode = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.signal = WTERMSIG(status);
    }
    return result;
}

std::string Describe(const TChildResult& result) {
    std::string text = result.started ? "" : "not started: " + result.error + "\n";
    if (result.timedOut) {
        text += "timed out\n";
    }
    text += "exit code " + std::to_string(result.exitCode);
    if (result.signal != 0) {
        text += ", signal " + std::to_string(result.signal);
    }
    return text + "\n--- stdout:\n" + result.out + "--- stderr:\n" + result.err;
}
