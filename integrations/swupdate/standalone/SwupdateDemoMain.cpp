// modemloader-swupdate-demo: a modem firmware update delivered as a signed SWUpdate image on a
// simulated device: a .swu made with modem-swu, installed by the real `swupdate -i` through the
// Lua handler modem-firmware, checked and reported. See `modemloader-swupdate-demo --help`.

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "SimulatedDevice.h"
#include "SwupdateClient.h"

namespace {
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

const char kUsage[] =
    "usage: modemloader-swupdate-demo\n"
    "\n"
    "Makes a temporary device (ext4 movinand storage on a loop device, the modem emulator on a\n"
    "pseudo-terminal, a device tree with an integrated modem; the storage records revision 100)\n"
    "and an SWUpdate isolated in a temporary directory (board modemloader-sim revision 1.0, its\n"
    "own configuration, TMPDIR and signer certificate, a private mount namespace), makes the\n"
    "signed image modem-firmware-124 from the update files and installs it with `swupdate -i`,\n"
    "printing what SWUpdate printed. Then checks the modem's flash and the stored revision, and\n"
    "removes everything again. Needs root (loop devices, mounts, the mount namespace).\n"
    "\n"
    "exit status: 0 the install succeeded and every check passed, 1 something failed, 2 usage\n";

int Fail(const std::string& message) {
    std::fprintf(stderr, "modemloader-swupdate-demo: %s\n", message.c_str());
    return kExitFailed;
}

std::string CommandLine(const std::vector<std::string>& arguments) {
    std::string line;
    for (const std::string& argument : arguments) {
        line += (line.empty() ? "" : " ") + argument;
    }
    return line;
}

int Demo(const CSimulatedDevice& device, const CSwupdateClient& client) {
    std::string image;
    std::printf("=== image\n%s\n",
                CommandLine({CSwupdateClient::ImageMakerPath(), "--board", "modemloader-sim",
                             "--hardware-revision", "1.0", "--revision", "124", "..."})
                    .c_str());
    if (CStatus made = client.MakeImage(TSwuRequest(), image); !made) {
        return Fail(made.Message());
    }
    std::printf("\n=== %s\n", CommandLine(client.InstallerArguments(image)).c_str());
    std::fflush(stdout);
    // Captured, to tell its result (CSwupdateClient::Succeeded), and printed as it came:
    // SWUpdate's log on standard output, the handler's and the host's lines on standard error.
    const TChildResult installed = client.Install(image);
    std::fputs(installed.out.c_str(), stdout);
    std::fputs(installed.err.c_str(), stdout);
    std::printf("=== swupdate exited with status %d%s\n", installed.exitCode,
                installed.exitCode != 0 && CSwupdateClient::Succeeded(installed)
                    ? " after reporting success"
                    : "");

    std::string flash;
    std::string revision;
    const bool flashed = device.ReadFlash(flash).IsOk() && flash == device.Firmware();
    // The plug-in writes the revision with its terminating NUL.
    const bool recorded =
        device.ReadStorageFile("revision", revision).IsOk() && revision == std::string("124\0", 4);
    std::printf("\n=== checks\nmodem flash equals the firmware (%zu bytes): %s\n",
                device.Firmware().size(), flashed ? "yes" : "NO");
    std::printf("storage revision is 124: %s\n", recorded ? "yes" : "NO");
    const bool passed = CSwupdateClient::Succeeded(installed) && flashed && recorded;
    return passed ? 0 : Fail("the install or a check failed");
}
}  // namespace

int main(int argc, char** argv) {
    for (int index = 1; index < argc; ++index) {
        const std::string option = argv[index];
        if (option == "--help" || option == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        std::fprintf(stderr, "modemloader-swupdate-demo: unknown option %s\n%s", option.c_str(),
                     kUsage);
        return kExitUsage;
    }
    for (const std::string& missing :
         {CSimulatedDevice::MissingPrerequisite(), CSwupdateClient::MissingPrerequisite()}) {
        if (!missing.empty()) {
            return Fail(missing);
        }
    }
    // The device's own configuration offers the revision it has: only the image's revision
    // makes the host flash.
    TDeviceSettings settings;
    settings.storedRevision = "100";
    settings.revision = "100";
    std::unique_ptr<CSimulatedDevice> device;
    if (CStatus made = CSimulatedDevice::Create(settings, device); !made) {
        return Fail(made.Message());
    }
    std::unique_ptr<CSwupdateClient> client;
    if (CStatus made = CSwupdateClient::Create(*device, TSwupdateSetup(), client); !made) {
        return Fail(made.Message());
    }
    return Demo(*device, *client);
}
