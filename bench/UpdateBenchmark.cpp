#include "UpdateBenchmark.h"

#include <memory>
#include <vector>

#include "SimulatedDevice.h"

namespace {
constexpr double kUpdateTimeoutSeconds = 180;
// How many of the host's last log records a failed run's message carries: the measured runs
// log only to the trace, so without them a failure would say no more than its exit status.
constexpr std::size_t kFailureLogRecords = 12;

std::string LastLogRecords(const std::vector<nlohmann::json>& trace) {
    std::vector<std::string> lines;
    for (const nlohmann::json& record : trace) {
        if (record.value("kind", "") == "log") {
            lines.push_back(record.value("category", "") + " " + record.value("function", "") +
                            ": " + record.value("text", ""));
        }
    }
    const std::size_t first =
        lines.size() > kFailureLogRecords ? lines.size() - kFailureLogRecords : 0;
    std::string text;
    for (std::size_t index = first; index < lines.size(); ++index) {
        text += "\n  " + lines[index];
    }
    return text.empty() ? std::string("\n  (no log record in the trace)") : text;
}
}  // namespace

std::string DescribeBytes(std::size_t bytes) {
    if (bytes >= (1u << 20) && bytes % (1u << 20) == 0) {
        return std::to_string(bytes >> 20) + " MiB";
    }
    if (bytes >= (1u << 10) && bytes % (1u << 10) == 0) {
        return std::to_string(bytes >> 10) + " KiB";
    }
    return std::to_string(bytes) + " bytes";
}

CStatus CUpdateBenchmark::Measure(const TUpdateScenario& scenario,
                                  TUpdateMeasurement& measurement) {
    TDeviceSettings settings;
    settings.firmwareBytes = scenario.firmwareBytes;
    settings.seed = scenario.seed;
    settings.tickMs = scenario.tickMs;
    // The host's log is in its trace; a console log would only add work to the measured process.
    settings.hostLog = "none";
    if (scenario.baud > 0) {
        settings.modemOptions = {"--baud", std::to_string(scenario.baud)};
    }
    const std::string context =
        DescribeBytes(scenario.firmwareBytes) + " firmware, " + std::to_string(scenario.tickMs) +
        " ms tick, " +
        (scenario.baud > 0 ? std::to_string(scenario.baud) + " baud" : std::string("unpaced line"));

    std::unique_ptr<CSimulatedDevice> device;
    if (CStatus status = CSimulatedDevice::Create(settings, device); !status) {
        return status.WithContext(context);
    }
    TUpdateOptions options;
    options.timeoutSeconds = kUpdateTimeoutSeconds;
    if (CStatus status = CHostRun::Run(*device, options, measurement.host); !status) {
        return status.WithContext(context);
    }
    if (measurement.host.exitCode != 0) {
        std::string output;
        static_cast<void>(ReadWholeFile(device->PathOf("host-output.txt"), output));
        return CStatus::Failure(context + ": the update failed, modemloader-host exit status " +
                                std::to_string(measurement.host.exitCode) + ", signal " +
                                std::to_string(measurement.host.signal) + ": " + output +
                                "\nits last log records:" + LastLogRecords(measurement.host.trace));
    }
    if (CStatus status = device->CheckFlashHoldsFirmware(); !status) {
        return status.WithContext(context);
    }
    return CFirmwareTransferReader::Read(device->PathOf("modem-trace.txt"), scenario.firmwareBytes,
                                         kChunkBytes, measurement.transfer)
        .WithContext(context);
}
