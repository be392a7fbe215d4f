#include "IntegrationOverhead.h"

#include <chrono>
#include <memory>

#include "ChildProcess.h"
#include "MenderClient.h"
#include "RaucService.h"
#include "SimulatedDevice.h"

namespace {
constexpr double kHostTimeoutSeconds = 120;

// The device both runs are made on: the harness's defaults (a 60000-byte firmware at a 10 ms
// tick, about a second of flashing), so that the overhead is not drowned in the transfer.
TDeviceSettings Settings(uint64_t seed) {
    TDeviceSettings settings;
    settings.seed = seed;
    return settings;
}

CStatus ExpectFlashed(const CSimulatedDevice& device, const std::string& context) {
    std::string flash;
    if (CStatus status = device.ReadFlash(flash); !status) {
        return status.WithContext(context);
    }
    if (flash != device.Firmware()) {
        return CStatus::Failure(context + ": the modem's flash does not hold the firmware (" +
                                std::to_string(flash.size()) + " bytes)");
    }
    return CStatus::Ok();
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}
}  // namespace

CStatus CIntegrationOverhead::MeasureHost(uint64_t seed, double& seconds) {
    const std::string context = "modemloader-host alone";
    std::unique_ptr<CSimulatedDevice> device;
    if (CStatus status = CSimulatedDevice::Create(Settings(seed), device); !status) {
        return status.WithContext(context);
    }
    TUpdateOptions options;
    options.timeoutSeconds = kHostTimeoutSeconds;
    TUpdateResult result;
    if (CStatus status = device->RunUpdate(options, result); !status) {
        return status.WithContext(context);
    }
    if (result.exitCode != 0) {
        return CStatus::Failure(context + ": exit status " + std::to_string(result.exitCode) +
                                ": " + result.err);
    }
    seconds = result.seconds;
    return ExpectFlashed(*device, context);
}

std::string CIntegrationOverhead::MenderMissing() { return CMenderClient::MissingPrerequisite(); }

CStatus CIntegrationOverhead::MeasureMender(uint64_t seed, TOverheadMeasurement& measurement) {
    const std::string context = "mender install";
    if (CStatus status = MeasureHost(seed, measurement.hostSeconds); !status) {
        return status;
    }
    std::unique_ptr<CSimulatedDevice> device;
    if (CStatus status = CSimulatedDevice::Create(Settings(seed), device); !status) {
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

    const auto start = std::chrono::steady_clock::now();
    const TChildResult installed = client->Install(artifact);
    measurement.installSeconds = SecondsSince(start);
    nlohmann::json summary;
    if (CStatus status = device->StopModem(summary); !status) {
        return status.WithContext(context);
    }
    if (installed.exitCode != 0) {
        return CStatus::Failure(context + ": " + Describe(installed));
    }
    return ExpectFlashed(*device, context);
}

std::string CIntegrationOverhead::RaucMissing() { return CRaucService::MissingPrerequisite(); }

CStatus CIntegrationOverhead::MeasureRauc(uint64_t seed, TOverheadMeasurement& measurement) {
    const std::string context = "rauc install";
    if (CStatus status = MeasureHost(seed, measurement.hostSeconds); !status) {
        return status;
    }
    std::unique_ptr<CSimulatedDevice> device;
    if (CStatus status = CSimulatedDevice::Create(Settings(seed), device); !status) {
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
    const auto start = std::chrono::steady_clock::now();
    const TChildResult installed = rauc->Install(bundle);
    measurement.installSeconds = SecondsSince(start);
    nlohmann::json summary;
    if (CStatus status = device->StopModem(summary); !status) {
        return status.WithContext(context);
    }
    if (installed.exitCode != 0) {
        return CStatus::Failure(context + ": " + Describe(installed) + "\n" + rauc->ServiceLog());
    }
    return ExpectFlashed(*device, context);
}
