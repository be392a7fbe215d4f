// modemloader-rauc-demo: a modem firmware update delivered as a signed RAUC bundle, on a
// simulated device: a test CA and signer made with openssl, a bundle made with modem-raucb,
// installed by the real RAUC service and client through the bundle's hook, checked and reported.
// See `modemloader-rauc-demo --help`.

#include <stdlib.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "MountTable.h"
#include "RaucService.h"
#include "SimulatedDevice.h"

namespace {
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

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

int Fail(const std::string& message) {
    std::fprintf(stderr, "modemloader-rauc-demo: %s\n", message.c_str());
    return kExitFailed;
}

std::string CommandLine(const std::vector<std::string>& arguments) {
    std::string line;
    for (const std::string& argument : arguments) {
        line += (line.empty() ? "" : " ") + argument;
    }
    return line;
}

int Shell(const CSimulatedDevice& device, const CRaucService& rauc) {
    std::printf(
        "\nA shell on the simulated device. DEVICE=%s (update/ holds the update files)\n"
        "RAUC=%s (system.conf, keys/, service.log; $RAUC_ISOLATED runs the client against an\n"
        "isolated service). Try the commands of docs/rauc.md; `exit` removes the device.\n\n",
        device.Directory().c_str(), rauc.Directory().c_str());
    std::fflush(stdout);
    // The shell reads our standard input (a person, or commands piped in), which CChildProcess
    // would replace with /dev/null; the variables go into our environment, which it inherits.
    ::setenv("DEVICE", device.Directory().c_str(), 1);
    ::setenv("RAUC", rauc.Directory().c_str(), 1);
    ::setenv("MODEM_RAUCB", CRaucService::BundleMakerPath().c_str(), 1);
    ::setenv("RAUC_ISOLATED", CRaucService::IsolationPath().c_str(), 1);
    const int status = std::system("/bin/sh -i");
    return status == -1 ? Fail("running a shell") : 0;
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

    std::string flash;
    std::string revision;
    const bool flashed = device.ReadFlash(flash).IsOk() && flash == device.Firmware();
    // The plug-in writes the revision with its terminating NUL.
    const bool recorded =
        device.ReadStorageFile("revision", revision).IsOk() && revision == std::string("124\0", 4);
    const bool versioned = rauc.InstalledVersion() == "124";
    const bool released = !IsAnythingMountedUnder(rauc.Directory()) &&
                          LoopDevicesBackedUnder(rauc.Directory()).empty();
    std::printf("\n=== checks\nmodem flash equals the firmware (%zu bytes): %s\n",
                device.Firmware().size(), flashed ? "yes" : "NO");
    std::printf("storage revision is 124: %s\n", recorded ? "yes" : "NO");
    std::printf("RAUC records bundle version 124 for slot modem.0: %s\n", versioned ? "yes" : "NO");
    std::printf("bundle unmounted and detached: %s\n", released ? "yes" : "NO");
    const bool passed = installed.exitCode == 0 && flashed && recorded && versioned && released;
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
            std::fprintf(stderr, "modemloader-rauc-demo: unknown option %s\n%s", option.c_str(),
                         kUsage);
            return kExitUsage;
        }
        shell = true;
    }
    for (const std::string& missing :
         {CSimulatedDevice::MissingPrerequisite(), CRaucService::MissingPrerequisite()}) {
        if (!missing.empty()) {
            return Fail(missing);
        }
    }
    // The device's own configuration offers the revision it has: only the bundle's version makes
    // the host flash.
    TDeviceSettings settings;
    settings.storedRevision = "100";
    settings.revision = "100";
    std::unique_ptr<CSimulatedDevice> device;
    if (CStatus made = CSimulatedDevice::Create(settings, device); !made) {
        return Fail(made.Message());
    }
    std::unique_ptr<CRaucService> rauc;
    if (CStatus made = CRaucService::Create(*device, rauc); !made) {
        return Fail(made.Message());
    }
    return shell ? Shell(*device, *rauc) : Demo(*device, *rauc);
}
