// modemloader-swupdate-demo: a modem firmware update delivered as a signed SWUpdate image on a
// simulated device: a .swu made with modem-swu, installed by the real `swupdate -i` through the
// Lua handler modem-firmware, checked and reported. See `modemloader-swupdate-demo --help`.

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "SimulatedDevice.h"
#include "SwupdateClient.h"
#include "SystemDemo.h"

namespace {
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

constexpr char kProgram[] = "modemloader-swupdate-demo";

int Fail(const std::string& message) { return DemoFailure(kProgram, message); }

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
    // Captured, and printed as it came:
    // SWUpdate's log on standard output, the handler's and the host's lines on standard error.
    const TChildResult installed = client.Install(image);
    std::fputs(installed.out.c_str(), stdout);
    std::fputs(installed.err.c_str(), stdout);
    std::printf("=== swupdate exited with status %d\n", installed.exitCode);

    const bool flashedAndRecorded = ReportFlashAndRevision(device);
    const bool passed = installed.exitCode == 0 && flashedAndRecorded;
    return passed ? 0 : Fail("the install or a check failed");
}
}  // namespace

int main(int argc, char** argv) {
    if (const std::optional<int> status = ParseDemoOptions(argc, argv, kProgram, kUsage, nullptr)) {
        return *status;
    }
    // SWUpdate's client needs an image larger than its control socket's buffer (SwupdateClient.h).
    std::unique_ptr<CSimulatedDevice> device;
    if (CStatus made = MakeDemoDevice(CSwupdateClient::MissingPrerequisite(), device,
                                      CSwupdateClient::kFirmwareBytes);
        !made) {
        return Fail(made.Message());
    }
    std::unique_ptr<CSwupdateClient> client;
    if (CStatus made = CSwupdateClient::Create(*device, TSwupdateSetup(), client); !made) {
        return Fail(made.Message());
    }
    return Demo(*device, *client);
}
