#include "IntegrationOverhead.h"

#include <chrono>

#include "MenderClient.h"
#include "RaucService.h"
#include "SwupdateClient.h"

namespace {
constexpr double kHostTimeoutSeconds = 120;

// The device both runs are made on: the harness's 10 ms tick with the firmware size SWUpdate's
// client needs to wait for its install (CSwupdateClient::kFirmwareBytes, a quarter of a second
// of flashing), the same for the three systems so that their figures compare.
TDeviceSettings Settings(uint64_t seed) {
    TDeviceSettings settings;
    settings.seed = seed;
    settings.firmwareBytes = CIntegrationOverhead::FirmwareBytes();
    return settings;
}

}  // namespace

CStatus CIntegrationOverhead::HostRunAndDevice(uint64_t seed, TOverheadMeasurement& measurement,
                                               std::unique_ptr<CSimulatedDevice>& device) {
    const std::string context = "modemloader-host alone";
    std::unique_ptr<CSimulatedDevice> hostDevice;
    if (CStatus status = CSimulatedDevice::Create(Settings(seed), hostDevice); !status) {
        return status.WithContext(context);
    }
    TUpdateOptions options;
    options.timeoutSeconds = kHostTimeoutSeconds;
    TUpdateResult result;
    if (CStatus status = hostDevice->RunUpdate(options, result); !status) {
        return status.WithContext(context);
    }
    if (result.exitCode != 0) {
        return CStatus::Failure(context + ": exit status " + std::to_string(result.exitCode) +
                                ": " + result.err);
    }
    measurement.hostSeconds = result.seconds;
    if (CStatus status = hostDevice->CheckFlashHoldsFirmware().WithContext(context); !status) {
        return status;
    }
    return CSimulatedDevice::Create(Settings(seed), device);
}

CStatus CIntegrationOverhead::TimeInstall(CSimulatedDevice& device, const std::string& context,
                                          const std::function<TChildResult()>& install,
                                          TOverheadMeasurement& measurement,
                                          const std::function<std::string()>& log) {
    const auto start = std::chrono::steady_clock::now();
    const TChildResult installed = install();
    measurement.installSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    nlohmann::json summary;
    if (CStatus status = device.StopModem(summary); !status) {
        return status.WithContext(context);
    }
    if (installed.exitCode != 0) {
        return CStatus::Failure(context + ": " + Describe(installed) + (log ? log() : ""));
    }
    return device.CheckFlashHoldsFirmware().WithContext(context);
}

std::size_t CIntegrationOverhead::FirmwareBytes() { return CSwupdateClient::kFirmwareBytes; }

std::string CIntegrationOverhead::MenderMissing() { return CMenderClient::MissingPrerequisite(); }

std::string CIntegrationOverhead::SwupdateMissing() {
    return CSwupdateClient::MissingPrerequisite();
}

std::string CIntegrationOverhead::RaucMissing() { return CRaucService::MissingPrerequisite(); }

CStatus CIntegrationOverhead::MeasureMender(uint64_t seed, TOverheadMeasurement& measurement) {
    const std::string context = "mender install";
    std::unique_ptr<CSimulatedDevice> device;
    if (CStatus status = HostRunAndDevice(seed, measurement, device); !status) {
        return status.WithContext(context);
    }
    // Signed, as a fleet's artifacts are: the client checks the signature within the install.
    const std::string key = device->PathOf("signing.key");
    const std::string publicKey = device->PathOf("signing.pub");
    TChildOptions options;
    options.timeout = std::chrono::seconds(30);
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"openssl", "ecparam", "-genkey", "-name", "prime256v1", "-noout",
                                   "-out", key},
          std::vector<std::string>{"openssl", "ec", "-in", key, "-pubout", "-out", publicKey}}) {
        const TChildResult made = CChildProcess::Run(command, options);
        if (made.exitCode != 0) {
            return CStatus::Failure(context + ": making the signing key: " + Describe(made));
        }
    }
    TMenderSetup setup;
    setup.verifyKey = publicKey;
    std::unique_ptr<CMenderClient> client;
    if (CStatus status = CMenderClient::Create(*device, setup, client); !status) {
        return status.WithContext(context);
    }
    TArtifactRequest request;
    request.key = key;
    std::string artifact;
    if (CStatus status = client->MakeArtifact(request, artifact); !status) {
        return status.WithContext(context);
    }
    return TimeInstall(
        *device, context, [&] { return client->Install(artifact); }, measurement);
}

CStatus CIntegrationOverhead::MeasureSwupdate(uint64_t seed, TOverheadMeasurement& measurement) {
    const std::string context = "swupdate -i";
    std::unique_ptr<CSimulatedDevice> device;
    if (CStatus status = HostRunAndDevice(seed, measurement, device); !status) {
        return status.WithContext(context);
    }
    std::unique_ptr<CSwupdateClient> client;
    if (CStatus status = CSwupdateClient::Create(*device, TSwupdateSetup(), client); !status) {
        return status.WithContext(context);
    }
    std::string image;
    if (CStatus status = client->MakeImage(TSwuRequest(), image); !status) {
        return status.WithContext(context);
    }
    return TimeInstall(
        *device, context, [&] { return client->Install(image); }, measurement);
}

CStatus CIntegrationOverhead::MeasureRauc(uint64_t seed, TOverheadMeasurement& measurement) {
    const std::string context = "rauc install";
    std::unique_ptr<CSimulatedDevice> device;
    if (CStatus status = HostRunAndDevice(seed, measurement, device); !status) {
        return status.WithContext(context);
    }
    std::unique_ptr<CRaucService> rauc;
    if (CStatus status = CRaucService::Create(*device, rauc); !status) {
        return status.WithContext(context);
    }
    std::string bundle;
    if (CStatus status = rauc->MakeBundle(TBundleRequest(), bundle); !status) {
        return status.WithContext(context);
    }
    // The client's whole run: the isolated service's start, the bundle's checks, the hook.
    return TimeInstall(
        *device, context, [&] { return rauc->Install(bundle); }, measurement,
        [&] { return "\nservice log:\n" + rauc->ServiceLog(); });
}
