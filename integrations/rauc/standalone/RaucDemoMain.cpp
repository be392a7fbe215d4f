// modemloader-rauc-demo: a modem firmware update delivered as a signed RAUC bundle, on a
// simulated device: a test CA and signer made with openssl, a bundle made with modem-raucb,
// installed by the real RAUC service and client through the bundle's hook, checked and reported.
// See `modemloader-rauc-demo --help`.

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "MountTable.h"
#include "RaucService.h"
#include "SimulatedDevice.h"
#include "SystemDemo.h"

namespace {
const char kUsage[] =
    "usage: modemloader-rauc-demo [--shell]\n"
    "\n"
    "Makes a temporary device (ext4 movinand storage on a loop device, the modem emulator on a\n"
    "pseudo-terminal, a device tree with an integrated modem; the storage records revision 100)\n"
    "and a RAUC setup isolated in a temporary directory (system.conf with compatible\n"
    "modemloader-sim and the modem slot modem.0, a test CA as keyring and a signer it issued),\n"
    "makes the bundle of revision 124 from the update files with modem-raucb and installs it\n"
    "with `rauc install` against a RAUC service on a private D-Bus session bus, printing what\n"
    "the client printed and the service logged. Then checks the modem's flash, the stored\n"
    "revision and the version RAUC records for the slot, and removes everything again. Needs\n"
    "root (loop devices, mounts, namespaces).\n"
    "\n"
    "  --shell  instead of installing, open a shell on the device and the RAUC setup (DEVICE and\n"
    "           RAUC name their folders; docs/rauc.md has the commands to try); everything is\n"
    "           removed when the shell exits\n"
    "\n"
    "exit status: 0 the install succeeded and every check passed, 1 something failed, 2 usage\n";

constexpr char kProgram[] = "modemloader-rauc-demo";

int Fail(const std::string& message) { return DemoFailure(kProgram, message); }

int Shell(const CSimulatedDevice& device, const CRaucService& rauc) {
    return RunDemoShell(
        kProgram,
        "\nA shell on the simulated device. DEVICE=" + device.Directory() +
            " (update/ holds the update files)\nRAUC=" + rauc.Directory() +
            " (system.conf, keys/, service.log; $RAUC_ISOLATED runs the client against an\n"
            "isolated service). Try the commands of docs/rauc.md; `exit` removes the device.\n\n",
        {{"DEVICE", device.Directory()},
         {"RAUC", rauc.Directory()},
         {"MODEM_RAUCB", CRaucService::BundleMakerPath()},
         {"RAUC_ISOLATED", CRaucService::IsolationPath()}});
}

int Demo(const CSimulatedDevice& device, const CRaucService& rauc) {
    std::string bundle;
    std::printf("=== bundle\n%s\n",
                CommandLine({CRaucService::BundleMakerPath(), "--compatible", "modemloader-sim",
                             "--revision", "124", "--cert", rauc.PathOf("keys/fleet-signer.pem"),
                             "--key", rauc.PathOf("keys/fleet-signer.key"), "..."})
                    .c_str());
    if (CStatus made = rauc.MakeBundle(TBundleRequest(), bundle); !made) {
        return Fail(made.Message());
    }
    std::printf("\n=== %s\n", CommandLine(rauc.ClientArguments({"install", bundle})).c_str());
    std::fflush(stdout);
    const TChildResult installed = rauc.Install(bundle, true);
    std::printf("=== rauc install exited with status %d\n", installed.exitCode);
    std::printf("\n=== the service's log (%s)\n%s", rauc.PathOf("service.log").c_str(),
                rauc.ServiceLog().c_str());

    const bool versioned = rauc.InstalledVersion() == "124";
    const bool released = !IsAnythingMountedUnder(rauc.Directory()) &&
                          LoopDevicesBackedUnder(rauc.Directory()).empty();
    const bool flashedAndRecorded = ReportFlashAndRevision(device);
    std::printf("RAUC records bundle version 124 for slot modem.0: %s\n", versioned ? "yes" : "NO");
    std::printf("bundle unmounted and detached: %s\n", released ? "yes" : "NO");
    const bool passed = installed.exitCode == 0 && flashedAndRecorded && versioned && released;
    return passed ? 0 : Fail("the install or a check failed");
}
}  // namespace

int main(int argc, char** argv) {
    bool shell = false;
    if (const std::optional<int> status = ParseDemoOptions(argc, argv, kProgram, kUsage, &shell)) {
        return *status;
    }
    std::unique_ptr<CSimulatedDevice> device;
    if (CStatus made = MakeDemoDevice(CRaucService::MissingPrerequisite(), device); !made) {
        return Fail(made.Message());
    }
    std::unique_ptr<CRaucService> rauc;
    if (CStatus made = CRaucService::Create(*device, rauc); !made) {
        return Fail(made.Message());
    }
    return shell ? Shell(*device, *rauc) : Demo(*device, *rauc);
}
