#include "HostRun.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>

#include "ChildProcess.h"

namespace {
constexpr auto kSampleInterval = std::chrono::milliseconds(1);
// Beyond the host's own --timeout, for a host that hangs on its way out.
constexpr double kGraceSeconds = 30;
constexpr char kInstallRequest[] = "\"id\":204";

std::vector<char*> Pointers(std::vector<std::string>& strings) {
    std::vector<char*> pointers;
    for (std::string& text : strings) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

struct TResidentSample {
    long residentKiB = -1;   // VmRSS: resident now
    long peakKiB = -1;       // VmHWM: the kernel's high-water mark of VmRSS since exec
    long anonymousKiB = -1;  // RssAnon: the part not backed by a file (heap, stacks)
};

// -1 for what cannot be read (the process is gone, or is a zombie).
TResidentSample SampleResident(pid_t pid) {
    TResidentSample sample;
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, 6, "VmRSS:") == 0) {
            sample.residentKiB = std::stol(line.substr(6));
        } else if (line.compare(0, 6, "VmHWM:") == 0) {
            sample.peakKiB = std::stol(line.substr(6));
        } else if (line.compare(0, 8, "RssAnon:") == 0) {
            sample.anonymousKiB = std::stol(line.substr(8));
        }
    }
    return sample;
}

// Reads what was appended to `path` since `offset` into `text`.
void ReadAppended(const std::string& path, std::streamoff& offset, std::string& text) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return;
    }
    file.seekg(offset);
    std::string appended((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    offset += static_cast<std::streamoff>(appended.size());
    text += appended;
}

double Seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}
}  // namespace

CStatus CHostRun::Run(CSimulatedDevice& device, const TUpdateOptions& options, THostRun& run) {
    run = THostRun();
    const std::string outputPath = device.PathOf("host-output.txt");
    const int output = ::open(outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (output < 0) {
        return CStatus::Failure("running the host: " + outputPath + ": " + std::strerror(errno));
    }
    const int input = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    std::vector<std::string> argumentStrings = device.HostArguments(options);
    std::vector<std::string> environmentStrings = MergedEnvironment(device.HostEnvironment());
    std::vector<char*> argv = Pointers(argumentStrings);
    std::vector<char*> envp = Pointers(environmentStrings);

    // Closed on exec: its end of file tells that the host's program has replaced the copy of
    // this process, whose memory no sample may count.
    int execPipe[2];
    if (::pipe2(execPipe, O_CLOEXEC) != 0) {
        ::close(output);
        return CStatus::Failure(std::string("running the host: pipe: ") + std::strerror(errno));
    }
    const auto started = std::chrono::steady_clock::now();
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(input, STDIN_FILENO);
        ::dup2(output, STDOUT_FILENO);
        ::dup2(output, STDERR_FILENO);
        ::execve(argv[0], argv.data(), envp.data());
        const int error = errno;
        [[maybe_unused]] const ssize_t written = ::write(execPipe[1], &error, sizeof error);
        ::_exit(127);
    }
    ::close(execPipe[1]);
    ::close(output);
    if (input >= 0) {
        ::close(input);
    }
    if (child < 0) {
        ::close(execPipe[0]);
        return CStatus::Failure(std::string("running the host: fork: ") + std::strerror(errno));
    }
    int execError = 0;
    ssize_t got = 0;
    while ((got = ::read(execPipe[0], &execError, sizeof execError)) < 0 && errno == EINTR) {
    }
    ::close(execPipe[0]);
    if (got > 0) {
        int ignored = 0;
        ::waitpid(child, &ignored, 0);
        return CStatus::Failure("running " + argumentStrings[0] + ": " + std::strerror(execError));
    }

    const auto deadline =
        started + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                      std::chrono::duration<double>(options.timeoutSeconds + kGraceSeconds));
    std::streamoff traceOffset = 0;
    std::string traceBeforeInstall;
    bool installSeen = false;
    int status = 0;
    rusage usage{};
    for (;;) {
        const TResidentSample sample = SampleResident(child);
        if (sample.peakKiB > 0) {
            run.peakResidentKiB = sample.peakKiB;
        }
        run.peakAnonymousKiB = std::max(run.peakAnonymousKiB, sample.anonymousKiB);
        if (!installSeen) {
            ReadAppended(device.TraceFile(), traceOffset, traceBeforeInstall);
            installSeen = traceBeforeInstall.find(kInstallRequest) != std::string::npos;
            if (!installSeen && sample.residentKiB > 0) {
                run.residentBeforeInstallKiB = sample.residentKiB;
                run.anonymousBeforeInstallKiB = sample.anonymousKiB;
            }
        }
        const pid_t reaped = ::wait4(child, &status, WNOHANG, &usage);
        if (reaped == child) {
            break;
        }
        if (reaped < 0 && errno != EINTR) {
            return CStatus::Failure(std::string("running the host: wait4: ") +
                                    std::strerror(errno));
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            ::kill(child, SIGKILL);
            while (::wait4(child, &status, 0, &usage) < 0 && errno == EINTR) {
            }
            break;
        }
        std::this_thread::sleep_for(kSampleInterval);
    }
    run.wallSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    run.userSeconds = Seconds(usage.ru_utime);
    run.systemSeconds = Seconds(usage.ru_stime);

    std::ifstream trace(device.TraceFile());
    std::string line;
    while (std::getline(trace, line)) {
        nlohmann::json parsed = nlohmann::json::parse(line, nullptr, false);
        if (parsed.is_discarded()) {
            return CStatus::Failure("the host's trace " + device.TraceFile() +
                                    ": not JSON: " + line);
        }
        run.trace.push_back(std::move(parsed));
    }
    if (CStatus stopped = device.StopModem(run.modemSummary); !stopped) {
        return stopped.WithContext("after the host's run");
    }
    return CStatus::Ok();
}
