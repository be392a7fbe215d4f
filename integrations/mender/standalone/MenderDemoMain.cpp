// modemloader-mender-demo: a modem firmware update delivered the fleet's way, on a simulated
// device: an artifact made with modem-artifact, installed by the real Mender client in standalone
// mode through the update module, checked and reported. See `modemloader-mender-demo --help`.

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "MenderClient.h"
#include "SimulatedDevice.h"
#include "SystemDemo.h"

namespace {
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

constexpr char kProgram[] = "modemloader-mender-demo";

int Fail(const std::string& message) { return DemoFailure(kProgram, message); }

int Shell(const CSimulatedDevice& device, const CMenderClient& client) {
    return RunDemoShell(kProgram,
                        "\nA shell on the simulated device. DEVICE=" + device.Directory() +
                            " (update/ holds the update files)\nCLIENT=" + client.Directory() +
                            " ($CLIENT/mender is the isolated client). Try the commands of\n"
                            "docs/mender.md; `exit` removes the device.\n\n",
                        {{"DEVICE", device.Directory()},
                         {"CLIENT", client.Directory()},
                         {"MODEM_ARTIFACT", CMenderClient::ArtifactMakerPath()}});
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

    const bool flashedAndRecorded = ReportFlashAndRevision(device);
    std::printf("client names modem-firmware-124: %s\n",
                shown.out == "modem-firmware-124\n" ? "yes" : "NO");
    const bool passed =
        installed.exitCode == 0 && flashedAndRecorded && shown.out == "modem-firmware-124\n";
    return passed ? 0 : Fail("the install or a check failed");
}
}  // namespace

int main(int argc, char** argv) {
    bool shell = false;
    if (const std::optional<int> status = ParseDemoOptions(argc, argv, kProgram, kUsage, &shell)) {
        return *status;
    }
    std::unique_ptr<CSimulatedDevice> device;
    if (CStatus made = MakeDemoDevice(CMenderClient::MissingPrerequisite(), device); !made) {
        return Fail(made.Message());
    }
    std::unique_ptr<CMenderClient> client;
    if (CStatus made = CMenderClient::Create(*device, TMenderSetup(), client); !made) {
        return Fail(made.Message());
    }
    return shell ? Shell(*device, *client) : Demo(*device, *client);
}
