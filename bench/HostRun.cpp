#include "HostRun.h"

#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <optional>
#include <thread>

#include "ChildProcess.h"

namespace {
constexpr auto kSampleInterval = std::chrono::milliseconds(1);
// Beyond the host's own --timeout, for a host that hangs on its way out.
constexpr double kGraceSeconds = 30;
constexpr char kInstallRequest[] = "\"id\":204";

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
    TStartOptions startOptions;
    startOptions.outputPath = device.PathOf("host-output.txt");
    startOptions.extraEnvironment = device.HostEnvironment();
    const auto started = std::chrono::steady_clock::now();
    // Start returns once the host's program has replaced the copy of this process, whose memory
    // no sample may count.
    CChildProcess host;
    if (CStatus status = host.Start(device.HostArguments(options), startOptions); !status) {
        return status.WithContext("running the host");
    }
    const pid_t child = host.Pid();

    const auto deadline =
        started + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                      std::chrono::duration<double>(options.timeoutSeconds + kGraceSeconds));
    std::streamoff traceOffset = 0;
    std::string traceBeforeInstall;
    bool installSeen = false;
    TChildExit exit;
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
        if (std::optional<TChildExit> ended = host.TryReap()) {
            exit = *ended;
            break;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            host.Signal(SIGKILL);
            exit = host.WaitToEnd();
            break;
        }
        std::this_thread::sleep_for(kSampleInterval);
    }
    run.wallSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    run.exitCode = exit.exitCode;
    run.signal = exit.signal;
    run.userSeconds = Seconds(exit.usage.ru_utime);
    run.systemSeconds = Seconds(exit.usage.ru_stime);

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
