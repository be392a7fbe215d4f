#include "SystemDemo.h"

#include <stdlib.h>

#include <cstdio>
#include <cstdlib>

namespace {
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
}  // namespace

std::optional<int> ParseDemoOptions(int argc, char** argv, const std::string& program,
                                    const char* usage, bool* shell) {
    if (shell != nullptr) {
        *shell = false;
    }
    for (int index = 1; index < argc; ++index) {
        const std::string option = argv[index];
        if (option == "--help" || option == "-h") {
            std::fputs(usage, stdout);
            return 0;
        }
        if (option != "--shell" || shell == nullptr) {
            std::fprintf(stderr, "%s: unknown option %s\n%s", program.c_str(), option.c_str(),
                         usage);
            return kExitUsage;
        }
        *shell = true;
    }
    return std::nullopt;
}

int DemoFailure(const std::string& program, const std::string& message) {
    std::fprintf(stderr, "%s: %s\n", program.c_str(), message.c_str());
    return kExitFailed;
}

std::string CommandLine(const std::vector<std::string>& arguments) {
    std::string line;
    for (const std::string& argument : arguments) {
        line += (line.empty() ? "" : " ") + argument;
    }
    return line;
}

int RunDemoShell(const std::string& program, const std::string& banner,
                 const std::vector<std::pair<std::string, std::string>>& variables) {
    std::fputs(banner.c_str(), stdout);
    std::fflush(stdout);
    // The shell inherits our environment.
    for (const auto& [name, value] : variables) {
        ::setenv(name.c_str(), value.c_str(), 1);
    }
    const int status = std::system("/bin/sh -i");
    return status == -1 ? DemoFailure(program, "running a shell") : 0;
}

CStatus MakeDemoDevice(const std::string& systemPrerequisite,
                       std::unique_ptr<CSimulatedDevice>& device, std::size_t firmwareBytes) {
    for (const std::string& missing :
         {CSimulatedDevice::MissingPrerequisite(), systemPrerequisite}) {
        if (!missing.empty()) {
            return CStatus::Failure(missing);
        }
    }
    TDeviceSettings settings;
    settings.storedRevision = "100";
    settings.revision = "100";
    if (firmwareBytes != 0) {
        settings.firmwareBytes = firmwareBytes;
    }
    return CSimulatedDevice::Create(settings, device);
}

bool ReportFlashAndRevision(const CSimulatedDevice& device) {
    std::string flash;
    std::string revision;
    const bool flashed = device.ReadFlash(flash).IsOk() && flash == device.Firmware();
    // The plug-in writes the revision with its terminating NUL.
    const bool recorded =
        device.ReadStorageFile("revision", revision).IsOk() && revision == std::string("124\0", 4);
    std::printf("\n=== checks\nmodem flash equals the firmware (%zu bytes): %s\n",
                device.Firmware().size(), flashed ? "yes" : "NO");
    std::printf("storage revision is 124: %s\n", recorded ? "yes" : "NO");
    return flashed && recorded;
}
