#pragma once
// The real RAUC (Debian's rauc 1.8: `rauc service` and its client) on a simulated device, kept
// apart from the machine's own RAUC state and D-Bus: everything it reads and writes lives in a
// temporary directory.
//   system.conf          compatible "modemloader-sim", bootloader noop, the directory's own
//                        mount prefix and data directory, plain bundles only (no device-mapper
//                        here), the fleet CA as keyring; a stand-in root file-system slot
//                        rootfs.0 (boot name system0, the booted one) and the modem slot
//                        modem.0 (type raw, the one the bundles' hook installs)
//   modem-firmware.conf  the hook's settings: the shared runner, the device's host and
//                        configuration
//   keys/                test CAs and their signers, made here with openssl (NAME-ca.pem,
//                        NAME-signer.pem, NAME-signer.key); "fleet" is the device's keyring
//   mnt/, data/, slots/  RAUC's mount prefix, its central status file, the slots' devices
//   service.log          what the service logged, the hook's output included
// Each command runs through rauc-isolated: a private D-Bus session bus, mount and process
// namespaces that vanish with it. Used from one thread; needs root.

#include <memory>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "SimulatedDevice.h"
#include "Status.h"
#include "TemporaryDirectory.h"

// What a bundle is made of; the update files are the simulated device's.
struct TBundleRequest {
    std::string compatible = "modemloader-sim";
    std::string revision = "124";
    std::string signer = "fleet";  // the key set (MakeSigningKeys) whose signer signs it
};

// Where the device's integration comes from; empty: this source tree's (an installed package's
// otherwise: the bundle maker carries the hook that lies beside it).
struct TRaucSetup {
    std::string runner;       // the shared runner the hook's settings name
    std::string bundleMaker;  // modem-raucb
};

class CRaucService {
public:
    // Empty when RAUC can run here; otherwise why not (root, rauc, mksquashfs, dbus-run-session,
    // gdbus, unshare, openssl).
    static std::string MissingPrerequisite();
    // The bundle maker and the isolation script of this source tree (the maker carries the hook
    // that lies beside it).
    static std::string BundleMakerPath();
    static std::string IsolationPath();

    [[nodiscard]] static CStatus Create(const CSimulatedDevice& device,
                                        std::unique_ptr<CRaucService>& service,
                                        const TRaucSetup& setup = TRaucSetup());

    // A test CA `name` and a signer certificate it issued, in keys/.
    [[nodiscard]] CStatus MakeSigningKeys(const std::string& name) const;
    // Runs the bundle maker on the device's update files; `bundle` is its path.
    [[nodiscard]] CStatus MakeBundle(const TBundleRequest& request, std::string& bundle) const;

    // `rauc install BUNDLE`, to its end, against a service started for it.
    TChildResult Install(const std::string& bundle, bool showOutput = false) const;
    // The client's command line for `arguments`: rauc-isolated DIRECTORY followed by them.
    std::vector<std::string> ClientArguments(const std::vector<std::string>& arguments) const;

    // Everything the service logged so far.
    std::string ServiceLog() const;
    // The bundle version RAUC records as installed in the modem slot; empty when none.
    std::string InstalledVersion() const;

    const std::string& Directory() const { return m_directory.Path(); }
    std::string PathOf(const std::string& name) const { return m_directory.Join(name); }

private:
    CRaucService(const CSimulatedDevice& device, const TRaucSetup& setup)
        : m_device(device), m_setup(setup) {}
    CStatus Build();
    std::string SystemConfig() const;
    std::string Settings() const;

    const CSimulatedDevice& m_device;
    const TRaucSetup m_setup;
    CTemporaryDirectory m_directory{"/tmp/modemloader-rauc-"};
};
