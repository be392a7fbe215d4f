#include "UpdateBenchmark.h"

#include <memory>

#include "SimulatedDevice.h"

namespace {
constexpr double kUpdateTimeoutSeconds = 180;
}

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
                                std::to_string(measurement.host.signal) + ": " + output);
    }
    std::string flash;
    if (CStatus status = device->ReadFlash(flash); !status) {
        return status.WithContext(context);
    }
    if (flash != device->Firmware()) {
        return CStatus::Failure(context + ": the modem's flash does not hold the firmware (" +
                                std::to_string(flash.size()) + " bytes)");
    }
    return CFirmwareTransferReader::Read(device->PathOf("modem-trace.txt"), scenario.firmwareBytes,
                                         kChunkBytes, measurement.transfer)
        .WithContext(context);
}
