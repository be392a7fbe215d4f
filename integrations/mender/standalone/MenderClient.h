#pragma once
// The real Mender client (Debian's mender-client 3.4) in standalone mode on a simulated device,
// kept apart from the machine's own Mender state: everything it reads and writes lives in a
// temporary directory.
//   etc/      mender.conf, device_type, artifact_info (the name before the first install),
//             modem-firmware.conf (the module's settings: the device's host and configuration)
//   modules/  the update module modem-firmware
//   data/     the client's --data: its database and the module's work directories
//   mender    the client as a command: runs it isolated, with every path given (see below)
// Client 3.4 takes the update modules' folder and the artifact-info file from fixed paths
// (/usr/share/mender/modules/v3, /etc/mender/artifact_info), not from its configuration file:
// each run therefore happens in a private mount namespace (unshare) where modules/ and etc/ are
// bound over those two folders. Nothing outside the directory is touched, and the bind mounts
// vanish with the namespace. Used from one thread; needs root.

#include <memory>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "SimulatedDevice.h"
#include "Status.h"
#include "TemporaryDirectory.h"

struct TMenderSetup {
    std::string deviceType = "modemloader-sim";
    std::string artifactName = "modem-firmware-100";  // before the first install
    std::string verifyKey;                            // public key; empty: accept unsigned
    // The update module the client runs and the shared runner its settings name; empty: this
    // tree's (an installed package's otherwise).
    std::string module;
    std::string runner;
};

// What an artifact is made of; the update files are the simulated device's.
struct TArtifactRequest {
    std::string name = "modem-firmware-124";
    std::string deviceType = "modemloader-sim";
    std::string revision = "124";
    std::string key;  // private key to sign with; empty: unsigned
};

class CMenderClient {
public:
    // Empty when the client can run here; otherwise why not (root, mender, mender-artifact,
    // unshare, the client's module folder).
    static std::string MissingPrerequisite();
    // The update module and the artifact maker of this source tree.
    static std::string ModulePath();
    static std::string ArtifactMakerPath();

    [[nodiscard]] static CStatus Create(const CSimulatedDevice& device, const TMenderSetup& setup,
                                        std::unique_ptr<CMenderClient>& client);

    // `mender install ARTIFACT`, to its end.
    TChildResult Install(const std::string& artifact, bool showOutput = false) const;
    // `mender show-artifact`: the name the client records as installed.
    TChildResult ShowArtifact() const;
    // Runs the artifact maker on the device's update files; `artifact` is its path.
    [[nodiscard]] CStatus MakeArtifact(const TArtifactRequest& request,
                                       std::string& artifact) const;

    const std::string& Directory() const { return m_directory.Path(); }
    std::string PathOf(const std::string& name) const { return m_directory.Join(name); }
    // The client's command line for `arguments`: Directory()/mender followed by them.
    std::vector<std::string> ClientArguments(const std::vector<std::string>& arguments) const;

private:
    explicit CMenderClient(const CSimulatedDevice& device) : m_device(device) {}
    CStatus Build(const TMenderSetup& setup);
    std::string ClientScript() const;
    TChildResult RunClient(const std::vector<std::string>& arguments, bool showOutput) const;

    const CSimulatedDevice& m_device;
    CTemporaryDirectory m_directory{"/tmp/modemloader-mender-"};
};
