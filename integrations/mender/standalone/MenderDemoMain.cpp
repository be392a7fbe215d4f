// modemloader-mender-demo: a modem firmware update delivered the fleet's way, on a simulated
// device: an artifact made with modem-artifact, installed by the real Mender client in standalone
// mode through the update module, checked and reported. See `modemloader-mender-demo --help`.

#include <stdlib.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "MenderClient.h"
#include "SimulatedDevice.h"

namespace {
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

const char kUsage[] =
    "usage: modemloader-mender-demo [--shell]\n"
    "\n"
    "Makes a temporary device (ext4 movinand storage on a loop device, the modem emulator on a\n"
    "pseudo-terminal, a device tree with an integrated modem; the storage records revision 100)\n"
    "and a Mender client isolated in a temporary directory (device type modemloader-sim, the\n"
    "update module modem-firmware installed), makes the artifact modem-firmware-124 (revision\n"
    "124) from the update files and installs it with `mender install`, printing what the client\n"
    "printed. Then checks the modem's flash, the stored revision and `mender show-artifact`, and\n"
    "removes everything again. Needs root (loop devices, mounts, the client's mount namespace).\n"
    "\n"
    "  --shell  instead of installing, open a shell on the device and the client (DEVICE and\n"
    "           CLIENT name their folders; docs/mender.md has the commands to try); everything\n"
    "           is removed when the shell exits\n"
    "\n"
    "exit status: 0 the install succeeded and every check passed, 1 something failed, 2 usage\n";

int Fail(const std::string& message) {
    std::fprintf(stderr, "modemloader-mender-demo: %s\n", message.c_str());
    return kExitFailed;
}

std::string CommandLine(const std::vector<std::string>& arguments) {
    std::string line;
    for (const std::string& argument : arguments) {
        line += (line.empty() ? "" : " ") + argument;
    }
    return line;
}

int Shell(const CSimulatedDevice& device, const CMenderClient& client) {
    std::printf(
        "\nA shell on the simulated device. DEVICE=%s (update/ holds the update files)\n"
        "CLIENT=%s ($CLIENT/mender is the isolated client). Try the commands of\n"
        "docs/mender.md; `exit` removes the device.\n\n",
        device.Directory().c_str(), client.Directory().c_str());
    std::fflush(stdout);
    // The shell reads our standard input (a person, or commands piped in), which CChildProcess
    // would replace with /dev/null; the variables go into our environment, which it inherits.
    ::setenv("DEVICE", device.Directory().c_str(), 1);
    ::setenv("CLIENT", client.Directory().c_str(), 1);
    ::setenv("MODEM_ARTIFACT", CMenderClient::ArtifactMakerPath().c_str(), 1);
    const int status = std::system("/bin/sh -i");
    return status == -1 ? Fail("running a shell") : 0;
}

int Demo(const CSimulatedDevice& device, const CMenderClient& client) {
    std::string artifact;
    std::printf("=== artifact\n%s\n",
                CommandLine({CMenderClient::ArtifactMakerPath(), "--name", "modem-firmware-124",
                             "--device-type", "modemloader-sim", "--revision", "124", "..."})
                    .c_str());
    if (CStatus made = client.MakeArtifact(TArtifactRequest(), artifact); !made) {
        return Fail(made.Message());
    }
    std::printf("\n=== %s\n", CommandLine(client.ClientArguments({"install", artifact})).c_str());
    std::fflush(stdout);
    const TChildResult installed = client.Install(artifact, true);
    std::printf("=== mender install exited with status %d\n", installed.exitCode);
    const TChildResult shown = client.ShowArtifact();
    std::printf("\n=== %s\n%s", CommandLine(client.ClientArguments({"show-artifact"})).c_str(),
                shown.out.c_str());

    std::string flash;
    std::string revision;
    const bool flashed = device.ReadFlash(flash).IsOk() && flash == device.Firmware();
    // The plug-in writes the revision with its terminating NUL.
    const bool recorded =
        device.ReadStorageFile("revision", revision).IsOk() && revision == std::string("124\0", 4);
    std::printf("\n=== checks\nmodem flash equals the firmware (%zu bytes): %s\n",
                device.Firmware().size(), flashed ? "yes" : "NO");
    std::printf("storage revision is 124: %s\n", recorded ? "yes" : "NO");
    std::printf("client names modem-firmware-124: %s\n",
                shown.out == "modem-firmware-124\n" ? "yes" : "NO");
    const bool passed =
        installed.exitCode == 0 && flashed && recorded && shown.out == "modem-firmware-124\n";
    return passed ? 0 : Fail("the install or a check failed");
}
}  // namespace

int main(int argc, char** argv) {
    bool shell = false;
    for (int index = 1; index < argc; ++index) {
        const std::string option = argv[index];
        if (option == "--help" || option == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (option != "--shell") {
            std::fprintf(stderr, "modemloader-mender-demo: unknown option %s\n%s", option.c_str(),
                         kUsage);
            return kExitUsage;
        }
        shell = true;
    }
    for (const std::string& missing :
         {CSimulatedDevice::MissingPrerequisite(), CMenderClient::MissingPrerequisite()}) {
        if (!missing.empty()) {
            return Fail(missing);
        }
    }
    // The device's own configuration offers the revision it has: only the artifact's revision
    // makes the host flash.
    TDeviceSettings settings;
    settings.storedRevision = "100";
    settings.revision = "100";
    std::unique_ptr<CSimulatedDevice> device;
    if (CStatus made = CSimulatedDevice::Create(settings, device); !made) {
        return Fail(made.Message());
    }
    std::unique_ptr<CMenderClient> client;
    if (CStatus made = CMenderClient::Create(*device, TMenderSetup(), client); !made) {
        return Fail(made.Message());
    }
    return shell ? Shell(*device, *client) : Demo(*device, *client);
}
